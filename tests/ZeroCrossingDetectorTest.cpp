#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <functional>
#include <random>
#include <stdexcept>
#include <tuple>
#include <vector>

#include "tarnel/ZeroCrossingDetector.h"

using namespace tarnel;

namespace {

const double pi = 3.14159265358979323846;
const double fs = 10000.0;
const double amplitude = 325.0;

// A test signal defined by its fundamental phase, in cycles, at relative sample n.
// Rising zero crossings of sin(2 pi cycles(t)) lie where cycles(t) is a whole number.
struct Waveform {
    std::function<double(double)> cycles;
    std::function<double(long k)> crossing;  // closed-form position of the crossing with cycles == k
};

Waveform constantFrequency(double f, double startCycles = 0.05) {
    return {[=](double n) { return startCycles + f * n / fs; },
            [=](long k) { return (static_cast<double>(k) - startCycles) * fs / f; }};
}

// 49.5 Hz for 1 s, then a linear ramp of 0.5 Hz/s to 50.5 Hz, then 50.5 Hz.
Waveform frequencyRamp() {
    const double f0 = 49.5, f1 = 50.5, rate = 0.5, t0 = 1.0, t1 = t0 + (f1 - f0) / rate;
    const double c0 = 0.05 + f0 * t0;                                            // cycles at t0
    const double c1 = c0 + f0 * (t1 - t0) + 0.5 * rate * (t1 - t0) * (t1 - t0);  // cycles at t1
    auto cycles = [=](double n) {
        const double t = n / fs;
        if (t < t0) return 0.05 + f0 * t;
        if (t < t1) return c0 + f0 * (t - t0) + 0.5 * rate * (t - t0) * (t - t0);
        return c1 + f1 * (t - t1);
    };
    auto crossing = [=](long k) {
        const double c = static_cast<double>(k);
        if (c < c0) return (c - 0.05) / f0 * fs;
        if (c < c1) return (t0 + (-f0 + std::sqrt(f0 * f0 + 2.0 * rate * (c - c0))) / rate) * fs;
        return (t1 + (c - c1) / f1) * fs;
    };
    return {cycles, crossing};
}

struct Distortion {
    double third = 0.0, fifth = 0.0, interharmonic175 = 0.0, noiseRms = 0.0;  // relative to the fundamental
};

std::vector<float> render(const Waveform& w, size_t count, const Distortion& d = {}, double scale = 1.0) {
    std::mt19937_64 rng(7);
    std::normal_distribution<double> gauss(0.0, 1.0);
    std::vector<float> x(count);
    for (size_t n = 0; n < count; ++n) {
        const double phase = 2.0 * pi * w.cycles(static_cast<double>(n));
        double v = std::sin(phase) + d.third * std::sin(3.0 * phase + 0.4) + d.fifth * std::sin(5.0 * phase + 1.1) +
                   d.interharmonic175 * std::sin(2.0 * pi * 175.0 * n / fs + 0.7) +
                   d.noiseRms / std::sqrt(2.0) * gauss(rng);
        x[n] = static_cast<float>(scale * amplitude * v);
    }
    return x;
}

std::vector<ZeroCrossingInterval> detect(ZeroCrossingDetector& detector, const std::vector<float>& x,
                                         size_t chunk = 1000) {
    for (size_t i = 0; i < x.size(); i += chunk) detector.addSamples(x.data() + i, std::min(chunk, x.size() - i));
    return detector.takeIntervals();
}

std::vector<ZeroCrossingInterval> detect(const std::vector<float>& x, size_t chunk = 1000,
                                         const ZeroCrossingDetector::Settings& settings = {}) {
    ZeroCrossingDetector detector(fs, 50.0, 0, settings);
    return detect(detector, x, chunk);
}

double relative(const PreciseFraction& p) { return static_cast<double>(p.index) + p.fraction; }

// Valid periods expected in `seconds` of signal: the filter delay costs about
// 0.13 s at either end, plus a period or two at the start, plus the three guard
// periods after the start-up and the three held back at the end.
size_t expectedValid(double f, double seconds) { return static_cast<size_t>(f * (seconds - 0.35)) - 6; }

// Checks that the intervals chain up from the first sample, and that at least
// `minValid` valid ones among those `counted` (by end) end within `tolerance`
// samples of the true crossings.
void expectAccurate(
    const std::vector<ZeroCrossingInterval>& intervals, const Waveform& w, double tolerance, size_t minValid,
    const std::function<bool(double)>& counted = [](double) { return true; }) {
    double worst = 0.0;
    size_t valid = 0;
    for (size_t i = 0; i < intervals.size(); ++i) {
        const ZeroCrossingInterval& z = intervals[i];
        EXPECT_LT(relative(z.start), relative(z.end));
        EXPECT_GE(z.end.fraction, 0.0);
        EXPECT_LT(z.end.fraction, 1.0);
        EXPECT_EQ(z.start.index, i == 0 ? 0u : intervals[i - 1].end.index) << i;
        EXPECT_TRUE(i == 0 || z.start.fraction == intervals[i - 1].end.fraction) << i;
        const double end = relative(z.end);
        if (!z.valid || !counted(end)) continue;
        ++valid;
        const double truth = w.crossing(std::lround(w.cycles(end)));
        worst = std::max(worst, std::fabs(end - truth));
        EXPECT_NEAR(z.frequency, fs / (end - relative(z.start)), 1e-9);
    }
    EXPECT_LT(worst, tolerance);
    EXPECT_GE(valid, minValid);
}

// The same intervals, bit for bit, with indices `offset` apart.
void expectSameIntervals(const std::vector<ZeroCrossingInterval>& actual,
                         const std::vector<ZeroCrossingInterval>& expected, uint64_t offset = 0) {
    const auto key = [](const ZeroCrossingInterval& z, uint64_t shift) {
        return std::make_tuple(z.start.index - shift, z.end.index - shift, z.end.fraction, z.frequency, z.valid);
    };
    ASSERT_EQ(actual.size(), expected.size());
    for (size_t i = 0; i < actual.size(); ++i) EXPECT_EQ(key(actual[i], offset), key(expected[i], 0)) << i;
}

}  // namespace

