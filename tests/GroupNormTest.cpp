// The norm of a harmonic group's bins (the RMS of the group) is scaled by a
// power of two from its largest value, so that squares neither overflow nor
// underflow: it must keep float precision for groups of any magnitude, from
// subnormal bins to bins near the largest float.
#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <random>
#include <vector>

#include "kernels/KernelMath.h"

using namespace tarnel;

namespace {

// The norm in long double, rounded once to float.
float referenceNorm(const std::vector<float>& values) {
    long double sum = 0.0L;
    for (float v : values) sum += static_cast<long double>(v) * v;
    return static_cast<float>(std::sqrt(sum));
}

TEST(GroupNormTest, KeepsFloatPrecisionForGroupsOfAnyMagnitude) {
    std::mt19937 random(11);
    std::uniform_real_distribution<float> mantissa(-1.0f, 1.0f);
    for (int exponent = -149; exponent <= 127; ++exponent) {
        std::vector<float> group(22);
        for (float& v : group) v = std::ldexp(mantissa(random), exponent);
        const float expected = referenceNorm(group);
        const float norm = tarnel::scaledNorm(group.data(), static_cast<int>(group.size()));
        if (std::isinf(expected)) {  // the true norm is beyond the largest float
            EXPECT_EQ(norm, expected) << "bins of magnitude 2^" << exponent;
            continue;
        }
        // Summed in float, scaled exactly: a few units in the last place; bins
        // near the bottom of the range carry fewer significant bits themselves.
        const float tolerance = std::max(8.0f * std::numeric_limits<float>::epsilon() * expected,
                                         8.0f * std::numeric_limits<float>::denorm_min());
        EXPECT_NEAR(norm, expected, tolerance) << "bins of magnitude 2^" << exponent;
    }
}

TEST(GroupNormTest, ZeroInfiniteAndOverflowingGroups) {
    const float huge = std::numeric_limits<float>::max();
    const float inf = std::numeric_limits<float>::infinity();
    std::vector<float> zeros(10, 0.0f), withInf{1.0f, -inf, 2.0f}, overflowing(4, huge);
    EXPECT_EQ(tarnel::scaledNorm(zeros.data(), 10), 0.0f);
    EXPECT_EQ(tarnel::scaledNorm(withInf.data(), 3), inf);
    // The true norm, 2 x the largest float, is not representable.
    EXPECT_EQ(tarnel::scaledNorm(overflowing.data(), 4), inf);
    std::vector<float> single{-3.0e-42f};  // one subnormal bin: its magnitude, exactly
    EXPECT_EQ(tarnel::scaledNorm(single.data(), 1), 3.0e-42f);
}

}  // namespace
