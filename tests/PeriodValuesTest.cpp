// Period values end to end: a module on the CPU backend fed with closed-form
// three-phase sines, with periods located from blocks or from zero crossings.
#include <gtest/gtest.h>

#include <cmath>
#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

#include "PowerModuleImpl.h"
#include "tarnel/PowerModule.h"

using namespace tarnel;

namespace {

constexpr double kPi = 3.141592653589793;
constexpr double kFs = 10000.0;
constexpr unsigned kRing = 20000;
constexpr unsigned kBlock = 2000;  // ten periods of 50 Hz
const double kCos30 = std::cos(kPi / 6);

enum class Mode { Blocks, Crossings };

struct Options {
    PowerGridConfigType grid = ThreePhaseStarThreeCurrents;
    unsigned short halfPeriods = 2;
    unsigned short overlap = 0;
    bool periodValues = true;
    int rvcSteadyLength = 100;
    bool reset = true;
};

// A module fed with u_p = √2·U·sin(2π·50·(r − crossing)/fs − p·120°) and a
// 10 A current lagging by 30°, r counted from the reset's first sample.
class Rig {
  public:
    Rig(const Options& o, unsigned long long start_) : start(start_) {
        module.beginUpdate();
        module.setGridConfigType(o.grid);
        module.setSampleRate(kFs, 1);
        module.setBufferLength(kRing);
        module.setStaticFrequency(50.0, 0.1);
        module.setLineToLineResultsEnabled(true);
        module.setPeriodValuesEnabled(o.periodValues);
        module.setFundamentalPeriodValuesEnabled(o.periodValues);
        module.setPeriodSymmetricalComponentsEnabled(o.periodValues);
        module.setHalfPeriodValuesCount(o.halfPeriods);
        module.setPeriodValuesOverlapInPercent(o.overlap);
        module.setDipSwellEnabled(true);
        module.setRvcEnabled(true);
        module.setRvcSteadyStateLength(o.rvcSteadyLength);
        module.setNominalVoltage(230.0);
        module.endUpdate();
        if (o.reset) module.reset(start);
    }

    // Writes, calculates and collects `blocks` blocks, scheduling period values in `mode`.
    void run(int blocks, Mode mode) {
        for (int b = 0; b < blocks; ++b) {
            writeBlock();
            mode == Mode::Blocks ? scheduleBlock() : scheduleCrossings();
            collect();
        }
    }

    void writeBlock() {
        for (unsigned char p = 0; p < module.getPhasesCount(); ++p) {
            float* u = nullptr;
            float* i = nullptr;
            module.getWaveformBufferUInput(p, &u);
            module.getWaveformBufferI(p, &i);
            for (unsigned long long r = written; r < written + kBlock; ++r) {
                const double angle = 2 * kPi * 50.0 * (static_cast<double>(r) - crossing) / kFs - p * 2 * kPi / 3;
                const size_t k = (start + r) % kRing;
                u[k] = static_cast<float>(std::sqrt(2.0) * rms(p, r) * std::sin(angle));
                if (i != nullptr) i[k] = static_cast<float>(std::sqrt(2.0) * 10.0 * std::sin(angle - kPi / 6));
            }
        }
        module.writeSamples(kBlock);
        module.scheduleForCalculation(start + written, kBlock, 50.0);
        written += kBlock;
        module.sync();
        module.getResults(0);
    }

    void scheduleBlock() {
        unsigned long long first = start + written - kBlock;
        int length = kBlock;
        double frequency = 50.0;
        bool isValid = valid(static_cast<int>(written / kBlock) - 1);
        module.scheduleForPeriodCalculation(1, &first, &length, &frequency, &isValid);
    }

    // Schedules every whole period between rising zero crossings of phase 1 written so far.
    void scheduleCrossings() {
        std::vector<ZeroCrossingInterval> intervals;
        for (; crossing + 200.0 * (crossings + 1) <= static_cast<double>(written); ++crossings)
            intervals.push_back(
                {at(crossing + 200.0 * crossings), at(crossing + 200.0 * (crossings + 1)), 50.0, valid(crossings)});
        module.scheduleForPeriodCalculationFromZeroCrossing(intervals);
    }

    PreciseFraction at(double relative) const {
        const double whole = std::floor(relative);
        return {start + static_cast<unsigned long long>(whole), relative - whole};
    }