TEST(ZeroCrossingDetector, CleanSinesAtSeveralFrequencies) {
    for (double f : {42.7, 47.3, 50.0, 53.9, 57.4}) {
        SCOPED_TRACE(f);
        const Waveform w = constantFrequency(f);
        ZeroCrossingDetector detector(fs, 50.0);
        const auto intervals = detect(detector, render(w, 50000));
        expectAccurate(intervals, w, 0.01, expectedValid(f, 5.0));
        for (const auto& z : intervals) EXPECT_TRUE(!z.valid || std::fabs(z.frequency - f) <= 1e-4) << z.frequency;
        const auto block = detector.frequencyForRange(45000, 2000);
        ASSERT_EQ(block.status, ZeroCrossingDetector::RangeStatus::Ready);
        EXPECT_TRUE(block.valid);
        EXPECT_NEAR(block.frequency, f, 1e-5);
        EXPECT_NEAR(detector.latestFrequency(), f, 1e-4);
    }
}

TEST(ZeroCrossingDetector, HarmonicsInterharmonicAndNoise) {
    const Waveform w = constantFrequency(50.0);
    expectAccurate(detect(render(w, 100000, {0.05, 0.03, 0.03, 0.005})), w, 0.05, expectedValid(50.0, 10.0));
}

TEST(ZeroCrossingDetector, FrequencyRampFollowsIntegratedPhase) {
    const Waveform w = frequencyRamp();
    const auto x = render(w, 50000);
    ZeroCrossingDetector detector(fs, 50.0);
    std::vector<ZeroCrossingInterval> intervals;
    for (size_t first = 0; first < x.size(); first += 999) {
        detector.addSamples(x.data() + first, std::min<size_t>(999, x.size() - first));
        for (const auto& z : detector.takeIntervals()) intervals.push_back(z);
        // Every crossing more than latency() samples back has been handed out.
        if (detector.nextSampleIndex() < detector.latency() + 2000) continue;
        const double known = static_cast<double>(detector.nextSampleIndex() - detector.latency());
        const double lastCrossing = w.crossing(static_cast<long>(std::floor(w.cycles(known))));
        ASSERT_FALSE(intervals.empty());
        EXPECT_GT(relative(intervals.back().end), lastCrossing - 0.01);
    }
    expectAccurate(intervals, w, 0.01, expectedValid(49.5, 5.0));
}

