// The module's settings and life cycle: defaults, updates and rebuilds,
// refused settings, reset, sample ingestion into the rings, the buffer set's
// layout, FFT plans, error texts and the grid table.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <functional>
#include <stdexcept>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "PowerModuleImpl.h"
#include "TestSignals.h"
#include "tarnel/CudaErrorHandling.h"

using namespace tarnel;

using namespace testsignals;

namespace {

using List = std::vector<unsigned short>;

unsigned long long rebuilds(const PowerModule& m) { return m.implementation()->getRebuildCount(); }

// Lets settings of mixed types be compared in one go (exactly, as doubles).
template <class... T>
std::vector<double> asDoubles(T... values) {
    return {static_cast<double>(values)...};
}

// Settings of a module with the fundamental only.
ModuleSettings plain(double rate, unsigned long long ring, PowerGridConfigType grid = SinglePhase) {
    ModuleSettings s{grid, rate, ring};
    s.highestHarmonic = 1;
    s.lineToLine = s.interharmonics = s.thd = s.fullFft = false;
    return s;
}

// Balanced three-phase sines: 100 V peak, 5 A peak in phase.
const MeasuredSignals kBalanced{balancedPhases(Waveform{{{1, 100.0, 0.0}}}, 3),
                                balancedPhases(Waveform{{{1, 5.0, 0.0}}}, 3)};

float* inputU(const PowerModule& m, unsigned char phase = 0) {
    return waveformBuffer(m, &PowerModule::getWaveformBufferUInput, phase);
}

}  // namespace

TEST(ModuleLifecycleTest, NewModuleReportsTheDefaults) {
    TestModule m(BackendKind::Cpu);
    const PowerConfig& c = m.implementation()->getConfig();
    EXPECT_TRUE(m.getCurrentEnabled());
    for (bool enabled : {m.getLineToLineResultsEnabled(), m.getWaveformsEnabled(), m.getInterHarmonicsEnabled(),
                         m.getFullFftEnabled(), m.getThdEnabled(), m.getSymmetricalComponentsEnabled(),
                         m.getPeriodValuesEnabled(), m.getFundamentalPeriodValuesEnabled(), m.getRvcEnabled(),
                         m.getDipSwellEnabled(), m.getClarkeTransformEnabled(), m.getParkTransformEnabled(),
                         m.getClarkeOrParkVoltagesEnabled(), m.getClarkeOrParkCurrentsEnabled(),
                         m.getClarkeOrParkWaveformsEnabled(), m.getMechanicalAngleUsed(), c.variableFrequency})
        EXPECT_FALSE(enabled);
    // Rate, ring, orders, RVC, dip/swell, period values, motor, wiring, frequency
    // range ((1 + 0.1) × 50 in double), periods; nothing is built before a rebuild.
    EXPECT_EQ(asDoubles(m.getSampleRate(), m.getBufferLength(), m.getHighestRequestedHarmonic(),
                        m.getThdHighestHarmonic(), m.getRvcSteadyStateLength(), m.getRvcThreshold(),
                        m.getRvcThresholdHysteresis(), m.getDipThreshold(), m.getSwellThreshold(), m.getDipHysteresis(),
                        m.getSwellHysteresis(), m.getHalfPeriodValuesCount(), m.getPeriodValuesOverlapInPercent(),
                        m.getPolePairs(), m.getMechAngleOffset(), m.getPhasesCount(), m.getVoltagesCount(),
                        m.getCurrentsCount(), c.minFrequency, c.maxFrequency, c.periodCount, rebuilds(m)),
              asDoubles(1.0, 0, 1, 40, 100, 2.0, 50.0, 85.0, 110.0, 2.0, 2.0, 2, 0, 0, 0.0, 1, 1, 1, 45.0,
                        55.00000000000001, 10, 0));
    EXPECT_EQ(inputU(m), nullptr);
}