    void collect() {
        const size_t records = module.getPhasesCount() + 1u;
        for (bool more = true; more;) {
            int count = 0;
            PowerResultsPeriod* results = nullptr;
            module.getPeriodResults(&count, &more, &results);
            calls.push_back({count, more, results});
            for (int n = 0; n < count; ++n) values.emplace_back(results + n * records, results + (n + 1) * records);
        }
    }

    struct Call {
        int count;
        bool more;
        const PowerResultsPeriod* results;
    };

    PowerModule module{BackendKind::Cpu};
    unsigned long long start;
    unsigned long long written = 0;
    int crossings = 0;
    double crossing = 0.25;
    std::function<double(unsigned, unsigned long long)> rms = [](unsigned, unsigned long long) { return 230.0; };
    std::function<bool(int)> valid = [](int) { return true; };
    std::vector<std::vector<PowerResultsPeriod>> values;
    std::vector<Call> calls;
};

// One full-period value of the closed-form signal on every phase, in record 0 and in the sequence components.
void expectSineValue(const std::vector<PowerResultsPeriod>& v, double time) {
    const double p1 = 2300.0 * kCos30, q1 = 1150.0;
    for (const PowerResultsPeriod& r : v) {
        EXPECT_NEAR(r.time, time, 1e-9 + 1e-15 * time);
        EXPECT_NEAR(r.frequency, 50.0, 1e-6);
        EXPECT_NEAR(r.rmsU, 230.0, 1e-3);
        EXPECT_NEAR(r.fundamentalU, 230.0, 1e-3);
        EXPECT_NEAR(r.rmsI, 10.0, 1e-4);
        EXPECT_NEAR(r.fundamentalI, 10.0, 1e-4);
        EXPECT_TRUE(r.valid);
    }
    for (size_t p = 1; p < v.size(); ++p) {
        EXPECT_NEAR(v[p].rmsUL, v.size() == 2 ? 0.0 : 230.0 * std::sqrt(3.0), 2e-3);
        EXPECT_NEAR(v[p].fundamentalPhaseAngle, 30.0, 1e-3);
        EXPECT_NEAR(v[p].activePower, p1, 0.05);
        EXPECT_NEAR(v[p].powerFactor, kCos30, 1e-5);
        EXPECT_NEAR(v[p].fundamentalActivePower, p1, 0.05);
        EXPECT_NEAR(v[p].fundamentalReactivePower, q1, 0.05);
    }
    if (v.size() != 4) return;
    EXPECT_NEAR(v[0].activePower, 3 * p1, 0.1);
    EXPECT_NEAR(v[0].nonActivePower, 3 * q1, 0.1);
    EXPECT_NEAR(v[0].fundamentalReactivePower, 3 * q1, 0.1);
    EXPECT_NEAR(v[0].fundamentalReactivePowerSum, 3 * q1, 0.1);
    EXPECT_EQ(v[0].fundamentalPhaseAngle, 0.0);
    // Sequence components measured from U1 of phase 1: all of it positive, the current 30° behind.
    const PowerResultsSymmetricalComponent& positive = v[1].symmetricalComponent;
    EXPECT_NEAR(positive.voltage.x, 230.0, 1e-3);
    EXPECT_NEAR(positive.voltage.y, 0.0, 1e-3);
    EXPECT_NEAR(positive.current.x, 10.0 * kCos30, 1e-4);
    EXPECT_NEAR(positive.current.y, -5.0, 1e-4);
    EXPECT_NEAR(positive.activePower, 3 * p1, 0.1);
    EXPECT_NEAR(v[0].symmetricalComponent.voltageMagnitude, 0.0, 1e-3);
    EXPECT_NEAR(v[2].symmetricalComponent.voltageMagnitude, 0.0, 1e-3);
}

// The time of full-period value n: the end of its period, from crossings half a sample later.
double valueTime(const Rig& rig, size_t n, Mode mode = Mode::Blocks) {
    const double offset = mode == Mode::Blocks ? 0.0 : rig.crossing + 0.5;
    return (static_cast<double>(rig.start) + offset + 200.0 * static_cast<double>(n + 1)) / kFs;
}

}  // namespace

