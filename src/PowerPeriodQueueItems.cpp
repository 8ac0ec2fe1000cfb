#include "PowerPeriodQueueItems.h"

#include <cmath>

namespace tarnel {

PowerPeriodResultsQueueItem::PowerPeriodResultsQueueItem(unsigned long long index_, unsigned long long first,
                                                         double firstFraction, double periodCount_, double advanceBy_)
    : index(index_),
      firstSampleIndex(first),
      lastSampleIndex(first),
      firstSampleFraction(firstFraction),
      periodCount(periodCount_),
      advanceBy(advanceBy_) {}

void PowerPeriodResultsQueueItem::startNextInside(unsigned long long s, double shift) {
    double whole = 0.0;
    const double part = std::modf((advanceBy - accumulatedPeriods) / shift, &whole);
    unsigned long long nextFirst = s + static_cast<unsigned long long>(whole);
    double nextFraction = 1.0 - part;
    if (nextFirst == firstSampleIndex) {
        nextFirst += 1;
        nextFraction = 0.0;
    }
    next = std::make_shared<PowerPeriodResultsQueueItem>(index + 1, nextFirst, nextFraction, periodCount, advanceBy);
}

void PowerPeriodResultsQueueItem::addSampleWithPhaseShift(unsigned long long s, double shift, bool sampleValid) {
    valid = valid && sampleValid;
    if (next == nullptr && accumulatedPeriods + shift >= advanceBy) startNextInside(s, shift);
    if (!(periodCount > accumulatedPeriods + shift)) {
        lastSampleIndex = s;
        lastSampleFraction = (periodCount - accumulatedPeriods) / shift;
        // Whole samples strictly between the first and the last; kept signed so that a value
        // ending inside its own first sample does not wrap.
        totalLength = (static_cast<double>(s - firstSampleIndex) - 1.0) + firstSampleFraction + lastSampleFraction;
        lengthCalculated = true;
        accumulatedPeriods = periodCount;
        return;
    }
    accumulatedPeriods += s == firstSampleIndex ? shift * firstSampleFraction : shift;
    processedSamples += 1;
}

}  // namespace tarnel
