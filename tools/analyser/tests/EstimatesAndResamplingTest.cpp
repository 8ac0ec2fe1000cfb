// Nominal estimates and multi-rate resampling against closed-form signals.
#include <gtest/gtest.h>

#include <cmath>

#include "SectionResampler.h"
#include "SignalEstimates.h"

using namespace tarnel::analyser;
using tarnel::recordings::SampleSection;

namespace {

constexpr double kPi = 3.141592653589793;

std::vector<float> mainsLike(double frequency, double rate, double seconds, double amplitude = 325.0) {
    std::vector<float> x(static_cast<size_t>(seconds * rate));
    for (size_t k = 0; k < x.size(); ++k) {
        const double w = 2.0 * kPi * frequency * static_cast<double>(k) / rate + 0.3;
        // A strong fifth and a third harmonic must not be taken for the fundamental.
        x[k] = static_cast<float>(amplitude * (std::sin(w) + 0.3 * std::sin(5.0 * w) + 0.2 * std::sin(3.0 * w)));
    }
    return x;
}

}  // namespace

TEST(NominalEstimates, FindTheFundamentalAndItsMainsFrequency) {
    struct Case {
        double frequency, rate, seconds, nominal;
    };
    for (const Case& c :
         {Case{59.97, 7678.48, 0.467, 60.0}, Case{50.2, 51200.0, 2.0, 50.0}, Case{16.7, 2000.0, 2.0, 50.0 / 3.0},
          Case{400.0, 20000.0, 0.2, 400.0}, Case{33.0, 4000.0, 1.0, 33.0}}) {
        const std::vector<float> x = mainsLike(c.frequency, c.rate, c.seconds);
        const double measured = estimateFundamentalFrequency(x.data(), x.size(), 1, c.rate);
        EXPECT_NEAR(measured, c.frequency, 0.002 * c.frequency) << c.frequency << " Hz at " << c.rate;
        EXPECT_DOUBLE_EQ(nominalFrequencyFor(measured), c.nominal);
    }
    // Interleaved channels: the stride selects the channel.
    std::vector<float> two(2000);
    for (size_t k = 0; k < 1000; ++k) {
        two[2 * k] = static_cast<float>(std::sin(2.0 * kPi * 60.0 * static_cast<double>(k) / 2000.0));
        two[2 * k + 1] = 0.0f;
    }
    EXPECT_NEAR(estimateFundamentalFrequency(two.data(), 1000, 2, 2000.0), 60.0, 0.2);
    // Silence and white noise have no fundamental.
    std::vector<float> silence(4000, 0.0f), noise(4000);
    uint32_t state = 1;
    for (float& v : noise) v = static_cast<float>((state = state * 1664525u + 1013904223u) >> 8) / 16777216.0f - 0.5f;
    EXPECT_EQ(estimateFundamentalFrequency(silence.data(), silence.size(), 1, 4000.0), 0.0);
    EXPECT_EQ(estimateFundamentalFrequency(noise.data(), noise.size(), 1, 4000.0), 0.0);
}

TEST(NominalEstimates, TakeTheLevelBeforeTheFirstDisturbance) {
    // Three phases at 100, 101 and 99 V for four cycles, then phase 3 dips
    // to 60 % and phase 1 swells; the level is the median of the pre-event means.
    const double rate = 1000.0, perCycle = 1000.0 / 50.0;
    std::vector<std::vector<float>> phases(3, std::vector<float>(200));
    const double levels[3] = {100.0, 101.0, 99.0};
    for (size_t p = 0; p < 3; ++p)
        for (size_t k = 0; k < 200; ++k) {
            const double t = static_cast<double>(k) / rate;
            double level = levels[p];
            if (k >= 80 && p == 2) level *= 0.6;
            if (k >= 80 && p == 0) level *= 1.3;
            phases[p][k] = static_cast<float>(level * std::sqrt(2.0) * std::sin(2.0 * kPi * 50.0 * t - p * 2.0943951));
        }
    const std::vector<std::vector<double>> rms = cycleRms(phases, perCycle);
    ASSERT_EQ(rms[0].size(), 10u);
    EXPECT_NEAR(rms[2][1], 99.0, 1e-3);
    EXPECT_NEAR(rms[2][5], 59.4, 1e-3);
    EXPECT_NEAR(preDisturbanceLevel(rms), 100.0, 1e-3);
    // Shorter than one cycle: no level.
    EXPECT_NEAR(preDisturbanceLevel(cycleRms(phases, 1000.0)), 0.0, 0.0);
    EXPECT_EQ(preDisturbanceLevel({}), 0.0);
}

TEST(NominalEstimates, FitTheFundamentalToContinueASignal) {
    const double perCycle = 128.4;
    std::vector<float> x(257);
    for (size_t k = 0; k < x.size(); ++k)
        x[k] = static_cast<float>(5.0 + 100.0 * std::cos(2.0 * kPi * static_cast<double>(k) / perCycle - 1.0));
    const FundamentalFit fit = fitFundamental(x.data(), x.size(), perCycle);
    for (double k : {-500.0, -1.0, 0.0, 300.0, 1000.5})
        EXPECT_NEAR(fit.at(k), 5.0 + 100.0 * std::cos(2.0 * kPi * k / perCycle - 1.0), 1e-3) << k;
    EXPECT_EQ(fitFundamental(x.data(), 1, perCycle).at(3.0), 0.0);  // too few samples: no fit
}

TEST(SectionResampling, PutsSeveralRatesOntoTheHighestWithoutDistortion) {
    // A 50 Hz sine plus its 7th harmonic recorded in three sections at 2400,
    // 2410 and 2395 Hz; after resampling onto 2410 Hz every sample away from
    // the ends matches the signal at its uniform time.
    const std::vector<SampleSection> sections = {{2400.0, 0, 500}, {2410.0, 500, 300}, {2395.0, 800, 400}};
    auto signal = [](double t) { return std::sin(2.0 * kPi * 50.0 * t) + 0.1 * std::sin(2.0 * kPi * 350.0 * t + 0.5); };
    std::vector<float> interleaved;
    double t = 0.0;
    for (const SampleSection& s : sections)
        for (uint64_t k = 0; k < s.sampleCount; ++k, t += 1.0 / s.sampleRate) {
            interleaved.push_back(static_cast<float>(signal(t)));
            interleaved.push_back(static_cast<float>(-2.0 * signal(t)));
        }
    const double rate = uniformRateFor(sections);
    EXPECT_EQ(rate, 2410.0);
    const std::vector<float> out = resampleSections(interleaved, 2, sections, rate);
    const double lastTime = 500 / 2400.0 + 300 / 2410.0 + 399 / 2395.0;
    EXPECT_EQ(out.size() / 2, static_cast<size_t>(std::floor(lastTime * rate)) + 1);
    double worst = 0.0;
    for (size_t m = 20; m + 20 < out.size() / 2; ++m) {
        const double expected = signal(static_cast<double>(m) / rate);
        worst = std::max(worst, std::fabs(out[2 * m] - expected));
        EXPECT_NEAR(out[2 * m + 1], -2.0 * out[2 * m], 1e-5);
    }
    EXPECT_LT(worst, 2e-3);
    EXPECT_THROW(resampleSections(interleaved, 0, sections, rate), std::invalid_argument);
}