// Both ways of locating periods give the closed-form values on every phase, and
// the same values to 1e-9 when the measurement starts at a huge sample index.
TEST(PeriodValuesTest, BothModesGiveClosedFormValuesAtAnyStartIndex) {
    for (const Mode mode : {Mode::Blocks, Mode::Crossings}) {
        SCOPED_TRACE(mode == Mode::Blocks ? "blocks" : "crossings");
        std::vector<std::vector<PowerResultsPeriod>> reference;
        for (const unsigned long long start : {0ULL, (1ULL << 53) - 3000, ~0ULL - 999999}) {
            Rig rig({}, start);
            // Invalid zero-crossing interval 3 makes exactly the value over period 3 invalid.
            rig.valid = [mode](int k) { return mode == Mode::Blocks || k != 3; };
            rig.run(3, mode);
            ASSERT_GE(rig.values.size(), 28u);
            if (start == 0) {
                reference = rig.values;
                // The reference phasor turns by 50/fs per sample: from blocks it starts one
                // step after the reset, from crossings at the crossing at 0.25.
                const GpuBuffer<double>& phasor = rig.module.implementation()->getBuffers().periodReferenceBuffer;
                const double steps = mode == Mode::Blocks ? 1.0 : -0.25;
                EXPECT_NEAR(phasor.getHostBuffer(1)[1], std::cos(2 * kPi * 0.005 * (1 + steps)), 1e-12);
                EXPECT_NEAR(phasor.getHostBuffer(2)[0], std::sin(2 * kPi * 0.005 * steps), 1e-12);
                EXPECT_NEAR(phasor.getHostBuffer(1)[1234], std::cos(2 * kPi * 0.005 * (1234 + steps)), 1e-9);
            }
            ASSERT_EQ(rig.values.size(), reference.size());
            for (size_t n = 0; n < rig.values.size(); ++n) {
                if (mode == Mode::Crossings && n == 3) {
                    for (const PowerResultsPeriod& r : rig.values[n]) EXPECT_FALSE(r.valid);
                    continue;
                }
                expectSineValue(rig.values[n], valueTime(rig, n, mode));
                for (size_t p = 0; p < 4; ++p)
                    for (double PowerResultsPeriod::*f :
                         {&PowerResultsPeriod::frequency, &PowerResultsPeriod::rmsU, &PowerResultsPeriod::fundamentalU,
                          &PowerResultsPeriod::fundamentalReactivePower, &PowerResultsPeriod::activePower})
                        EXPECT_NEAR(rig.values[n][p].*f, reference[n][p].*f, 1e-9);
            }
        }
    }
}

TEST(PeriodValuesTest, DividedSampleClockSharesTheBoundarySample) {
    // Four caller samples per module sample: caller samples 8..11 form module sample 2,
    // half from a 50 Hz block and half from a 60 Hz block.
    for (const bool firstValid : {true, false}) {
        PowerModule module{BackendKind::Cpu};
        module.beginUpdate();
        module.setSampleRate(1000.0, 4);
        module.setBufferLength(2000);
        module.setPeriodValuesEnabled(true);
        module.endUpdate();
        module.reset(0);
        unsigned long long firsts[] = {0, 10};
        int lengths[] = {10, 10};
        double frequencies[] = {50.0, 60.0};
        bool valid[] = {firstValid, true};
        module.scheduleForPeriodCalculation(2, firsts, lengths, frequencies, valid);
        const GpuBuffer<double>& reference = module.implementation()->getBuffers().periodReferenceBuffer;
        const double* frequency = reference.getHostBuffer(0);
        const double* cosine = reference.getHostBuffer(1);
        const double* validity = reference.getHostBuffer(3);
        EXPECT_NEAR(cosine[1], std::cos(2 * kPi * 0.10), 1e-12);
        EXPECT_DOUBLE_EQ(frequency[2], 55.0);
        EXPECT_NEAR(cosine[2], std::cos(2 * kPi * (0.125 + 0.03)), 1e-12);
        EXPECT_NEAR(cosine[4], std::cos(2 * kPi * (0.155 + 0.12)), 1e-12);
        EXPECT_DOUBLE_EQ(frequency[4], 60.0);
        // Covering half of it, the valid block keeps the sample valid only after a valid block.
        EXPECT_EQ(validity[2], firstValid ? 1.0 : 0.0);
        EXPECT_EQ(validity[3], 1.0);
        module.sync();
    }
}