TEST(ModuleLifecycleTest, FrequencyRangeSetters) {
    TestModule m(BackendKind::Cpu);
    const PowerConfig& c = m.implementation()->getConfig();
    m.setVariableFrequency(45.0, 65.0);
    EXPECT_EQ(std::make_tuple(c.variableFrequency, c.minFrequency, c.maxFrequency), std::make_tuple(true, 45.0, 65.0));
    m.setFullFftEnabled(true);
    EXPECT_FALSE(m.getFullFftEnabled()) << "no full spectra with variable frequency";
    const std::array<std::array<double, 4>, 4> cases = {{{60.0, 0.05, 57.0, 63.0},
                                                         {50.0, 1.0, 25.0, 75.0},  // tolerance limited to 0.5
                                                         {50.0, 0.7, 25.0, 75.0},
                                                         {50.0, 0.0001, 49.95, 50.05}}};  // at least 0.001
    for (const auto& k : cases) {
        m.setStaticFrequency(k[0], k[1]);
        EXPECT_FALSE(c.variableFrequency);
        EXPECT_DOUBLE_EQ(c.minFrequency, k[2]) << k[0] << " " << k[1];
        EXPECT_DOUBLE_EQ(c.maxFrequency, k[3]) << k[0] << " " << k[1];
    }
    EXPECT_TRUE(m.getFullFftEnabled());
    m.setSymmetricalComponentsEnabled(true);
    EXPECT_FALSE(m.getSymmetricalComponentsEnabled()) << "one phase";
    m.setGridConfigType(ThreePhaseStarThreeCurrents);
    EXPECT_TRUE(m.getSymmetricalComponentsEnabled());
}

TEST(ModuleLifecycleTest, UpdatesRebuildOnceWhenTheLastOneCloses) {
    TestModule m(BackendKind::Cpu);
    m.beginUpdate();
    m.setSampleRate(6400.0, 1);
    m.setGridConfigType(ThreePhaseStarThreeCurrents);
    m.setBufferLength(6400);
    m.setThdEnabled(true);
    EXPECT_EQ(rebuilds(m), 0u);
    m.endUpdate();
    EXPECT_EQ(rebuilds(m), 1u);

    m.beginUpdate();
    m.beginUpdate();
    m.setHighestRequestedHarmonic(7);
    m.endUpdate();
    EXPECT_EQ(rebuilds(m), 1u) << "one update is still open";
    m.endUpdate();
    EXPECT_EQ(rebuilds(m), 2u);
    EXPECT_EQ(m.implementation()->getBuffers().getRequiredHarmonicsCount(), 41u);

    m.setHalfPeriodValuesCount(1);
    m.setPeriodValuesOverlapInPercent(50);
    m.setPolePairs(2);
    m.setMechAngleOffset(10.0);
    m.setMechanicalAngleUsed(true);
    EXPECT_EQ(rebuilds(m), 2u) << "settings read where they are used do not rebuild";
    m.setInterHarmonicsEnabled(true);
    EXPECT_EQ(rebuilds(m), 3u);
    m.setSampleRate(12800.0, 1);
    EXPECT_EQ(rebuilds(m), 4u) << "the rate and the buffer duration that follows it in one rebuild";
    EXPECT_EQ(m.getBufferLength(), 6400u);
    EXPECT_DOUBLE_EQ(m.implementation()->getBuffers().getBufferDuration(), 0.5);

    EXPECT_THROW(m.endUpdate(), std::logic_error);
    EXPECT_EQ(rebuilds(m), 4u);
    m.setThdEnabled(false);
    EXPECT_EQ(rebuilds(m), 5u) << "an unmatched endUpdate must not leave the module in an update";
}

// Setting one setting at a time rebuilds after each; any order reaches the same
// module. Nothing is sized by the 1 Hz default rate: a 40 s ring set before the
// rate would otherwise ask for some 1.4 million result rows.
TEST(ModuleLifecycleTest, SettingsOneAtATimeInAnyOrder) {
    std::vector<std::function<void(PowerModule&)>> setters = {
        [](PowerModule& m) { m.setGridConfigType(ThreePhaseStarThreeCurrents); },
        [](PowerModule& m) { m.setSampleRate(6400.0, 1); }, [](PowerModule& m) { m.setBufferLength(256000); },
        [](PowerModule& m) { m.setStaticFrequency(50.0, 0.1); }};
    std::array<int, 4> order = {0, 1, 2, 3};
    do {
        SCOPED_TRACE(::testing::PrintToString(order));
        TestModule m(BackendKind::Cpu);
        for (int k : order) setters[k](m);
        const PowerBuffers& b = m.implementation()->getBuffers();
        EXPECT_DOUBLE_EQ(b.getBufferDuration(), 40.0);
        EXPECT_EQ(b.getGeneralResultsBufferLength(), 221u);  // ceil(40 s × 55.00000000000001 Hz / 10)
        EXPECT_EQ(b.getMaxFftLength(), 2048u);
        EXPECT_EQ(b.samplesBuffer.getHostItemsList(), (List{0, 1, 2, 3, 4, 5}));
        m.reset(0);
        writeMeasured(m, kBalanced, 0, 1280, 50.0);
        m.scheduleForCalculation(0, 1280, 50.0);
        m.sync();
        const auto results = m.getResults(0);
        ASSERT_EQ(results.size(), 1u);
        EXPECT_NEAR(results[0].phases[2].fundamentalU, 100.0 / std::sqrt(2.0), 1e-3);
    } while (std::next_permutation(order.begin(), order.end()));
}

