// Queue items of period values: boundaries and values found from zero
// crossings, and values measured by accumulating the reference phase.
#pragma once

#include <cstdint>
#include <memory>

#include "tarnel/PreciseFraction.h"

namespace tarnel {

// One period boundary found from the caller's zero crossings.
class PowerPeriodStartQueueItem {
  public:
    PowerPeriodStartQueueItem(unsigned long long index_, PreciseFraction position)
        : index(index_), firstSample(position) {}

    unsigned long long getItemIndex() const { return index; }
    PreciseFraction getFirstSample() const { return firstSample; }
    bool isValueValid() const { return valid; }
    void setInvalid() { valid = false; }
    // Creates the following boundary and keeps it alive as `next`.
    std::shared_ptr<PowerPeriodStartQueueItem> createNext(PreciseFraction position) {
        next = std::make_shared<PowerPeriodStartQueueItem>(index + 1, position);
        return next;
    }

  private:
    unsigned long long index;
    PreciseFraction firstSample;
    bool valid = true;
    std::shared_ptr<PowerPeriodStartQueueItem> next;
};

// One period value between two boundaries found from zero crossings. Whole
// sample k covers the cell [k - 0.5, k + 0.5).
class PowerPeriodResultsQueueItem2 {
  public:
    PowerPeriodResultsQueueItem2(unsigned long long index_, PreciseFraction first, PreciseFraction last)
        : index(index_), firstSample(first), lastSample(last) {}

    std::shared_ptr<PowerPeriodResultsQueueItem2> createNext(PreciseFraction first, PreciseFraction last) const {
        return std::make_shared<PowerPeriodResultsQueueItem2>(index + 1, first, last);
    }
    unsigned long long getItemIndex() const { return index; }
    bool isValueValid() const { return valid; }
    void setInvalid() { valid = false; }
    unsigned long long getFirstSampleIndex() const { return firstSample.round(); }
    unsigned long long getLastRequiredSampleIndex() const { return lastSample.round(); }
    double getFirstSampleFractionToUse() const {
        return static_cast<double>(firstSample.round() - firstSample.index) + 0.5 - firstSample.fraction;
    }
    double getLastSampleFractionToUse() const {
        return 1.0 - (static_cast<double>(lastSample.round() - lastSample.index) + 0.5 - lastSample.fraction);
    }
    double getTotalLength() const { return lastSample.subtract(firstSample); }

  private:
    unsigned long long index;
    PreciseFraction firstSample;
    PreciseFraction lastSample;
    bool valid = true;
};

// One period value measured by accumulating the reference phase sample by
// sample until it has advanced by the value's length in periods. Exported only
// so that the library's tests can drive it directly.
class PowerPeriodResultsQueueItem {
  public:
    PowerPeriodResultsQueueItem(unsigned long long index, unsigned long long firstSampleIndex,
                                double firstSampleFraction, double periodCount, double advanceBy);

    // Adds sample s whose reference phase advances by `shift` periods.
    void addSampleWithPhaseShift(unsigned long long s, double shift, bool sampleValid);

    std::shared_ptr<PowerPeriodResultsQueueItem> getNextItem() const { return next; }
    unsigned long long getNextSampleIndexToProcess() const { return firstSampleIndex + processedSamples; }
    bool isLengthCalculated() const { return lengthCalculated; }
    bool isValueValid() const { return valid; }
    double getTotalLength() const { return totalLength; }
    unsigned long long getItemIndex() const { return index; }
    unsigned long long getFirstSampleIndex() const { return firstSampleIndex; }
    unsigned long long getLastRequiredSampleIndex() const { return lastSampleIndex; }
    double getFirstSampleFractionToUse() const { return firstSampleFraction; }
    double getLastSampleFractionToUse() const { return lastSampleFraction; }

  private:
    void startNextInside(unsigned long long s, double shift);

    unsigned long long index;
    unsigned long long firstSampleIndex;
    unsigned long long lastSampleIndex;
    double firstSampleFraction;
    double lastSampleFraction = 0.0;
    double periodCount;
    double advanceBy;
    std::shared_ptr<PowerPeriodResultsQueueItem> next;
    bool lengthCalculated = false;
    bool valid = true;
    double totalLength = 0.0;
    unsigned long long processedSamples = 0;
    double accumulatedPeriods = 0.0;
};

}  // namespace tarnel