TEST(PeriodValuesTest, HalfPeriodValuesLandWhereTheyShould) {
    // Half periods every quarter period from blocks; half periods back to back from crossings.
    for (const Mode mode : {Mode::Blocks, Mode::Crossings}) {
        Options options;
        options.halfPeriods = 1;
        options.overlap = mode == Mode::Blocks ? 50 : 0;
        Rig rig(options, 0);
        rig.run(2, mode);
        ASSERT_GE(rig.values.size(), mode == Mode::Blocks ? 75u : 36u);
        for (size_t n = 0; n < rig.values.size(); ++n) {
            const PowerResultsPeriod& r = rig.values[n][1];
            const double time = mode == Mode::Blocks ? (100.0 + 50.0 * n) / kFs : (100.0 * (n + 1) + 0.75) / kFs;
            EXPECT_NEAR(r.time, time, 1e-9) << n;
            EXPECT_NEAR(r.frequency, 50.0, 1e-6);
            EXPECT_NEAR(r.rmsU, 230.0, 1e-3);
            EXPECT_NEAR(r.fundamentalU, 230.0, 1e-3);
            // With 50 % overlap only every second value reaches the detectors.
            const size_t fed = mode == Mode::Blocks ? n - n % 2 : n;
            EXPECT_DOUBLE_EQ(r.dip.time, rig.values[fed][1].time) << n;
        }
    }
}

TEST(PeriodValuesTest, DipAndSwellAreReportedWithStartDurationAndExtreme) {
    Rig rig({}, 0);
    // Phase 1 at 60 % for 100 ms from 0.4 s; phase 2 at 120 % for 60 ms from 0.1 s.
    rig.rms = [](unsigned p, unsigned long long r) {
        if (p == 0 && r >= 4000 && r < 5000) return 138.0;
        if (p == 1 && r >= 1000 && r < 1600) return 276.0;
        return 230.0;
    };
    rig.run(4, Mode::Blocks);
    ASSERT_GE(rig.values.size(), 26u);
    EXPECT_TRUE(rig.values[20][1].dip.eventStarted);
    const DipResult& dip = rig.values[25][1].dip;
    EXPECT_TRUE(dip.eventEnded);
    EXPECT_NEAR(dip.time, 0.42, 1e-9);
    EXPECT_NEAR(dip.duration, 0.1, 1e-9);
    EXPECT_NEAR(dip.residualVoltage, 138.0, 1e-3);
    EXPECT_NEAR(dip.depthInPercent, 40.0, 1e-3);
    EXPECT_TRUE(rig.values[25][0].dip.eventEnded);
    EXPECT_NEAR(rig.values[25][0].dip.duration, 0.1, 1e-9);
    const SwellResult& swell = rig.values[8][2].swell;
    EXPECT_TRUE(swell.eventEnded);
    EXPECT_NEAR(swell.time, 0.12, 1e-9);
    EXPECT_NEAR(swell.duration, 0.06, 1e-9);
    EXPECT_NEAR(swell.maximumVoltage, 276.0, 1e-3);
    EXPECT_EQ(rig.values[8][0].swell.eventCount, 1u);
    for (size_t n = 0; n < rig.values.size(); ++n) {
        EXPECT_EQ(rig.values[n][1].dip.eventEnded, n == 25) << n;
        EXPECT_EQ(rig.values[n][3].dip.eventStarted || rig.values[n][3].swell.eventStarted, false) << n;
    }
}

TEST(PeriodValuesTest, RapidVoltageChangeOfThreePercentIsReported) {
    Options options;
    options.rvcSteadyLength = 10;
    Rig rig(options, 0);
    rig.rms = [](unsigned p, unsigned long long r) { return p == 2 && r >= 3000 ? 230.0 * 1.03 : 230.0; };
    rig.run(3, Mode::Blocks);
    ASSERT_GE(rig.values.size(), 25u);
    // The event starts with the first value after the step and ends once ten values are steady again.
    EXPECT_EQ(rig.values[15][3].rvc.state, 1);
    for (size_t n = 0; n < rig.values.size(); ++n) EXPECT_EQ(rig.values[n][3].rvc.eventDetected, n == 24) << n;
    const RvcResult& rvc = rig.values[24][3].rvc;
    EXPECT_NEAR(rvc.deltaUss, 6.9, 1e-3);
    EXPECT_NEAR(rvc.deltaUmax, 6.9, 1e-3);
    EXPECT_NEAR(rvc.duration, 0.0, 1e-9);
    EXPECT_TRUE(rig.values[24][0].rvc.eventDetected);
}