// A refused setter or update leaves every setting, getter and buffer as it
// was and names the call and its value; a reset starts a measurement, and a
// rebuild in the middle of one keeps its queue.
TEST(ModuleLifecycleTest, RefusedSettingsKeepEverythingAndRebuildsKeepTheQueue) {
    Fixture f(plain(1000.0, 1000), BackendKind::Cpu);
    PowerModule& m = f.module;
    float* before = inputU(m);
    ASSERT_NE(before, nullptr);
    auto settings = [&] {
        return asDoubles(m.getSampleRate(), m.getBufferLength(), m.getHighestRequestedHarmonic(),
                         m.getThdHighestHarmonic(), m.getThdEnabled(), m.getHalfPeriodValuesCount(),
                         m.getPeriodValuesOverlapInPercent(), m.getPolePairs(), m.getNominalVoltage(),
                         m.getRvcSteadyStateLength(), m.getPhasesCount(), m.implementation()->getConfig().maxFrequency,
                         m.implementation()->getConfig().periodCount,
                         m.implementation()->getConfig().variableFrequency);
    };
    const std::vector<double> kept = settings();
    const std::vector<std::pair<std::function<void()>, const char*>> refused = {
        {[&] { m.setSampleRate(0.0, 1); }, "setSampleRate(0, 1) refused"},
        {[&] { m.setSampleRate(1000.0, 0); }, "divider"},
        {[&] { m.setSampleRate(1e12, 1); }, "largest FFT"},
        {[&] { m.setBufferLength(0); }, "setBufferLength(0) refused"},
        {[&] { m.setVariableFrequency(60.0, 40.0); }, "setVariableFrequency(60, 40) refused"},
        {[&] { m.setPeriodCount(0); }, "period count"},
        {[&] { m.setHighestRequestedHarmonic(-1); }, "setHighestRequestedHarmonic(-1) refused"},
        {[&] { m.setHighestRequestedHarmonic(1000); }, "frequency bins"},
        {[&] { m.setHalfPeriodValuesCount(0); }, "half-period"},
        {[&] { m.setPeriodValuesOverlapInPercent(100); }, "below 100"},
        {[&] { m.setNominalVoltage(std::nan("")); }, "setNominalVoltage(nan) refused"},
        {[&] { m.setGridConfigType(static_cast<PowerGridConfigType>(9)); }, "grid type"},
        {[&] {
             m.beginUpdate();
             m.setSampleRate(2000.0, 1);
             m.setThdEnabled(true);
             m.setThdHighestHarmonic(700);  // beyond the 257 bins of the FFT at 2000 Hz
             m.endUpdate();
         },
         "endUpdate refused: harmonic order 700"}};
    for (size_t k = 0; k < refused.size(); ++k) {
        SCOPED_TRACE(refused[k].second);
        const unsigned long long built = rebuilds(m);
        try {
            refused[k].first();
            ADD_FAILURE() << "accepted";
        } catch (const std::invalid_argument& e) {
            EXPECT_NE(std::string(e.what()).find(refused[k].second), std::string::npos) << e.what();
        }
        EXPECT_EQ(settings(), kept);
        EXPECT_EQ(rebuilds(m), built);
        EXPECT_EQ(inputU(m), before);
    }
    m.setThdEnabled(false);  // closing a refused update left no update open: this rebuilds
    EXPECT_EQ(rebuilds(m), 2u);

    PowerModule::PowerModuleImpl& impl = *m.implementation();
    for (int repeat = 0; repeat < 2; ++repeat) {
        m.reset(1000);
        EXPECT_EQ(impl.getQueuedCalculationsCount(), 1u);
        const auto item = impl.getCurrentQueueItem();
        ASSERT_NE(item, nullptr);
        // The item's index, first sample and stream, then the written, scheduled and processed marks.
        EXPECT_EQ(std::make_tuple(item->getIndex(), item->getFirstSampleIndex(), int{item->getCudaStreamId()},
                                  impl.getWrittenSampleIndex(), impl.getScheduledSampleIndex(),
                                  impl.getProcessedSampleIndex()),
                  std::make_tuple(0ull, 1000ull, 0, 1000ull, 1000ull, 1000ull));
        EXPECT_FALSE(m.isAnyResultReady());
    }
    writeMeasured(m, MeasuredSignals{{Waveform{{{1, 1.0, 0.0}}}}, {Waveform{{{1, 1.0, 0.0}}}}}, 1000, 400, 50.0);
    m.scheduleForCalculation(1000, 200, 50.0);
    const auto current = impl.getCurrentQueueItem();
    EXPECT_EQ(current->getCudaStreamId(), 1);
    EXPECT_EQ(current->getFirstSampleIndex(), 1200u);
    m.setThdEnabled(false);  // a rebuild in the middle of a measurement
    EXPECT_EQ(impl.getQueuedCalculationsCount(), 2u);
    EXPECT_EQ(impl.getCurrentQueueItem(), current);
    const auto results = f.collect();
    ASSERT_EQ(results.size(), 1u);
    EXPECT_EQ(results[0].firstSampleIndex, 1000u);
    m.reset(0);
    EXPECT_EQ(impl.getQueuedCalculationsCount(), 1u);
}

