// Period queue items: phase accumulation of values measured from blocks, and
// the sample weights of values placed between zero crossings.
#include <gtest/gtest.h>

#include <memory>

#include "PowerPeriodQueueItems.h"

using namespace tarnel;

namespace {

// Feeds `shift` periods per sample until the value ends (at most 100 samples).
void feedUntilEnd(PowerPeriodResultsQueueItem& item, double shift) {
    for (unsigned long long s = item.getFirstSampleIndex(); s < item.getFirstSampleIndex() + 100; ++s) {
        item.addSampleWithPhaseShift(s, shift, true);
        if (item.isLengthCalculated()) return;
    }
}

// The weights that period values apply to the value's samples, summed.
double weightSum(const PowerPeriodResultsQueueItem2& item) {
    const double inner = static_cast<double>(item.getLastRequiredSampleIndex() - item.getFirstSampleIndex()) - 1.0;
    return item.getFirstSampleFractionToUse() + inner + item.getLastSampleFractionToUse();
}

}  // namespace

TEST(PeriodQueueItemsTest, BackToBackValuesShareTheSampleWhereOneEnds) {
    // 0.3 periods per sample: a one-period value lasts 1/0.3 samples whatever
    // share of its first sample it starts with, and the next value takes the
    // rest of the sample in which this one ends.
    for (double firstFraction : {1.0, 0.5, 0.25}) {
        PowerPeriodResultsQueueItem item(4, 1000, firstFraction, 1.0, 1.0);
        feedUntilEnd(item, 0.3);
        ASSERT_TRUE(item.isLengthCalculated());
        EXPECT_NEAR(item.getTotalLength(), 1.0 / 0.3, 1e-12) << firstFraction;
        const auto next = item.getNextItem();
        ASSERT_NE(next, nullptr);
        EXPECT_EQ(next->getItemIndex(), 5u);
        EXPECT_EQ(next->getFirstSampleIndex(), item.getLastRequiredSampleIndex());
        EXPECT_NEAR(next->getFirstSampleFractionToUse() + item.getLastSampleFractionToUse(), 1.0, 1e-12);
        // The ending sample is left for the next value.
        EXPECT_EQ(item.getNextSampleIndexToProcess(), item.getLastRequiredSampleIndex());
    }
    PowerPeriodResultsQueueItem item(0, 1000, 1.0, 1.0, 1.0);
    feedUntilEnd(item, 0.3);
    EXPECT_EQ(item.getLastRequiredSampleIndex(), 1003u);
    EXPECT_NEAR(item.getLastSampleFractionToUse(), 1.0 / 3.0, 1e-12);
}

TEST(PeriodQueueItemsTest, OverlappingValueStartingInTheFirstSampleMovesToTheNext) {
    // An advance of 0.1 period falls inside the first sample: the next value
    // starts with the whole of the following sample instead.
    PowerPeriodResultsQueueItem item(0, 50, 1.0, 1.0, 0.1);
    item.addSampleWithPhaseShift(50, 0.3, true);
    ASSERT_NE(item.getNextItem(), nullptr);
    EXPECT_EQ(item.getNextItem()->getFirstSampleIndex(), 51u);
    EXPECT_EQ(item.getNextItem()->getFirstSampleFractionToUse(), 0.0);
}

TEST(PeriodQueueItemsTest, OneInvalidSampleInvalidatesTheValue) {
    for (unsigned long long invalidSample : {0ULL, 2ULL}) {
        PowerPeriodResultsQueueItem item(0, 0, 1.0, 1.0, 1.0);
        for (unsigned long long s = 0; !item.isLengthCalculated() && s < 10; ++s)
            item.addSampleWithPhaseShift(s, 0.3, s != invalidSample);
        EXPECT_FALSE(item.isValueValid()) << invalidSample;
    }
}

TEST(PeriodQueueItemsTest, ZeroCrossingValueWeightsAddUpToItsLength) {
    const unsigned long long top = ~0ULL;
    const PowerPeriodResultsQueueItem2 items[] = {
        {0, {10, 0.75}, {20, 0.25}}, {1, {10, 0.25}, {20, 0.75}}, {2, {top - 100, 0.25}, {top - 50, 0.75}}};
    // {10.75 .. 20.25}: sample 11 from 10.75 to 11.5, sample 20 from 19.5 to 20.25.
    EXPECT_EQ(items[0].getFirstSampleIndex(), 11u);
    EXPECT_DOUBLE_EQ(items[0].getFirstSampleFractionToUse(), 0.75);
    EXPECT_EQ(items[0].getLastRequiredSampleIndex(), 20u);
    EXPECT_DOUBLE_EQ(items[0].getLastSampleFractionToUse(), 0.75);
    EXPECT_EQ(items[1].getFirstSampleIndex(), 10u);
    EXPECT_EQ(items[1].getLastRequiredSampleIndex(), 21u);
    for (const auto& item : items) EXPECT_DOUBLE_EQ(weightSum(item), item.getTotalLength());
    EXPECT_DOUBLE_EQ(items[0].getTotalLength(), 9.5);
    EXPECT_DOUBLE_EQ(items[2].getTotalLength(), 50.5);
    const auto next = items[0].createNext({20, 0.25}, {30, 0.25});
    EXPECT_EQ(next->getItemIndex(), 1u);
    EXPECT_TRUE(next->isValueValid());
}

TEST(PeriodQueueItemsTest, BoundaryKeepsItsSuccessorAlive) {
    auto first = std::make_shared<PowerPeriodStartQueueItem>(7, PreciseFraction{100, 0.5});
    const std::weak_ptr<PowerPeriodStartQueueItem> second = first->createNext({105, 0.5});
    ASSERT_FALSE(second.expired());
    EXPECT_EQ(second.lock()->getItemIndex(), 8u);
    EXPECT_EQ(second.lock()->getFirstSample().index, 105u);
    EXPECT_TRUE(second.lock()->isValueValid());
    first->setInvalid();
    EXPECT_FALSE(first->isValueValid());
    first.reset();
    EXPECT_TRUE(second.expired());
}