// Validity reaches every record, the results ring wraps with `more`, and record 0 copies a single phase.
TEST(PeriodValuesTest, ValidityRingWrapAndSinglePhaseRecordZero) {
    Rig rig({}, 0);
    rig.valid = [](int block) { return block != 2; };
    const size_t ring = rig.module.implementation()->getBuffers().getPeriodResultsBufferLength();
    ASSERT_GE(ring, 110u);
    rig.run(12, Mode::Blocks);
    ASSERT_GT(rig.values.size(), ring);
    for (size_t n = 0; n < rig.values.size(); ++n) {
        EXPECT_NEAR(rig.values[n][0].time, valueTime(rig, n), 1e-9);
        if (n == 19 || n == 30) continue;  // may take a vanishing share of the invalid block's edge sample
        for (const PowerResultsPeriod& r : rig.values[n]) EXPECT_EQ(r.valid, n < 20 || n > 29) << n;
    }
    // Value 0 lies at the ring's start.
    ASSERT_GT(rig.calls.front().count, 0);
    const PowerResultsPeriod* base = rig.calls.front().results;
    int wraps = 0;
    for (size_t c = 0; c + 1 < rig.calls.size(); ++c) {
        if (!rig.calls[c].more) continue;
        wraps += 1;
        EXPECT_EQ(rig.calls[c].results + rig.calls[c].count * 4, base + ring * 4);
        EXPECT_EQ(rig.calls[c + 1].results, base);
    }
    EXPECT_EQ(wraps, 1);

    Rig single({SinglePhase}, 0);
    single.run(1, Mode::Blocks);
    ASSERT_GE(single.values.size(), 9u);
    for (const auto& v : single.values) {
        ASSERT_EQ(v.size(), 2u);
        EXPECT_EQ(v[0].rmsU, v[1].rmsU);
        EXPECT_EQ(v[0].activePower, v[1].activePower);
        EXPECT_EQ(v[0].fundamentalPhaseAngle, v[1].fundamentalPhaseAngle);
        EXPECT_EQ(v[0].dip.time, v[1].dip.time);
    }
    expectSineValue(single.values[3], valueTime(single, 3));
}

TEST(PeriodValuesTest, SchedulingRefusesBadInputAndChangesNothing) {
    Rig disabled({ThreePhaseStarThreeCurrents, 2, 0, false}, 0);
    unsigned long long firsts[] = {0, 150};
    int lengths[] = {100, 100};
    double frequencies[] = {50.0, 50.0};
    bool valid[] = {true, true};
    EXPECT_THROW(disabled.module.scheduleForPeriodCalculation(1, firsts, lengths, frequencies, valid),
                 std::invalid_argument);
    EXPECT_THROW(disabled.module.scheduleForPeriodCalculationFromZeroCrossing({}), std::invalid_argument);
    int count = -1;
    bool more = true;
    PowerResultsPeriod* results = nullptr;
    disabled.module.getPeriodResults(&count, &more, &results);
    EXPECT_EQ(count, 0);
    EXPECT_FALSE(more);

    Rig rig({}, 0);
    const double* frequency = rig.module.implementation()->getBuffers().periodReferenceBuffer.getHostBuffer(0);
    auto schedule = [&](unsigned long long a, unsigned long long b) {
        firsts[0] = a;
        firsts[1] = b;
        rig.module.scheduleForPeriodCalculation(2, firsts, lengths, frequencies, valid);
    };
    EXPECT_THROW(schedule(0, 150), std::invalid_argument);   // gap
    EXPECT_THROW(schedule(50, 150), std::invalid_argument);  // not at the reset's first sample
    EXPECT_EQ(frequency[0], 0.0);
    schedule(0, 100);
    EXPECT_THROW(schedule(150, 250), std::invalid_argument);  // repeats samples
    EXPECT_THROW(rig.module.scheduleForPeriodCalculationFromZeroCrossing({}), std::invalid_argument);
    EXPECT_EQ(frequency[200], 0.0);
    schedule(200, 300);
    EXPECT_EQ(frequency[399], 50.0);

    Rig crossings({}, 0);
    const double* cosine = crossings.module.implementation()->getBuffers().periodReferenceBuffer.getHostBuffer(1);
    const ZeroCrossingInterval first{crossings.at(0.25), crossings.at(200.25), 50.0, true};
    const ZeroCrossingInterval gap{crossings.at(200.5), crossings.at(400.5), 50.0, true};
    const ZeroCrossingInterval backwards{crossings.at(200.25), crossings.at(100.0), 50.0, true};
    for (const auto& bad : {std::vector<ZeroCrossingInterval>{first, gap}, {first, backwards}})
        EXPECT_THROW(crossings.module.scheduleForPeriodCalculationFromZeroCrossing(bad), std::invalid_argument);
    EXPECT_EQ(cosine[1], 0.0);
    crossings.module.scheduleForPeriodCalculationFromZeroCrossing({first});
    EXPECT_THROW(crossings.module.scheduleForPeriodCalculationFromZeroCrossing({gap}), std::invalid_argument);
    EXPECT_THROW(crossings.module.scheduleForPeriodCalculation(1, firsts, lengths, frequencies, valid),
                 std::invalid_argument);

    Rig unset({ThreePhaseStarThreeCurrents, 2, 0, true, 100, false}, 0);
    EXPECT_THROW(unset.module.scheduleForPeriodCalculationFromZeroCrossing({first}),
                 std::invalid_argument);  // no reset
    unset.module.reset(0);
    unset.module.beginUpdate();
    EXPECT_THROW(unset.module.setSampleRate(kFs, 0), std::invalid_argument);
    EXPECT_THROW(unset.module.scheduleForPeriodCalculationFromZeroCrossing({first}), std::logic_error);  // update open
    unset.module.endUpdate();
}