// A module may be destroyed while its calculations are still running: the work
// in flight must neither outlive the plans and events it uses nor crash.
TEST(ModuleLifecycleDeathTest, DestroyingAModuleWithCalculationsInFlight) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    auto destroyBusyModules = [] {
        alarm(60);  // a hang fails the test instead of stalling the suite
        for (int repeat = 0; repeat < 5; ++repeat) {
            PowerModule m(BackendKind::Cpu);  // no TestModule: it would wait for the work
            configure(m, ModuleSettings{ThreePhaseStarThreeCurrents});
            m.reset(0);
            writeMeasured(m, kBalanced, 0, 3840, 50.0);
            for (unsigned k = 0; k < 3; ++k) m.scheduleForCalculation(k * 1280, 1280, 50.0);
        }
        std::exit(0);
    };
    EXPECT_EXIT(destroyBusyModules(), ::testing::ExitedWithCode(0), "");
}

// writeSamples copies exactly the new stretch of every uploaded slot, in two
// pieces when it crosses the end of the ring; skipSamples copies nothing.
TEST(ModuleLifecycleTest, WriteSamplesCopiesTheNewStretchAndSkipSamplesMovesTheMarks) {
    Fixture f(plain(1000.0, 1000), BackendKind::Cpu);
    PowerModule& m = f.module;
    const PowerModule::PowerModuleImpl& impl = *m.implementation();
    const float* du = impl.getBuffers().samplesBuffer.getDeviceBuffer(0);
    const float* di = impl.getBuffers().samplesBuffer.getDeviceBuffer(3);
    float* u = inputU(m);
    float* i = waveformBuffer(m, &PowerModule::getWaveformBufferI, 0);
    ASSERT_TRUE(u != nullptr && i != nullptr);
    std::fill(u, u + 1000, -1.0f);
    std::fill(i, i + 1000, -2.0f);
    m.writeSamples(950);
    m.sync();
    for (uint64_t s = 950; s < 1050; ++s) {
        u[s % 1000] = static_cast<float>(s);
        i[s % 1000] = static_cast<float>(-static_cast<double>(s));
    }
    m.writeSamples(100);
    EXPECT_EQ(impl.getWrittenSampleIndex(), 1050u);
    m.sync();
    for (int k = 0; k < 1000; ++k) {
        const bool fresh = k < 50 || k >= 950;
        const double sample = k < 50 ? k + 1000 : k;
        ASSERT_EQ(du[k], fresh ? static_cast<float>(sample) : -1.0f) << k;
        ASSERT_EQ(di[k], fresh ? static_cast<float>(-sample) : -2.0f) << k;
    }
    m.writeSamples(0);
    EXPECT_THROW(m.writeSamples(1001), std::invalid_argument);
    EXPECT_EQ(impl.getWrittenSampleIndex(), 1050u) << "neither an empty nor a refused write moves the mark";

    m.reset(0);  // synchronises
    const std::vector<float> device(du, du + 1000);
    std::fill(u, u + 1000, 3.0f);
    m.skipSamples(500);
    m.sync();
    EXPECT_EQ(std::vector<float>(du, du + 1000), device) << "skipping copies nothing";
    EXPECT_EQ(std::make_tuple(impl.getWrittenSampleIndex(), impl.getScheduledSampleIndex(),
                              impl.getProcessedSampleIndex(), impl.getCurrentQueueItem()->getFirstSampleIndex()),
              std::make_tuple(500ull, 500ull, 500ull, 500ull));
    writeMeasured(m, MeasuredSignals{{Waveform{{{1, 2.0, 0.0}}}}, {Waveform{{{1, 1.0, 0.0}}}}}, 500, 200, 50.0);
    m.scheduleForCalculation(500, 200, 50.0);
    const auto results = f.collect();
    ASSERT_EQ(results.size(), 1u);
    EXPECT_EQ(results[0].firstSampleIndex, 500u);
    EXPECT_NEAR(results[0].phases[0].rmsU, std::sqrt(2.0), 1e-5);
}

