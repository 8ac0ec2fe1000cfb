// A position on the sample axis: a whole 64-bit sample index plus a fraction,
// so that positions stay exact however long the acquisition runs.
#pragma once

#include <cstddef>
#include <cstdint>

#include "tarnel/Export.h"

namespace tarnel {

struct TARNEL_API PreciseFraction {
    uint64_t index = 0;
    double fraction = 0.0;

    // First whole sample at or after the position.
    uint64_t ceil() const;
    // Sample whose cell [k - 0.5, k + 0.5) holds the position (halves away from zero).
    uint64_t round() const;
    // The position in a clock `divisor` times slower (the module's sample clock).
    PreciseFraction divideBy(int divisor) const;
    // Signed distance this - other, in samples, without unsigned overflow.
    double subtract(PreciseFraction other) const;
    // The point numerator/denominator of the way from this position to `other`.
    PreciseFraction findABetterNameForRationalCrossing(PreciseFraction other, uint64_t numerator,
                                                       uint64_t denominator) const;
};

static_assert(sizeof(PreciseFraction) == 16, "PreciseFraction layout");
static_assert(offsetof(PreciseFraction, fraction) == 8, "PreciseFraction layout");

// One period of the fundamental between two zero crossings (48 bytes).
struct ZeroCrossingInterval {
    PreciseFraction start;
    PreciseFraction end;
    double frequency = 0.0;
    bool valid = false;
};

static_assert(sizeof(ZeroCrossingInterval) == 48, "ZeroCrossingInterval layout");
static_assert(offsetof(ZeroCrossingInterval, end) == 16, "ZeroCrossingInterval layout");
static_assert(offsetof(ZeroCrossingInterval, frequency) == 32, "ZeroCrossingInterval layout");
static_assert(offsetof(ZeroCrossingInterval, valid) == 40, "ZeroCrossingInterval layout");

}  // namespace tarnel

// Global aliases for code written against unqualified names (see README).
#if defined(TARNEL_GLOBAL_NAMES)
using tarnel::PreciseFraction;
using tarnel::ZeroCrossingInterval;
#endif