namespace {

// Phase p at `ratio` of 230 V during [from, to) seconds, the others at 230 V.
std::function<double(unsigned, unsigned long long)> phasesAt(std::vector<double> ratio, double from, double to) {
    return [=](unsigned p, unsigned long long r) {
        const double t = static_cast<double>(r) / kFs;
        return t >= from && t < to ? 230.0 * ratio[p] : 230.0;
    };
}

// Full-period values end every 20 ms; value n ends at 0.02 (n + 1) s.
size_t valueEndingAt(double seconds) { return static_cast<size_t>(std::lround(seconds / 0.02)) - 1; }

}  // namespace

// All three phases at 70 % for 7.5 periods from 1.01 s: the half-covered periods ending at 1.02 s
// and 1.18 s stay above 195.5 V, the six full periods from 1.04 s to 1.16 s are at 161 V. Each
// phase and the total dip from 1.04 s to 1.18 s, all of it below the threshold.
TEST(PeriodValuesTest, BalancedThreePhaseDipAndSwell) {
    for (const double ratio : {0.7, 1.15}) {
        SCOPED_TRACE(ratio);
        Rig rig({}, 0);
        rig.rms = phasesAt({ratio, ratio, ratio}, 1.01, 1.16);
        rig.run(7, Mode::Blocks);
        const size_t end = valueEndingAt(1.18);
        ASSERT_GT(rig.values.size(), end + 1);
        for (size_t p = 0; p < 4; ++p) {
            const PowerResultsPeriod& r = rig.values[end][p];
            if (ratio < 1.0) {
                EXPECT_TRUE(r.dip.eventEnded) << p;
                EXPECT_NEAR(r.dip.time, 1.04, 1e-9) << p;
                EXPECT_NEAR(r.dip.duration, 0.14, 1e-9) << p;
                EXPECT_NEAR(r.dip.timeBelowThreshold, 0.14, 1e-9) << p;
                EXPECT_NEAR(r.dip.residualVoltage, 161.0, 1e-3) << p;
                EXPECT_NEAR(r.dip.depthInPercent, 30.0, 1e-3) << p;
            } else {
                EXPECT_TRUE(r.swell.eventEnded) << p;
                EXPECT_NEAR(r.swell.time, 1.04, 1e-9) << p;
                EXPECT_NEAR(r.swell.duration, 0.14, 1e-9) << p;
                EXPECT_NEAR(r.swell.timeAboveThreshold, 0.14, 1e-9) << p;
                EXPECT_NEAR(r.swell.maximumVoltage, 264.5, 1e-3) << p;
            }
        }
        EXPECT_EQ(rig.values[valueEndingAt(1.04)][0].dip.eventStarted, ratio < 1.0);
        EXPECT_EQ(rig.values[valueEndingAt(1.04)][0].swell.eventStarted, ratio > 1.0);
    }
}

