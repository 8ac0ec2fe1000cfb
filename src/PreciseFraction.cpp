#include "tarnel/PreciseFraction.h"

#include <cmath>
#include <stdexcept>

namespace tarnel {

namespace {

// Moves a sample index by a whole number of samples held in a double. The step is converted as an
// unsigned 64-bit magnitude, so steps at or above 2^63 stay exact; a negative step (only possible
// with a caller-supplied fraction below 0) wraps like the rest of the unsigned index arithmetic
// instead of being an out-of-range conversion.
uint64_t moveIndex(uint64_t index, double wholeSamples) {
    if (wholeSamples >= 0.0) return index + static_cast<uint64_t>(wholeSamples);
    return index - static_cast<uint64_t>(-wholeSamples);
}

}  // namespace

uint64_t PreciseFraction::ceil() const { return moveIndex(index, std::ceil(fraction)); }

uint64_t PreciseFraction::round() const { return moveIndex(index, std::round(fraction)); }

PreciseFraction PreciseFraction::divideBy(int divisor) const {
    if (divisor <= 0) throw std::invalid_argument("PreciseFraction::divideBy: divisor must be at least 1");
    if (divisor == 1) return *this;
    const auto unsignedDivisor = static_cast<uint64_t>(divisor);
    const uint64_t remainder = index % unsignedDivisor;
    return {index / unsignedDivisor, (static_cast<double>(remainder) + fraction) / static_cast<double>(divisor)};
}

double PreciseFraction::subtract(PreciseFraction other) const {
    const double fractionDifference = fraction - other.fraction;
    // The whole difference is always taken larger minus smaller so that it never wraps.
    if (index >= other.index) return static_cast<double>(index - other.index) + fractionDifference;
    return fractionDifference - static_cast<double>(other.index - index);
}

PreciseFraction PreciseFraction::findABetterNameForRationalCrossing(PreciseFraction other, uint64_t numerator,
                                                                    uint64_t denominator) const {
    if (denominator == 0) {
        throw std::invalid_argument("PreciseFraction::findABetterNameForRationalCrossing: denominator is 0");
    }
    const double distance = other.subtract(*this);
    if (distance < 0.0) {
        throw std::invalid_argument("PreciseFraction::findABetterNameForRationalCrossing: end lies before start");
    }
    // Only the short distance goes through floating point; the whole part is added to the index exactly.
    const double offset = static_cast<double>(numerator) * distance / static_cast<double>(denominator) + fraction;
    const double wholeSamples = std::floor(offset);
    return {moveIndex(index, wholeSamples), offset - wholeSamples};
}

}  // namespace tarnel
