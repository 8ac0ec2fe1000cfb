// Block calculations end to end against closed-form signals.
#include <gtest/gtest.h>

#include <cmath>

#include "tarnel/PowerModule.h"

namespace {

constexpr double kPi = 3.141592653589793;

struct ThreePhaseModule {
    PowerModule module{BackendKind::Cpu};
    double sampleRate = 10240.0;
    unsigned ring = 20480;

    explicit ThreePhaseModule(PowerGridConfigType grid = ThreePhaseStarThreeCurrents) {
        module.beginUpdate();
        module.setGridConfigType(grid);
        module.setSampleRate(sampleRate, 1);
        module.setBufferLength(ring);
        module.setStaticFrequency(50.0, 0.1);
        module.setHighestRequestedHarmonic(10);
        module.setLineToLineResultsEnabled(true);
        module.setThdEnabled(true);
        module.endUpdate();
        module.reset(0);
    }
};

}  // namespace

TEST(BlockCalculationTest, SineGivesRmsRectifiedMeanAndFundamental) {
    ThreePhaseModule m;
    const double amplitude = 325.0;
    const unsigned n = 2048;
    for (unsigned char p = 0; p < 3; ++p) {
        float* u = nullptr;
        float* i = nullptr;
        m.module.getWaveformBufferUInput(p, &u);
        m.module.getWaveformBufferI(p, &i);
        for (unsigned k = 0; k < n; ++k) {
            const double angle = 2 * kPi * 50.0 * k / m.sampleRate - p * 2 * kPi / 3;
            u[k] = static_cast<float>(amplitude * std::sin(angle));
            i[k] = static_cast<float>(10.0 * std::sin(angle - kPi / 6));
        }
    }
    m.module.writeSamples(n);
    m.module.scheduleForCalculation(0, n, 50.0);
    m.module.sync();
    ASSERT_TRUE(m.module.isAnyResultReady());
    auto results = m.module.getResults(0);
    ASSERT_EQ(results.size(), 1u);
    const PowerResultsGeneral& r = results[0];
    for (int p = 0; p < 3; ++p) {
        EXPECT_NEAR(r.phases[p].rmsU, amplitude / std::sqrt(2.0), 1e-3);
        EXPECT_NEAR(r.phases[p].rectifiedMeanU, 2 * amplitude / kPi, 1e-2);
        EXPECT_NEAR(r.phases[p].spectralRmsU, amplitude / std::sqrt(2.0), 0.05);
        EXPECT_NEAR(r.phases[p].fundamentalU, amplitude / std::sqrt(2.0), 0.05);
        EXPECT_NEAR(r.phases[p].rmsUL, amplitude * std::sqrt(3.0) / std::sqrt(2.0), 1e-2);
        EXPECT_NEAR(r.phases[p].activePower, amplitude * 10.0 / 2 * std::cos(kPi / 6), 0.05);
    }
}