// L1 at 50 % from 1.02 s to 1.16 s, L3 at 80 % from 1.10 s to 1.20 s, L2 normal: L1 dips from
// 1.04 s to 1.18 s, L3 from 1.12 s to 1.22 s. The polyphase dip runs from L1's start to L3's end and
// is as deep as L1's, although L3 ends it.
TEST(PeriodValuesTest, StaggeredDipOverlappingAcrossPhases) {
    Rig rig({}, 0);
    rig.rms = [](unsigned p, unsigned long long r) {
        const double t = static_cast<double>(r) / kFs;
        if (p == 0 && t >= 1.02 && t < 1.16) return 115.0;
        if (p == 2 && t >= 1.10 && t < 1.20) return 184.0;
        return 230.0;
    };
    rig.run(7, Mode::Blocks);
    ASSERT_GT(rig.values.size(), valueEndingAt(1.3));
    const DipResult& l1 = rig.values[valueEndingAt(1.18)][1].dip;
    EXPECT_TRUE(l1.eventEnded);
    EXPECT_NEAR(l1.duration, 0.14, 1e-9);
    const DipResult& l3 = rig.values[valueEndingAt(1.22)][3].dip;
    EXPECT_TRUE(l3.eventEnded);
    EXPECT_NEAR(l3.time, 1.12, 1e-9);
    EXPECT_NEAR(l3.duration, 0.10, 1e-9);
    int started = 0, ended = 0;
    for (const auto& v : rig.values) {
        started += v[0].dip.eventStarted ? 1 : 0;
        ended += v[0].dip.eventEnded ? 1 : 0;
    }
    EXPECT_EQ(started, 1);
    EXPECT_EQ(ended, 1);
    EXPECT_TRUE(rig.values[valueEndingAt(1.04)][0].dip.eventStarted);
    const DipResult& total = rig.values[valueEndingAt(1.22)][0].dip;
    EXPECT_TRUE(total.eventEnded);
    EXPECT_EQ(total.eventCount, 1u);
    EXPECT_NEAR(total.time, 1.04, 1e-9);
    EXPECT_NEAR(total.duration, 0.18, 1e-9);
    EXPECT_NEAR(total.timeBelowThreshold, 0.18, 1e-9);
    EXPECT_NEAR(total.residualVoltage, 115.0, 1e-3);
    EXPECT_NEAR(total.depthInPercent, 50.0, 1e-3);
}

// A 4 % rise on L1 from 0.8 s after a dip inside the first steady window (0.1 s to 0.2 s, all phases):
// the dip opens no RVC event when the ten-value window fills, and the later rise is a clean RVC of
// 9.2 V with duration 0 on L1 and on the total.
TEST(PeriodValuesTest, DipInsideTheFirstSteadyWindowOpensNoRvc) {
    Options options;
    options.rvcSteadyLength = 10;
    Rig rig(options, 0);
    rig.rms = [](unsigned p, unsigned long long r) {
        const double t = static_cast<double>(r) / kFs;
        if (t >= 0.1 && t < 0.2) return 161.0;
        return p == 0 && t >= 0.8 ? 230.0 * 1.04 : 230.0;
    };
    rig.run(8, Mode::Blocks);
    ASSERT_GT(rig.values.size(), valueEndingAt(1.2));
    for (size_t n = 0; n < valueEndingAt(0.82); ++n)
        for (size_t p = 0; p < 4; ++p) EXPECT_EQ(rig.values[n][p].rvc.state, 0) << n << " " << p;
    EXPECT_EQ(rig.values[valueEndingAt(0.82)][1].rvc.state, 1);
    const size_t end = valueEndingAt(0.82) + 9;
    for (size_t n = 0; n < rig.values.size(); ++n) {
        EXPECT_EQ(rig.values[n][1].rvc.eventDetected, n == end) << n;
        EXPECT_EQ(rig.values[n][0].rvc.eventDetected, n == end) << n;
        EXPECT_FALSE(rig.values[n][2].rvc.eventDetected || rig.values[n][3].rvc.eventDetected) << n;
    }
    EXPECT_NEAR(rig.values[end][1].rvc.deltaUss, 9.2, 1e-3);
    EXPECT_NEAR(rig.values[end][1].rvc.duration, 0.0, 1e-9);
    EXPECT_NEAR(rig.values[end][0].rvc.deltaUss, 9.2, 1e-3);
    EXPECT_NEAR(rig.values[end][0].rvc.duration, 0.0, 1e-9);
}