// Neither the chunk size nor the index of the first sample (up to the end of
// the index range) changes the intervals, relative to the first sample.
TEST(ZeroCrossingDetector, ChunkSizeAndStartIndexDoNotChangeOutput) {
    const auto x = render(frequencyRamp(), 30000, {0.05, 0.03, 0.03, 0.005});
    const auto reference = detect(x, 4096);
    ASSERT_GT(reference.size(), 100u);
    for (size_t chunk : {1, 7}) expectSameIntervals(detect(x, chunk), reference);
    const uint64_t two53 = uint64_t{1} << 53;
    for (uint64_t first : {two53 - 3, two53, ~uint64_t{0} - 1000000 + 1}) {
        ZeroCrossingDetector detector(fs, 50.0, 12345);
        detect(detector, render(constantFrequency(45.0), 3000));
        detector.reset(first);  // a reset detector behaves like a fresh one
        expectSameIntervals(detect(detector, x), reference, first);
        EXPECT_EQ(detector.nextSampleIndex(), first + x.size());
    }
}

TEST(ZeroCrossingDetector, SilenceNoiseAndInterruptionGiveInvalidIntervals) {
    // Silence: only bridging intervals of one nominal period, none valid.
    auto intervals = detect(std::vector<float>(20000, 0.0f));
    EXPECT_GE(intervals.size(), 85u);
    for (const auto& z : intervals) {
        EXPECT_FALSE(z.valid);
        EXPECT_NEAR(z.frequency, 50.0, 1e-9);
    }

    // Noise alone crosses zero around 50 Hz after band-pass filtering, but
    // carries too little of its power there.
    std::mt19937_64 rng(3);
    std::normal_distribution<double> gauss(0.0, 1.0);
    std::vector<float> noise(50000);
    for (float& v : noise) v = static_cast<float>(gauss(rng));
    intervals = detect(noise);
    EXPECT_GE(intervals.size(), 200u);
    for (const auto& z : intervals) EXPECT_FALSE(z.valid);

    // 2 s of signal, 1 s interruption, 2 s of signal. Near the edges the
    // filter rings or has not caught up: those periods are invalid, and the
    // crossings that stay valid next to them are less exact.
    const Waveform w = constantFrequency(50.0);
    auto x = render(w, 50000);
    std::fill(x.begin() + 20000, x.begin() + 30000, 0.0f);
    intervals = detect(x);
    const auto nearEdge = [](double end) { return std::fabs(end - 20000) < 1000 || std::fabs(end - 30000) < 1000; };
    expectAccurate(intervals, w, 0.05, 0, nearEdge);
    expectAccurate(intervals, w, 0.01, 2 * expectedValid(50.0, 2.0), [&](double end) { return !nearEdge(end); });
    for (const auto& z : intervals)
        EXPECT_FALSE(z.valid && relative(z.end) > 20000 && relative(z.start) < 30000) << relative(z.start);
}

TEST(ZeroCrossingDetector, ValidityFollowsSettings) {
    // 40 Hz lies outside the default 42.5 .. 57.5 Hz, inside a range widened to 35 Hz.
    const auto x40 = render(constantFrequency(40.0), 30000);
    for (const auto& z : detect(x40)) EXPECT_FALSE(z.valid);
    expectAccurate(detect(x40, 1000, {35.0}), constantFrequency(40.0), 0.01, 101);

    // A fundamental below the amplitude limit (10 % of nominal) makes every period invalid.
    const ZeroCrossingDetector::Settings limited{0.0, 0.0, 0.1 * amplitude};
    for (const auto& z : detect(render(constantFrequency(50.0), 30000, {}, 0.08), 1000, limited)) EXPECT_FALSE(z.valid);
    const Waveform w = constantFrequency(50.0);
    expectAccurate(detect(render(w, 30000, {}, 0.12), 1000, limited), w, 0.01, 101);

    EXPECT_THROW(ZeroCrossingDetector(400.0, 50.0), std::invalid_argument);
    EXPECT_THROW(ZeroCrossingDetector(fs, 0.0), std::invalid_argument);
    EXPECT_THROW(ZeroCrossingDetector(fs, 50.0, 0, {55.0, 45.0}), std::invalid_argument);  // reversed range
}