TEST(ModuleLifecycleTest, WaveformGettersResolveSlotsOrNull) {
    TestModule m(BackendKind::Cpu);
    ModuleSettings s;
    s.currents = s.lineToLine = false;
    configure(m, s);
    auto get = [&](auto getter, unsigned char index) { return waveformBuffer(m, getter, index); };
    EXPECT_NE(get(&PowerModule::getWaveformBufferUInput, 0), nullptr);
    EXPECT_EQ(get(&PowerModule::getWaveformBufferUInput, 0), get(&PowerModule::getWaveformBufferUStar, 0));
    // One phase, so slot 1 and those beyond the slots are absent; currents are disabled.
    using Getter = void (PowerModule::*)(unsigned char, float**) const;
    const std::pair<Getter, unsigned char> absent[] = {
        {&PowerModule::getWaveformBufferUInput, 1},   {&PowerModule::getWaveformBufferUInput, 3},
        {&PowerModule::getWaveformBufferUInput, 255}, {&PowerModule::getWaveformBufferI, 0},
        {&PowerModule::getWaveformBufferUDelta, 0},   {&PowerModule::getWaveformBufferClarkeU, 0},
        {&PowerModule::getWaveformBufferParkI, 0}};
    for (const auto& [getter, slot] : absent) EXPECT_EQ(get(getter, slot), nullptr) << int{slot};
    float* angles = reinterpret_cast<float*>(1);
    m.getWaveformBufferMechAngles(&angles);
    EXPECT_EQ(angles, nullptr);

    m.setGridConfigType(ThreePhaseDeltaThreeCurrents);
    const GpuBuffer<float>& samples = m.implementation()->getBuffers().samplesBuffer;
    EXPECT_EQ(get(&PowerModule::getWaveformBufferUInput, 0), samples.getHostBuffer(6));
    EXPECT_EQ(get(&PowerModule::getWaveformBufferUInput, 2), get(&PowerModule::getWaveformBufferUDelta, 2));
    EXPECT_NE(get(&PowerModule::getWaveformBufferUInput, 2), nullptr);
    EXPECT_EQ(get(&PowerModule::getWaveformBufferUStar, 0), nullptr) << "derived, and waveforms are off";
    m.setWaveformsEnabled(true);
    EXPECT_NE(get(&PowerModule::getWaveformBufferUStar, 0), nullptr);
}

TEST(ModuleLifecycleTest, BufferSetLayout) {
    TestModule m(BackendKind::Cpu);
    configure(m, plain(6400.0, 6400, ThreePhaseStarThreeCurrents));  // one second
    const PowerBuffers& b = m.implementation()->getBuffers();
    const GpuBufferItems& items = b.samplesBuffer.getItems();
    for (const List& slots : {items.getDeviceItemsList(), items.getHostItemsList(), items.getHost2DeviceItems()})
        EXPECT_EQ(slots, (List{0, 1, 2, 3, 4, 5}));
    EXPECT_EQ(b.getGeneralResultsBufferLength(), 6u) << "ceil(1 s × 55 Hz / 10 periods)";
    EXPECT_EQ(b.harmonicsBuffer.getLength(), 6u * 2u);
    EXPECT_EQ(b.fftOutputBuffer.getLength(), 2048u / 2 + 1);
    EXPECT_EQ(b.periodResultsBuffer.getHostItemsCount(), 0u) << "no period values, no period buffers";
    EXPECT_EQ(b.periodReferenceBuffer.getHostBuffer(0), nullptr);

    m.beginUpdate();
    m.setGridConfigType(ThreePhaseTwoDeltaVoltagesTwoCurrents);
    m.setCurrentEnabled(false);
    m.endUpdate();
    EXPECT_EQ(items.getDeviceItemsList(), (List{0, 1, 2, 6, 7, 8}));
    for (const List& slots : {items.getHostItemsList(), items.getHost2DeviceItems()}) EXPECT_EQ(slots, (List{6, 7}));
    EXPECT_TRUE(items.getDevice2HostItems().empty());
    EXPECT_EQ(inputU(m, 1), b.samplesBuffer.getHostBuffer(7));

    m.beginUpdate();
    m.setSampleRate(32000.0, 1);
    m.setBufferLength(100000);
    m.setFullFftEnabled(true);
    m.endUpdate();
    EXPECT_EQ(b.getMaxFftLength(), 8192u);
    EXPECT_EQ(b.fftOutputBuffer.getLength(), 104097u);
}