// Period scheduling refuses a block whose frequency is not finite, not positive or not below half
// the sample rate, names the frequency, and changes nothing: the values go on as if it had not come.
TEST(PeriodValuesTest, BlocksWithUnusableFrequenciesAreRefused) {
    Rig rig({}, 0);
    rig.run(1, Mode::Blocks);
    rig.writeBlock();
    unsigned long long first = rig.written - kBlock;
    int length = kBlock;
    bool valid = true;
    for (double bad : {std::nan(""), HUGE_VAL, -HUGE_VAL, 0.0, -50.0, kFs / 2, 1e9}) {
        SCOPED_TRACE(bad);
        unsigned long long firsts[] = {first, first + 1000};
        int lengths[] = {1000, 1000};
        double frequencies[] = {50.0, bad};
        bool valids[] = {true, true};
        try {
            rig.module.scheduleForPeriodCalculation(2, firsts, lengths, frequencies, valids);
            ADD_FAILURE() << "accepted";
        } catch (const std::invalid_argument& e) {
            EXPECT_NE(std::string(e.what()).find("block 1 has frequency"), std::string::npos) << e.what();
        }
    }
    double frequency = 50.0;
    rig.module.scheduleForPeriodCalculation(1, &first, &length, &frequency, &valid);
    rig.collect();
    rig.run(1, Mode::Blocks);
    ASSERT_GE(rig.values.size(), 29u);
    for (size_t n = 0; n < rig.values.size(); ++n) expectSineValue(rig.values[n], valueTime(rig, n));
}

// Zero crossings exactly on samples at 16 samples per period: the sample on a crossing has the
// reference phase 0, and a full period of trapezoid weights sums 16 equally spaced samples, which
// gives the fundamental and the angle of the sampled sine exactly.
TEST(PeriodValuesTest, CrossingExactlyOnASampleAtSixteenSamplesPerPeriod) {
    constexpr double fs = 800.0;
    constexpr unsigned block = 160;
    PowerModule module{BackendKind::Cpu};
    module.beginUpdate();
    module.setGridConfigType(SinglePhase);
    module.setSampleRate(fs, 1);
    module.setBufferLength(1600);
    module.setStaticFrequency(50.0, 0.1);
    module.setHighestRequestedHarmonic(5);
    module.setPeriodValuesEnabled(true);
    module.setFundamentalPeriodValuesEnabled(true);
    module.endUpdate();
    module.reset(0);
    std::vector<PowerResultsPeriod> values;
    for (unsigned b = 0; b < 3; ++b) {
        float* u = nullptr;
        float* i = nullptr;
        module.getWaveformBufferUInput(0, &u);
        module.getWaveformBufferI(0, &i);
        for (unsigned r = b * block; r < (b + 1) * block; ++r) {
            const double angle = 2 * kPi * r / 16.0;
            u[r % 1600] = static_cast<float>(std::sqrt(2.0) * 230.0 * std::sin(angle));
            i[r % 1600] = static_cast<float>(std::sqrt(2.0) * 10.0 * std::sin(angle - kPi / 6));
        }
        module.writeSamples(block);
        module.scheduleForCalculation(b * block, block, 50.0);
        module.sync();
        module.getResults(0);
        std::vector<ZeroCrossingInterval> intervals;
        for (unsigned k = b * 10; k < (b + 1) * 10; ++k)
            intervals.push_back({{16ULL * k, 0.0}, {16ULL * (k + 1), 0.0}, 50.0, true});
        module.scheduleForPeriodCalculationFromZeroCrossing(intervals);
        int count = 0;
        bool more = false;
        PowerResultsPeriod* results = nullptr;
        module.getPeriodResults(&count, &more, &results);
        for (int n = 0; n < count; ++n) values.push_back(results[2 * n + 1]);
    }
    const double* cosine = module.implementation()->getBuffers().periodReferenceBuffer.getHostBuffer(1);
    const double* sine = module.implementation()->getBuffers().periodReferenceBuffer.getHostBuffer(2);
    for (unsigned k : {0u, 16u, 160u}) {
        EXPECT_DOUBLE_EQ(cosine[k], 1.0) << k;
        EXPECT_DOUBLE_EQ(sine[k], 0.0) << k;
    }
    ASSERT_GE(values.size(), 20u);
    for (const PowerResultsPeriod& r : values) {
        EXPECT_NEAR(r.fundamentalU, 230.0, 1e-4);
        EXPECT_NEAR(r.rmsU, 230.0, 1e-4);
        EXPECT_NEAR(r.fundamentalPhaseAngle, 30.0, 1e-5);
        EXPECT_NEAR(r.frequency, 50.0, 1e-9);
    }
}
