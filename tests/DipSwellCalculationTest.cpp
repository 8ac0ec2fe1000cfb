// Dip and swell detection on single channels and on the polyphase system.
#include <gtest/gtest.h>

#include <cmath>
#include <vector>

#include "tarnel/DipSwellMultiPhaseCalculation.h"
#include "tarnel/DipSwellPhaseCalculation.h"

namespace {

// Feeds values at times 1, 2, 3, ... the way the module does and returns the detector.
DipSwellPhaseCalculation feedSequence(const std::vector<double>& values) {
    DipSwellPhaseCalculation detector;
    double time = 1.0;
    for (double value : values) {
        detector.clearResult();
        detector.calculate(value, time++);
    }
    return detector;
}

}  // namespace

TEST(DipSwellPhaseCalculationTest, DipWithOneValueInTheHysteresisBand) {
    DipSwellPhaseCalculation dip;
    const double times[] = {0.01, 0.02, 0.03, 0.04};
    const double values[] = {230.0, 180.0, 186.0, 190.0};
    for (int i = 0; i < 4; ++i) {
        dip.clearResult();
        dip.calculate(values[i], times[i]);
        const DipResult& r = dip.getDipResult();
        EXPECT_EQ(r.firstValue, i == 0);
        EXPECT_EQ(r.eventStarted, i == 1);
        EXPECT_EQ(r.eventEnded, i == 3);
        EXPECT_EQ(dip.getDipState(), i == 1 || i == 2 ? InEvent : NoEvent);
    }
    const DipResult& r = dip.getDipResult();
    EXPECT_DOUBLE_EQ(r.residualVoltage, 180.0);
    EXPECT_NEAR(r.depthInPercent, 50.0 / 230.0 * 100.0, 1e-12);
    EXPECT_NEAR(r.duration, 0.02, 1e-15);
    EXPECT_DOUBLE_EQ(r.time, 0.02);
    EXPECT_DOUBLE_EQ(r.timeBelowThreshold, 0.0);
    EXPECT_EQ(r.eventCount, 1u);
    EXPECT_DOUBLE_EQ(dip.getDipStartTime(), 0.02);

    dip.clearResult();
    EXPECT_FALSE(dip.getDipResult().eventEnded);
    EXPECT_TRUE(std::isinf(dip.getDipResult().depthInPercent));
    EXPECT_EQ(dip.getDipResult().eventCount, 1u);
}

TEST(DipSwellPhaseCalculationTest, LevelsAreStrictToStartAndInclusiveToEnd) {
    EXPECT_EQ(feedSequence({230, 184}).getDipState(), NoEvent);
    EXPECT_EQ(feedSequence({230, 183.9, 188.5}).getDipState(), InEvent);
    EXPECT_TRUE(feedSequence({230, 183.9, 188.6}).getDipResult().eventEnded);
    EXPECT_EQ(feedSequence({230, 253}).getSwellState(), NoEvent);
    EXPECT_EQ(feedSequence({230, 253.1, 248.5}).getSwellState(), InEvent);
    EXPECT_TRUE(feedSequence({230, 253.1, 248.4}).getSwellResult().eventEnded);
    // The first value only initialises.
    EXPECT_EQ(feedSequence({100}).getDipState(), NoEvent);
}

TEST(DipSwellPhaseCalculationTest, TimeBeyondThresholdCountsStretchesUpToTheBand) {
    // Below from 2 to 4, band at 5, below again from 6 to 7, band at 8: 2 + 1 seconds.
    const DipResult dip = feedSequence({230, 150, 150, 150, 186, 150, 150, 186, 230}).getDipResult();
    EXPECT_TRUE(dip.eventEnded);
    EXPECT_DOUBLE_EQ(dip.timeBelowThreshold, 3.0);
    EXPECT_DOUBLE_EQ(dip.duration, 7.0);
    EXPECT_DOUBLE_EQ(dip.residualVoltage, 150.0);
    // Jumping straight back past the end level adds nothing.
    EXPECT_DOUBLE_EQ(feedSequence({230, 150, 150, 230}).getDipResult().timeBelowThreshold, 0.0);

    const SwellResult swell = feedSequence({230, 260, 270, 250, 260, 240}).getSwellResult();
    EXPECT_TRUE(swell.eventEnded);
    EXPECT_DOUBLE_EQ(swell.maximumVoltage, 270.0);
    EXPECT_DOUBLE_EQ(swell.timeAboveThreshold, 1.0);
    EXPECT_DOUBLE_EQ(swell.duration, 4.0);
    EXPECT_DOUBLE_EQ(swell.time, 2.0);
}