TEST(ModuleLifecycleTest, OnePlanPerFftLength) {
    TestModule m(BackendKind::Cpu);
    configure(m, ModuleSettings{});
    EXPECT_EQ(m.implementation()->getFftPlansCount(), 1u);
    m.setSampleRate(48000.0, 1);
    m.setVariableFrequency(45.0, 65.0);
    EXPECT_EQ(m.implementation()->getFftPlansCount(), 2u) << "8192 and 16384";
    m.setVariableFrequency(40.0, 400.0);
    EXPECT_EQ(m.implementation()->getFftPlansCount(), 4u) << "2048 … 16384";
}

TEST(ErrorTextTest, FftFailuresNameTheCheckAndTheirText) {
    EXPECT_NO_THROW(CUFFT_CALL(0));
    auto messageOf = [](int code) {
        try {
            CUFFT_CALL(code);
        } catch (const GpuException& e) {
            return std::string(e.what());
        }
        return std::string("no exception");
    };
    const std::string m6 = messageOf(6);
    EXPECT_EQ(m6.rfind("CUFFT error in file 'include/tarnel/CudaErrorHandling", 0), 0u) << m6;
    const size_t place = m6.find("; error ");
    ASSERT_NE(place, std::string::npos) << m6;
    EXPECT_EQ(m6.substr(place), "; error 6: cufft exec failed");
    for (int code : {12, 42, -1}) {
        const std::string text = messageOf(code);
        EXPECT_EQ(text.substr(0, place), m6.substr(0, place)) << "every FFT failure names the same place";
        EXPECT_EQ(text.substr(place), "; error " + std::to_string(code) + ": <unknown>");
    }
    EXPECT_STREQ(GpuException("x").what(), "x");
    EXPECT_STREQ(GpuException().what(), "");
    const GpuException copy(GpuException(std::string("copied")));
    EXPECT_STREQ(copy.what(), "copied");
}

TEST(GridTableTest, EveryTypeHasItsRowAndUnknownTypesActAsOnePhase) {
    // The row as (phases, voltages, currents, line-to-line, delta, not star, missing current).
    auto row = [](int type) {
        const PowerGridConfig g = PowerGridConfig::forType(static_cast<PowerGridConfigType>(type));
        return std::make_tuple(int{g.phasesCount}, int{g.voltagesCount}, int{g.currentsCount}, int{g.lineToLineCount},
                               g.deltaVoltages, !g.starVoltages, g.missingCurrent);
    };
    auto expected = [](const Wiring& r) {
        return std::make_tuple(r.phases, r.voltages, r.currents, r.lineToLine, r.delta, r.delta, r.missingCurrent);
    };
    for (int type = 0; type < 8; ++type) {
        EXPECT_EQ(PowerGridConfig::forType(static_cast<PowerGridConfigType>(type)).type, type);
        EXPECT_EQ(row(type), expected(kWiring[type])) << "type " << type;
    }
    for (int type : {8, -1, 1000}) {
        EXPECT_EQ(row(type), expected(kWiring[0])) << "type " << type;
        PowerConfig c;
        c.gridConfigType = static_cast<PowerGridConfigType>(type);
        EXPECT_EQ(c.getPhasesCount(), 1);
        EXPECT_EQ(c.getCurrentsCount(), 1);
    }
    EXPECT_EQ(PowerGridConfig::forType(static_cast<PowerGridConfigType>(8)).type, 0) << "unknown types are not stored";

    TestModule m(BackendKind::Cpu);
    m.setGridConfigType(ThreePhaseTwoDeltaVoltagesTwoCurrents);
    EXPECT_EQ(m.getPhasesCount(), 3);
    EXPECT_EQ(m.getVoltagesCount(), 2);
    EXPECT_EQ(m.getCurrentsCount(), 2);
    m.setCurrentEnabled(false);
    EXPECT_EQ(m.getCurrentsCount(), 0);
}
