// Rapid voltage change detection on single channels and on the polyphase system.
#include <gtest/gtest.h>

#include <vector>

#include "tarnel/RvcMultiPhaseCalculation.h"
#include "tarnel/RvcPhaseCalculation.h"

using namespace tarnel;

namespace {

// Feeds one value the way the module does; no dip or swell has started (start time 0).
const RvcResult& feed(RvcPhaseCalculation& rvc, double value, double time, double dipStart = 0.0) {
    rvc.clearResult();
    rvc.calculate(value, time, dipStart, 0.0);
    return rvc.getCurrentResult();
}

// A two-value window with a 50 % band (25 % to return) keeps the hand-computed cases short.
RvcPhaseCalculation shortWindow() {
    RvcPhaseCalculation rvc;
    rvc.setSteadyStateLength(2);
    rvc.setSteadyStateThreshold(50.0);
    rvc.reset();
    return rvc;
}

}  // namespace

TEST(RvcPhaseCalculationTest, StepFrom230To236IsReportedAfterAFullSteadyWindow) {
    RvcPhaseCalculation rvc;
    for (int i = 0; i < 100; ++i) {
        const RvcResult& r = feed(rvc, 230.0, 0.02 * i);
        EXPECT_EQ(r.firstValue, i == 0);
        EXPECT_EQ(r.state, 0);
    }
    // Window average 230.06, upper band edge 234.66: the first 236 V value starts the event.
    const RvcResult& start = feed(rvc, 236.0, 2.0);
    EXPECT_EQ(start.state, 1);
    EXPECT_TRUE(start.stateChanged);
    for (int i = 1; i < 99; ++i) EXPECT_FALSE(feed(rvc, 236.0, 2.0 + 0.02 * i).eventDetected);
    const RvcResult& end = feed(rvc, 236.0, 2.0 + 0.02 * 99);
    EXPECT_TRUE(end.eventDetected);
    EXPECT_TRUE(end.stateChanged);
    EXPECT_EQ(end.state, 0);
    EXPECT_EQ(end.eventCount, 1u);
    EXPECT_FLOAT_EQ(end.deltaUss, 6.0f);
    EXPECT_FLOAT_EQ(end.deltaUmax, 6.0f);
    EXPECT_DOUBLE_EQ(end.duration, 0.0);

    rvc.clearResult();
    EXPECT_FALSE(end.eventDetected);  // `end` refers to the live result
    EXPECT_TRUE(end.stateChanged);
    EXPECT_EQ(end.eventCount, 1u);
    EXPECT_EQ(end.deltaUss, 0.0f);
}

TEST(RvcPhaseCalculationTest, ChangesWithinTheBandOrBeforeTheWindowIsFullStartNoEvent) {
    RvcPhaseCalculation rvc;
    for (int i = 0; i < 100; ++i) feed(rvc, 230.0, i);
    for (int i = 100; i < 300; ++i) EXPECT_EQ(feed(rvc, 234.0, i).state, 0);
}

// 40 values at 230 V, a dip to 161 V for 10 values, then 230 V: the window fills at value 100 with
// the dip inside. No steady level has been seen yet, so no event opens; the first full window
// without the dip (values 50 to 149) is the steady level from which a later 6 V step is measured.
TEST(RvcPhaseCalculationTest, NoEventOpensBeforeAFullSteadyWindow) {
    RvcPhaseCalculation rvc;
    for (int i = 0; i < 150; ++i) {
        const double value = i >= 40 && i < 50 ? 161.0 : 230.0;
        EXPECT_EQ(feed(rvc, value, i, i >= 40 ? 40.0 : 0.0).state, 0) << i;
    }
    EXPECT_EQ(feed(rvc, 236.0, 150, 40.0).state, 1);
    RvcResult end;
    for (int i = 151; i < 250; ++i) end = feed(rvc, 236.0, i, 40.0);
    EXPECT_TRUE(end.eventDetected);
    EXPECT_EQ(end.eventCount, 1u);
    EXPECT_FLOAT_EQ(end.deltaUss, 6.0f);
    EXPECT_DOUBLE_EQ(end.duration, 0.0);

    // A window that never settles opens nothing either.
    RvcPhaseCalculation unsteady;
    for (int i = 0; i < 300; ++i) EXPECT_EQ(feed(unsteady, i % 2 ? 100.0 : 400.0, i).state, 0);
}

TEST(RvcPhaseCalculationTest, ValueOnTheBandEdgeIsInside) {
    // After a steady window, {300, 100}: average 200, band 100, both values exactly on an edge.
    RvcPhaseCalculation onEdge = shortWindow();
    feed(onEdge, 300.0, 1.0);
    feed(onEdge, 300.0, 2.0);
    EXPECT_EQ(feed(onEdge, 100.0, 3.0).state, 0);
    RvcPhaseCalculation beyond = shortWindow();
    feed(beyond, 300.0, 1.0);
    feed(beyond, 300.0, 2.0);
    EXPECT_EQ(feed(beyond, 99.99, 3.0).state, 1);
}

TEST(RvcPhaseCalculationTest, EventEndsOnlyInsideTheHysteresisBand) {
    RvcPhaseCalculation rvc = shortWindow();
    feed(rvc, 100.0, 1.0);
    feed(rvc, 100.0, 2.0);
    EXPECT_EQ(feed(rvc, 400.0, 3.0).state, 1);
    // {400, 700}: inside the 50 % band, outside the 25 % return band.
    EXPECT_EQ(feed(rvc, 700.0, 4.0).state, 1);
    const RvcResult& end = feed(rvc, 700.0, 5.0);
    EXPECT_TRUE(end.eventDetected);
    EXPECT_FLOAT_EQ(end.deltaUss, 600.0f);
    EXPECT_FLOAT_EQ(end.deltaUmax, 600.0f);
    EXPECT_DOUBLE_EQ(end.duration, 1.0);  // from the start (3) to the oldest steady value (4)
    EXPECT_DOUBLE_EQ(rvc.getSteadyStateDuration(), 1.0);
}

