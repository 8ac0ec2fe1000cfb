// A module under conditions valid use rarely meets: device memory running
// out in a rebuild, sample indices passing 2^64, frequencies outside the
// configured range, and results collected on two threads at once.
#include <gtest/gtest.h>

#include <atomic>
#include <cmath>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "PowerModuleImpl.h"
#include "TestSignals.h"
#include "tarnel/CudaErrorHandling.h"

using namespace tarnel;

using namespace testsignals;

namespace {

constexpr double kRate = 10240.0;
constexpr double kSqrt2 = 1.4142135623730951;

ModuleSettings threePhase(unsigned long long ring) {
    ModuleSettings s{ThreePhaseStarThreeCurrents, kRate, ring};
    s.highestHarmonic = 5;
    s.lineToLine = s.interharmonics = s.thd = s.fullFft = false;
    return s;
}

// Writes balanced sines (100 V and 5 A peak at `frequency`) for samples first …
// first + count − 1, counting time from `origin` modulo 2^64, and reports them.
void writeSines(PowerModule& m, unsigned long long origin, unsigned long long first, unsigned count,
                double frequency = 50.0) {
    const unsigned long long ring = m.getBufferLength();
    for (unsigned char p = 0; p < 3; ++p) {
        float* u = nullptr;
        float* i = nullptr;
        m.getWaveformBufferUInput(p, &u);
        m.getWaveformBufferI(p, &i);
        for (unsigned k = 0; k < count; ++k) {
            const unsigned long long s = first + k;
            const double angle = 2.0 * kPi * frequency * static_cast<double>(s - origin) / kRate - p * 2.0 * kPi / 3.0;
            u[s % ring] = static_cast<float>(100.0 * std::sin(angle));
            i[s % ring] = static_cast<float>(5.0 * std::sin(angle));
        }
    }
    m.writeSamples(count);
}

// Calculates one block and checks its values against the sines written.
void expectSineBlock(PowerModule& m, unsigned long long first, unsigned length, double frequency = 50.0) {
    m.scheduleForCalculation(first, static_cast<int>(length), frequency);
    m.sync();
    const auto results = m.getResults(0);
    ASSERT_EQ(results.size(), 1u);
    EXPECT_EQ(results[0].firstSampleIndex, first);
    for (int p = 0; p < 3; ++p) {
        EXPECT_NEAR(results[0].phases[p].rmsU, 100.0 / kSqrt2, 2e-3) << "phase " << p;
        EXPECT_NEAR(results[0].phases[p].fundamentalU, 100.0 / kSqrt2, 0.05) << "phase " << p;
        EXPECT_NEAR(results[0].phases[p].activePower, 250.0, 0.05) << "phase " << p;
    }
}

}  // namespace

// A setting whose rebuild runs out of device memory is undone: the settings and
// getters are those from before, the previous layout is rebuilt, and the
// measurement, whose rings may have moved, is dropped until the next reset.
TEST(ModuleHardeningTest, ARebuildThatRunsOutOfMemoryIsUndone) {
    BackendOptions options;
    options.kind = BackendKind::Cpu;
    options.cpuDeviceMemoryCapacity = 4u << 20;
    TestModule m(options);
    configure(m, threePhase(20480));
    m.reset(0);
    writeSines(m, 0, 0, 2048);
    const unsigned long long built = m.implementation()->getRebuildCount();
    try {
        m.setBufferLength(1000000);
        FAIL() << "a ring of a million samples fits in 4 MiB";
    } catch (const GpuException& e) {
        EXPECT_NE(std::string(e.what()).find("setBufferLength(1000000) was not applied"), std::string::npos)
            << e.what();
    }
    EXPECT_EQ(m.getBufferLength(), 20480u);
    EXPECT_DOUBLE_EQ(m.implementation()->getBuffers().getBufferDuration(), 2.0);
    EXPECT_EQ(m.implementation()->getRebuildCount(), built + 1) << "the previous layout, rebuilt";
    EXPECT_THROW(m.writeSamples(10), std::logic_error);
    EXPECT_THROW(m.scheduleForCalculation(0, 2048, 50.0), std::logic_error);
    m.reset(0);
    writeSines(m, 0, 0, 2048);
    expectSineBlock(m, 0, 2048);

    // The first build failing leaves the module as new: unbuilt, and saying so.
    options.cpuDeviceMemoryCapacity = 4096;
    TestModule tiny(options);
    EXPECT_THROW(configure(tiny, threePhase(20480)), GpuException);
    EXPECT_EQ(tiny.getBufferLength(), 0u);
    EXPECT_DOUBLE_EQ(tiny.getSampleRate(), 1.0);
    try {
        tiny.reset(0);
        FAIL() << "an unbuilt module was reset";
    } catch (const std::logic_error& e) {
        EXPECT_NE(std::string(e.what()).find("no sample buffers"), std::string::npos) << e.what();
    }
}