TEST(ZeroCrossingDetector, BlockFrequencies) {
    const Waveform w = frequencyRamp();
    const auto x = render(w, 50000, {0.05, 0.03, 0.03, 0.005});
    ZeroCrossingDetector::Settings s;
    s.historyLength = 100;
    ZeroCrossingDetector detector(fs, 50.0, 0, s);
    EXPECT_EQ(detector.latestFrequency(), 50.0);
    EXPECT_THROW(detector.frequencyForRange(0, 0), std::invalid_argument);

    // 10-period blocks of nominal length, asked for once latency() samples have followed them.
    const uint64_t block = 2000;
    ASSERT_LE(detector.latency(), 2 * block);
    size_t checked = 0;
    for (uint64_t first = 0; first + block <= x.size(); first += block) {
        detector.addSamples(x.data() + first, block);
        auto r = detector.frequencyForRange(first, block);
        EXPECT_EQ(r.status, ZeroCrossingDetector::RangeStatus::Pending);  // filter delay
        if (first < 2 * block) continue;
        const uint64_t start = first - 2 * block;
        r = detector.frequencyForRange(start, block);
        ASSERT_EQ(r.status, ZeroCrossingDetector::RangeStatus::Ready) << first;
        // The first two blocks hold the start-up: the filter fills, then the guard periods follow.
        EXPECT_EQ(r.valid, start >= 2 * block) << first;
        if (start < 2 * block) continue;
        const double a = static_cast<double>(start);
        const double truth = (w.cycles(a + block) - w.cycles(a)) * fs / block;
        EXPECT_NEAR(r.frequency, truth, 1.5e-3) << first;  // noise moves each block end by ~0.01 samples
        ++checked;
    }
    EXPECT_EQ(checked, 21u);
    EXPECT_NEAR(detector.latestFrequency(), 50.5, 0.02);
    // 100 periods of history reach back about 2 s.
    EXPECT_EQ(detector.frequencyForRange(0, block).status, ZeroCrossingDetector::RangeStatus::Expired);
    EXPECT_EQ(detector.frequencyForRange(x.size() - 3 * block, block).status, ZeroCrossingDetector::RangeStatus::Ready);
}

// A 70 % dip from 1.0037 s to 1.5037 s and a 20 degree phase jump at 3.00003 s, none on a
// crossing. The filter blends the signal on both sides of each change, so crossings within a few
// periods of it move by up to degrees; those periods are invalid, and every valid period stays as
// exact as in a steady signal, in position and in frequency, up to the periods next to the guard.
TEST(ZeroCrossingDetector, PeriodsNextToStepsAndPhaseJumpsAreInvalid) {
    constexpr double f = 50.0, jump = 20.0 / 360.0, jumpAt = 30000.3;
    const Waveform w{[=](double n) { return 0.05 + f * n / fs + (n >= jumpAt ? jump : 0.0); },
                     [=](long k) {
                         const double before = (static_cast<double>(k) - 0.05) * fs / f;
                         return before < jumpAt ? before : (static_cast<double>(k) - 0.05 - jump) * fs / f;
                     }};
    std::vector<float> x = render(w, 50000);
    for (size_t n = 10037; n < 15037; ++n) x[n] *= 0.7f;
    const auto intervals = detect(x);
    // 0.01 samples are 0.018 degrees at 200 samples per period.
    expectAccurate(intervals, w, 0.01, expectedValid(f, 5.0) - 30);
    size_t validNearChange = 0;
    for (const auto& z : intervals) {
        if (!z.valid) continue;
        EXPECT_NEAR(z.frequency, f, 3e-3) << relative(z.start);
        const double end = relative(z.end);
        const bool near =
            std::fabs(end - 10037) < 1500 || std::fabs(end - 15037) < 1500 || std::fabs(end - jumpAt) < 1500;
        validNearChange += near ? 1 : 0;
    }
    // Four periods away from a change the periods are valid again: 5 in each 15-period window.
    EXPECT_GE(validNearChange, 12u);
}