TEST(RvcPhaseCalculationTest, EventWithADipIsDroppedAndResetStartsOver) {
    RvcPhaseCalculation rvc = shortWindow();
    feed(rvc, 100.0, 1.0);
    feed(rvc, 100.0, 2.0);
    feed(rvc, 400.0, 3.0, 3.0);
    const RvcResult& end = feed(rvc, 400.0, 4.0, 3.0);
    EXPECT_EQ(end.state, 0);
    EXPECT_FALSE(end.eventDetected);
    EXPECT_EQ(end.eventCount, 0u);

    rvc.reset();
    EXPECT_EQ(rvc.getCurrentResult().state, -1);
    EXPECT_DOUBLE_EQ(rvc.getSteadyStateDuration(), 0.0);
    const RvcResult& first = feed(rvc, 100.0, 5.0);
    EXPECT_TRUE(first.firstValue);
    EXPECT_TRUE(first.stateChanged);
}

TEST(RvcPhaseCalculationTest, ZeroWindowLengthBehavesLikeOneValue) {
    RvcPhaseCalculation rvc;
    rvc.setSteadyStateLength(0);
    for (double v : {230.0, 100.0, 400.0}) EXPECT_EQ(feed(rvc, v, v).state, 0);
    EXPECT_EQ(rvc.getSteadyStateLength(), 0u);
    EXPECT_DOUBLE_EQ(rvc.getSteadyStateDuration(), 0.0);
}

namespace {

RvcResult feedAll(RvcMultiPhaseCalculation& rvc, const std::vector<double>& values, double time) {
    for (uint64_t p = 0; p < rvc.getNumberOfPhases(); ++p) feed(rvc[p], values[p], time);
    return rvc.getTotalResult();
}

}  // namespace

TEST(RvcMultiPhaseCalculationTest, PolyphaseEventLastsUntilTheLastChannelIsSteady) {
    RvcMultiPhaseCalculation rvc;
    rvc.setNumberOfPhases(3);
    for (uint64_t p = 0; p < 3; ++p) {
        rvc[p].setSteadyStateLength(2);
        rvc[p].setSteadyStateThreshold(50.0);
    }
    rvc.initialize();
    const RvcResult first = feedAll(rvc, {100, 100, 100}, 1.0);
    EXPECT_TRUE(first.firstValue);
    EXPECT_TRUE(first.stateChanged);
    EXPECT_EQ(first.state, 0);
    feedAll(rvc, {100, 100, 100}, 2.0);
    const RvcResult start = feedAll(rvc, {400, 100, 100}, 3.0);
    EXPECT_EQ(start.state, 1);
    EXPECT_TRUE(start.stateChanged);
    // Phase 1 ends its event while phase 2 starts one: nothing is reported yet.
    const RvcResult handOver = feedAll(rvc, {400, 400, 100}, 4.0);
    EXPECT_TRUE(rvc[0].getCurrentResult().eventDetected);
    EXPECT_EQ(handOver.state, 1);
    EXPECT_FALSE(handOver.stateChanged);
    EXPECT_FALSE(handOver.eventDetected);
    const RvcResult end = feedAll(rvc, {400, 400, 100}, 5.0);
    EXPECT_TRUE(end.eventDetected);
    EXPECT_EQ(end.state, 0);
    EXPECT_EQ(end.eventCount, 1u);
    EXPECT_FLOAT_EQ(end.deltaUss, 300.0f);
    EXPECT_DOUBLE_EQ(end.duration, 5.0 - 3.0 - 1.0);
    EXPECT_EQ(feedAll(rvc, {400, 400, 100}, 6.0).eventCount, 1u);
}

// A dip begins inside the first polyphase event, which therefore ends unreported. The next clean
// step is a new event: every channel and the total report a duration of 0.
TEST(RvcMultiPhaseCalculationTest, EventAfterAnUnreportedEventStartsAfresh) {
    RvcMultiPhaseCalculation rvc;
    rvc.setNumberOfPhases(3);
    for (uint64_t p = 0; p < 3; ++p) {
        rvc[p].setSteadyStateLength(2);
        rvc[p].setSteadyStateThreshold(10.0);
    }
    rvc.initialize();
    const double values[] = {100, 100, 200, 200, 200, 200, 200, 300, 300};
    RvcResult total;
    for (int n = 0; n < 9; ++n) {
        for (uint64_t p = 0; p < 3; ++p) {
            rvc[p].clearResult();
            rvc[p].calculate(values[n], n + 1.0, 3.0, 0.0);  // the dip started at 3
        }
        total = rvc.getTotalResult();
        if (n == 3) {
            EXPECT_EQ(total.state, 0);
            EXPECT_FALSE(total.eventDetected);
        }
    }
    for (uint64_t p = 0; p < 3; ++p) {
        EXPECT_TRUE(rvc[p].getCurrentResult().eventDetected);
        EXPECT_DOUBLE_EQ(rvc[p].getCurrentResult().duration, 0.0);
    }
    EXPECT_TRUE(total.eventDetected);
    EXPECT_EQ(total.eventCount, 1u);
    EXPECT_FLOAT_EQ(total.deltaUss, 100.0f);
    EXPECT_DOUBLE_EQ(total.duration, 0.0);
}