// Sample indices are absolute and wrap at 2^64. With a power-of-two ring the
// ring positions run on continuously and a block may cross the wrap; with
// another length the positions jump at the wrap, so only a block crossing it
// is refused. Either way blocks before and after the wrap are calculated.
TEST(ModuleHardeningTest, AMeasurementRunsAcrossTwoToTheSixtyFour) {
    for (const unsigned long long ring : {16384ULL, 20000ULL}) {
        SCOPED_TRACE(ring);
        TestModule m(BackendKind::Cpu);
        configure(m, threePhase(ring));
        const unsigned long long origin = 0ULL - 6144;  // 2^64 − 6144
        m.reset(origin);
        writeSines(m, origin, origin, 4096);
        expectSineBlock(m, origin + 2048, 2048);
        writeSines(m, origin, origin + 4096, 4096);  // across the wrap
        if ((ring & (ring - 1)) == 0) {
            expectSineBlock(m, 0ULL - 1024, 2048);
        } else {
            try {
                m.scheduleForCalculation(0ULL - 1024, 2048, 50.0);
                FAIL() << "a block across the wrap of a 20000-sample ring";
            } catch (const std::invalid_argument& e) {
                EXPECT_NE(std::string(e.what()).find("2^64"), std::string::npos) << e.what();
            }
        }
        expectSineBlock(m, 0, 2048);
        writeSines(m, origin, 2048, 2048);
        expectSineBlock(m, 2048, 2048);
        EXPECT_EQ(m.implementation()->getProcessedSampleIndex(), 4096u);
        EXPECT_THROW(m.scheduleForCalculation(0ULL - 8192, 2048, 50.0), std::invalid_argument)
            << "written before the reset";
    }
}

// Period values from blocks run across 2^64 as well when the ring length is a
// power of two: a block straddling the wrap feeds its periods like any other.
TEST(ModuleHardeningTest, PeriodValuesRunAcrossTwoToTheSixtyFour) {
    TestModule m(BackendKind::Cpu);
    configure(m, threePhase(32768), [](PowerModule& module) { module.setPeriodValuesEnabled(true); });
    const unsigned long long origin = 0ULL - 3 * 2048 - 1000;
    m.reset(origin);
    std::vector<double> rms;
    for (int b = 0; b < 6; ++b) {
        unsigned long long first = origin + static_cast<unsigned long long>(b) * 2048;
        writeSines(m, origin, first, 2048);
        m.scheduleForCalculation(first, 2048, 50.0);
        int length = 2048;
        double frequency = 50.0;
        bool valid = true;
        m.scheduleForPeriodCalculation(1, &first, &length, &frequency, &valid);
        m.sync();
        EXPECT_EQ(m.getResults(0).size(), 1u);
        for (bool more = true; more;) {
            int count = 0;
            PowerResultsPeriod* values = nullptr;
            m.getPeriodResults(&count, &more, &values);
            for (int n = 0; n < count; ++n) rms.push_back(values[n * 4].rmsU);
        }
    }
    ASSERT_EQ(rms.size(), 60u);
    for (double value : rms) EXPECT_NEAR(value, 100.0 / kSqrt2, 0.01);
}

