// Dip and swell detection on single channels and on the polyphase system.
#include <gtest/gtest.h>

#include <cmath>
#include <vector>

#include "tarnel/DipSwellMultiPhaseCalculation.h"
#include "tarnel/DipSwellPhaseCalculation.h"

using namespace tarnel;

namespace {

// Feeds values at times 1, 2, 3, ... the way the module does and returns the detector.
DipSwellPhaseCalculation feedSequence(const std::vector<double>& values, double reference = 230.0) {
    DipSwellPhaseCalculation detector;
    detector.setDipSwellReferenceVoltage(reference);
    detector.reset();
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
    // 180 V stands for the period ending at 0.02 s; 186 V at 0.03 s is back above the start level.
    EXPECT_NEAR(r.timeBelowThreshold, 0.01, 1e-15);
    EXPECT_EQ(r.eventCount, 1u);

    dip.clearResult();
    EXPECT_FALSE(dip.getDipResult().eventEnded);
    EXPECT_TRUE(std::isinf(dip.getDipResult().depthInPercent));
    EXPECT_EQ(dip.getDipResult().eventCount, 1u);
}

TEST(DipSwellPhaseCalculationTest, LevelsAreStrictToStartAndInclusiveToEnd) {
    EXPECT_EQ(feedSequence({230, 184}).getDipState(), NoEvent);
    EXPECT_EQ(feedSequence({230, 183.9, 188.5}).getDipState(), InEvent);
    EXPECT_TRUE(feedSequence({230, 183.9, 188.6}).getDipResult().eventEnded);
    // With a 1000 V reference the swell levels 1100 V and 1080 V are exact doubles.
    EXPECT_EQ(feedSequence({1000, 1100}, 1000).getSwellState(), NoEvent);
    EXPECT_EQ(feedSequence({1000, 1100.1, 1080.1}, 1000).getSwellState(), InEvent);
    EXPECT_TRUE(feedSequence({1000, 1100.1, 1080}, 1000).getSwellResult().eventEnded);
    // The first value only initialises.
    EXPECT_EQ(feedSequence({100}).getDipState(), NoEvent);
}

// Each value stands for the period that ends at its time: a stretch beyond the start level runs
// from the first value beyond it to the first value that is not, in the band or past the end level.
TEST(DipSwellPhaseCalculationTest, TimeBeyondThresholdCountsEveryStretchBeyondTheStartLevel) {
    // Below at 2, 3, 4, band at 5, below at 6, 7, band at 8, ended at 9: 3 + 2 of 7 seconds.
    const DipResult dip = feedSequence({230, 150, 140, 150, 186, 150, 150, 186, 230}).getDipResult();
    EXPECT_TRUE(dip.eventEnded);
    EXPECT_DOUBLE_EQ(dip.timeBelowThreshold, 5.0);
    EXPECT_DOUBLE_EQ(dip.duration, 7.0);
    EXPECT_DOUBLE_EQ(dip.residualVoltage, 140.0);
    // A dip that jumps straight back past the end level was below for its whole duration, and
    // the previous dip's time is not carried over.
    const DipResult second = feedSequence({230, 150, 150, 186, 230, 150, 150, 150, 230}).getDipResult();
    EXPECT_EQ(second.eventCount, 2u);
    EXPECT_DOUBLE_EQ(second.timeBelowThreshold, 3.0);
    EXPECT_DOUBLE_EQ(second.duration, 3.0);

    // Above at 2, 3, band at 4, above at 5, 6, band at 7, ended at 8: 2 + 2 of 6 seconds.
    const SwellResult swell = feedSequence({230, 260, 270, 250, 260, 265, 250, 240}).getSwellResult();
    EXPECT_TRUE(swell.eventEnded);
    EXPECT_DOUBLE_EQ(swell.maximumVoltage, 270.0);
    EXPECT_DOUBLE_EQ(swell.timeAboveThreshold, 4.0);
    EXPECT_DOUBLE_EQ(swell.duration, 6.0);
    EXPECT_DOUBLE_EQ(swell.time, 2.0);
    const SwellResult straight = feedSequence({230, 260, 260, 230}).getSwellResult();
    EXPECT_DOUBLE_EQ(straight.timeAboveThreshold, 2.0);
    EXPECT_DOUBLE_EQ(straight.duration, 2.0);
}

TEST(DipSwellPhaseCalculationTest, SettingsTakeEffectOnReset) {
    DipSwellPhaseCalculation detector;
    detector.setDipThreshold(90.0);
    for (double value : {230.0, 200.0}) detector.calculate(value, value);
    EXPECT_EQ(detector.getDipState(), NoEvent);
    detector.reset();
    for (double value : {230.0, 200.0}) detector.calculate(value, value);
    EXPECT_EQ(detector.getDipState(), InEvent);
}

namespace {

void feedAll(DipSwellMultiPhaseCalculation& system, const std::vector<double>& values, double time) {
    for (uint64_t p = 0; p < system.getNumberOfPhases(); ++p) {
        system[p].clearResult();
        system[p].calculate(values[p], time);
    }
}

// Feeds one row of channel values per step at times 1, 2, 3, ... and collects the dip totals.
std::vector<DipResult> dipTotals(const std::vector<std::vector<double>>& steps) {
    DipSwellMultiPhaseCalculation system;
    system.setNumberOfPhases(steps.front().size());
    system.initialize();
    std::vector<DipResult> totals;
    for (size_t i = 0; i < steps.size(); ++i) {
        feedAll(system, steps[i], i + 1.0);
        totals.push_back(system.getDipTotalResult());
    }
    return totals;
}

}  // namespace

TEST(DipSwellMultiPhaseCalculationTest, PolyphaseDipRunsFromFirstStartToLastEnd) {
    const std::vector<DipResult> totals = dipTotals({{230, 230, 230},
                                                     {180, 230, 230},
                                                     {180, 170, 230},
                                                     {230, 170, 230},
                                                     {230, 230, 230},
                                                     {150, 230, 230},
                                                     {230, 230, 230}});
    EXPECT_TRUE(totals[0].firstValue);
    EXPECT_TRUE(totals[1].eventStarted);
    EXPECT_FALSE(totals[2].eventStarted);
    // The first channel's dip ends, the second's goes on: no total result yet.
    EXPECT_FALSE(totals[3].eventEnded);
    EXPECT_TRUE(std::isinf(totals[3].depthInPercent));
    EXPECT_EQ(totals[3].eventCount, 0u);
    const DipResult& end = totals[4];
    EXPECT_TRUE(end.eventEnded);
    EXPECT_DOUBLE_EQ(end.time, 2.0);
    EXPECT_DOUBLE_EQ(end.duration, 5.0 - 2.0);
    EXPECT_DOUBLE_EQ(end.residualVoltage, 170.0);
    EXPECT_DOUBLE_EQ(end.depthInPercent, 60.0 / 230.0 * 100.0);
    // Some channel was below 184 V from 2 until 5.
    EXPECT_DOUBLE_EQ(end.timeBelowThreshold, 3.0);
    EXPECT_EQ(end.eventCount, 1u);
    EXPECT_TRUE(totals[5].eventStarted);
    EXPECT_EQ(totals[6].eventCount, 2u);
    EXPECT_DOUBLE_EQ(totals[6].residualVoltage, 150.0);
    EXPECT_DOUBLE_EQ(totals[6].duration, 1.0);
}

TEST(DipSwellMultiPhaseCalculationTest, EndingChannelLastInOrderDoesNotShortenTheTotal) {
    const DipResult end = dipTotals({{230, 230}, {180, 230}, {180, 180}, {230, 180}, {230, 230}}).back();
    EXPECT_TRUE(end.eventEnded);
    EXPECT_DOUBLE_EQ(end.time, 2.0);
    EXPECT_DOUBLE_EQ(end.duration, 5.0 - 2.0);
}

TEST(DipSwellMultiPhaseCalculationTest, PolyphaseSwellTakesTheHighestMaximum) {
    DipSwellMultiPhaseCalculation system;
    system.setNumberOfPhases(3);
    system.initialize();
    feedAll(system, {230, 230, 230}, 1.0);
    // The second channel's swell is higher and ends first; the first channel ends the total.
    feedAll(system, {260, 270, 230}, 2.0);
    EXPECT_TRUE(system.getSwellTotalResult().eventStarted);
    feedAll(system, {260, 230, 230}, 3.0);
    EXPECT_FALSE(system.getSwellTotalResult().eventEnded);
    feedAll(system, {230, 230, 230}, 4.0);
    const SwellResult end = system.getSwellTotalResult();
    EXPECT_TRUE(end.eventEnded);
    EXPECT_DOUBLE_EQ(end.maximumVoltage, 270.0);
    EXPECT_DOUBLE_EQ(end.duration, 2.0);
    EXPECT_DOUBLE_EQ(end.timeAboveThreshold, 2.0);
    EXPECT_DOUBLE_EQ(end.time, 2.0);
    EXPECT_EQ(end.eventCount, 1u);

    system.reset();
    feedAll(system, {230, 230, 230}, 5.0);
    const SwellResult afterReset = system.getSwellTotalResult();
    EXPECT_TRUE(afterReset.firstValue);
    EXPECT_EQ(afterReset.eventCount, 0u);
}