TEST(DipSwellPhaseCalculationTest, SettingsTakeEffectOnReset) {
    DipSwellPhaseCalculation detector;
    detector.setDipThreshold(90.0);
    detector.calculate(230.0, 1.0);
    detector.calculate(200.0, 2.0);
    EXPECT_EQ(detector.getDipState(), NoEvent);
    detector.reset();
    detector.calculate(230.0, 3.0);
    detector.calculate(200.0, 4.0);
    EXPECT_EQ(detector.getDipState(), InEvent);
}

namespace {

void feedAll(DipSwellMultiPhaseCalculation& system, const std::vector<double>& values, double time) {
    for (uint64_t p = 0; p < system.getNumberOfPhases(); ++p) {
        system[p].clearResult();
        system[p].calculate(values[p], time);
    }
}

}  // namespace

TEST(DipSwellMultiPhaseCalculationTest, PolyphaseDipRunsFromFirstStartToLastEnd) {
    DipSwellMultiPhaseCalculation system;
    system.setNumberOfPhases(3);
    system.initialize();
    const std::vector<std::vector<double>> steps = {
        {230, 230, 230}, {180, 230, 230}, {180, 170, 230}, {230, 170, 230}, {230, 230, 230}};
    std::vector<DipResult> totals;
    for (size_t i = 0; i < steps.size(); ++i) {
        feedAll(system, steps[i], 10.0 * (i + 1));
        totals.push_back(system.getDipTotalResult());
    }
    EXPECT_TRUE(totals[0].firstValue);
    EXPECT_TRUE(totals[1].eventStarted);
    EXPECT_FALSE(totals[2].eventStarted);
    EXPECT_FALSE(totals[3].eventEnded);
    EXPECT_EQ(totals[3].eventCount, 0u);
    const DipResult& end = totals[4];
    EXPECT_TRUE(end.eventEnded);
    EXPECT_DOUBLE_EQ(end.duration, 50.0 - 20.0);
    EXPECT_DOUBLE_EQ(end.residualVoltage, 170.0);
    EXPECT_EQ(end.eventCount, 1u);
}

TEST(DipSwellMultiPhaseCalculationTest, EndingChannelLastInOrderReportsItsOwnStartTime) {
    DipSwellMultiPhaseCalculation system;
    system.setNumberOfPhases(2);
    system.initialize();
    const std::vector<std::vector<double>> steps = {{230, 230}, {180, 230}, {180, 180}, {230, 180}, {230, 230}};
    for (size_t i = 0; i < steps.size() - 1; ++i) {
        feedAll(system, steps[i], i + 1.0);
        system.getDipTotalResult();
    }
    feedAll(system, steps.back(), 5.0);
    const DipResult end = system.getDipTotalResult();
    EXPECT_TRUE(end.eventEnded);
    EXPECT_DOUBLE_EQ(end.time, 3.0);
    EXPECT_DOUBLE_EQ(end.duration, 3.0 - 2.0);
}

TEST(DipSwellMultiPhaseCalculationTest, PolyphaseSwellTakesTheHighestMaximum) {
    DipSwellMultiPhaseCalculation system;
    system.setNumberOfPhases(3);
    system.initialize();
    feedAll(system, {230, 230, 230}, 1.0);
    // The third channel stays normal, so the total keeps the current time when the swell ends.
    feedAll(system, {260, 270, 230}, 2.0);
    EXPECT_TRUE(system.getSwellTotalResult().eventStarted);
    feedAll(system, {230, 230, 230}, 3.0);
    const SwellResult end = system.getSwellTotalResult();
    EXPECT_TRUE(end.eventEnded);
    EXPECT_DOUBLE_EQ(end.maximumVoltage, 270.0);
    EXPECT_DOUBLE_EQ(end.duration, 1.0);
    EXPECT_EQ(end.eventCount, 1u);

    system.reset();
    feedAll(system, {230, 230, 230}, 4.0);
    const SwellResult afterReset = system.getSwellTotalResult();
    EXPECT_TRUE(afterReset.firstValue);
    EXPECT_EQ(afterReset.eventCount, 0u);
}