// Frequencies outside the configured range but inside (resolution, fs / 2)
// are calculated: with a static range on the one FFT length, with a variable
// range on the length of the nearest end of the range.
TEST(ModuleHardeningTest, FrequenciesOutsideTheConfiguredRange) {
    for (const bool variable : {false, true}) {
        SCOPED_TRACE(variable ? "variable" : "static");
        ModuleSettings s = threePhase(20480);
        s.variableFrequency = variable;
        s.minFrequency = 45.0;
        s.maxFrequency = 55.0;
        TestModule m(BackendKind::Cpu);
        configure(m, s);
        m.reset(0);
        // 40 periods of 200 Hz and 8 periods of 20 Hz, each a whole number of FFT bins.
        writeSines(m, 0, 0, 2048, 200.0);
        expectSineBlock(m, 0, 2048, 200.0);
        writeSines(m, 2048, 2048, 4096, 20.0);
        m.scheduleForCalculation(2048, 4096, 20.0);
        m.sync();
        const auto results = m.getResults(0);
        ASSERT_EQ(results.size(), 1u);
        EXPECT_EQ(results[0].fftOutputLength, 4096u / 2 + 1) << "the FFT of the lowest configured frequency";
        EXPECT_NEAR(results[0].phases[1].fundamentalU, 100.0 / kSqrt2, 0.05);
        EXPECT_THROW(m.scheduleForCalculation(2048, 4096, 2.0), std::invalid_argument) << "below 2.5 Hz resolution";
    }
}

// Block results collected on one thread while the control thread schedules and
// collects period values: the sample mark the period values wait for and the
// host rings they read are handed over without a data race.
TEST(ModuleHardeningTest, BlockAndPeriodResultsCollectedOnTwoThreads) {
    TestModule m(BackendKind::Cpu);
    configure(m, threePhase(40960), [](PowerModule& module) {
        module.setPeriodValuesEnabled(true);
        module.setNominalVoltage(100.0 / kSqrt2);
    });
    m.reset(0);
    constexpr int kBlocks = 24;
    constexpr unsigned kLength = 2048;
    std::atomic<int> collected{0};
    std::thread collector([&] {
        while (collected.load() < kBlocks) {
            for (const PowerResultsGeneral& r : m.getResults(0)) {
                EXPECT_NEAR(r.phases[0].rmsU, 100.0 / kSqrt2, 2e-3);
                collected.fetch_add(1);
            }
            std::this_thread::yield();
        }
    });
    int periodValues = 0;
    auto collectPeriodValues = [&] {
        for (bool more = true; more;) {
            int count = 0;
            PowerResultsPeriod* values = nullptr;
            m.getPeriodResults(&count, &more, &values);
            for (int n = 0; n < count; ++n) EXPECT_NEAR(values[n * 4].rmsU, 100.0 / kSqrt2, 0.01);
            periodValues += count;
        }
    };
    for (int b = 0; b < kBlocks; ++b) {
        const unsigned long long first = static_cast<unsigned long long>(b) * kLength;
        // The ring holds ten blocks: wait before overwriting the oldest one in flight.
        while (b - collected.load() >= 8) std::this_thread::yield();
        writeSines(m, 0, first, kLength);
        m.scheduleForCalculation(first, static_cast<int>(kLength), 50.0);
        int length = static_cast<int>(kLength);
        double frequency = 50.0;
        bool valid = true;
        unsigned long long start = first;
        m.scheduleForPeriodCalculation(1, &start, &length, &frequency, &valid);
        collectPeriodValues();
    }
    collector.join();
    collectPeriodValues();
    EXPECT_EQ(collected.load(), kBlocks);
    // 24 blocks of exactly ten periods each, every one collected once.
    EXPECT_EQ(periodValues, 240);
}
