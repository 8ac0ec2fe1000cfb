// Exact sample positions: rounding, clock division, distances and rational crossings.
#include <gtest/gtest.h>

#include <limits>
#include <stdexcept>

#include "tarnel/PreciseFraction.h"

using namespace tarnel;

namespace {

constexpr uint64_t maxIndex = std::numeric_limits<uint64_t>::max();
constexpr uint64_t twoTo63 = uint64_t{1} << 63;

void expectPosition(PreciseFraction actual, uint64_t index, double fraction) {
    EXPECT_EQ(actual.index, index);
    EXPECT_NEAR(actual.fraction, fraction, 1e-12);
}

}  // namespace

TEST(PreciseFractionTest, CeilAndRoundPickTheWholeSampleUpToTheTopOfTheRange) {
    struct Case {
        PreciseFraction position;
        uint64_t ceil, round;
    };
    for (const Case& c :
         {Case{{10, 0.0}, 10, 10}, Case{{10, 0.2}, 11, 10}, Case{{10, 0.25}, 11, 10}, Case{{10, 0.49}, 11, 10},
          Case{{10, 0.5}, 11, 11}, Case{{maxIndex - 1, 0.5}, maxIndex, maxIndex},
          Case{{twoTo63 + 3, 0.75}, twoTo63 + 4, twoTo63 + 4}}) {
        EXPECT_EQ(c.position.ceil(), c.ceil) << c.position.index << " + " << c.position.fraction;
        EXPECT_EQ(c.position.round(), c.round) << c.position.index << " + " << c.position.fraction;
    }
    // A whole part at or above 2^63 must not go through a signed conversion.
    EXPECT_EQ((PreciseFraction{5, 9223372036854779904.0}.ceil()), twoTo63 + 4101);
}

TEST(PreciseFractionTest, DivideByConvertsToTheSlowerClockAndRejectsNonPositiveDivisors) {
    const PreciseFraction same = PreciseFraction{7, 1.5}.divideBy(1);
    EXPECT_EQ(same.index, 7u);
    EXPECT_EQ(same.fraction, 1.5);

    expectPosition(PreciseFraction{10, 0.5}.divideBy(4), 2, 0.625);
    expectPosition(PreciseFraction{maxIndex, 0.0}.divideBy(2), twoTo63 - 1, 0.5);
    EXPECT_THROW(PreciseFraction{}.divideBy(0), std::invalid_argument);
    EXPECT_THROW(PreciseFraction{}.divideBy(-3), std::invalid_argument);
}

TEST(PreciseFractionTest, SubtractGivesSignedDistanceWithoutWrapping) {
    EXPECT_DOUBLE_EQ((PreciseFraction{5, 0.25}.subtract({7, 0.75})), -2.5);
    EXPECT_DOUBLE_EQ((PreciseFraction{7, 0.75}.subtract({5, 0.25})), 2.5);
    EXPECT_DOUBLE_EQ((PreciseFraction{maxIndex - 1, 0.0}.subtract({maxIndex - 4, 0.5})), 2.5);
    EXPECT_DOUBLE_EQ((PreciseFraction{twoTo63, 0.0}.subtract({0, 0.0})), 9223372036854775808.0);
}

TEST(PreciseFractionTest, RationalCrossingSplitsTheStretchOrRefusesIt) {
    const PreciseFraction start{100, 0.5};
    const PreciseFraction end{110, 0.5};
    expectPosition(start.findABetterNameForRationalCrossing(end, 1, 2), 105, 0.5);
    expectPosition(start.findABetterNameForRationalCrossing(end, 2, 2), 110, 0.5);
    expectPosition(start.findABetterNameForRationalCrossing(end, 0, 2), 100, 0.5);
    // d = 0.4, x = 0.2 + 0.9 = 1.1: the fraction carries into the next whole sample.
    expectPosition(PreciseFraction{100, 0.9}.findABetterNameForRationalCrossing({101, 0.3}, 1, 2), 101, 0.1);
    // Only the distance of 6 samples goes through floating point, not the indices beyond 2^63.
    expectPosition(PreciseFraction{twoTo63 - 2, 0.5}.findABetterNameForRationalCrossing({twoTo63 + 4, 0.5}, 3, 4),
                   twoTo63 + 3, 0.0);
    // A reversed stretch or a zero denominator is refused.
    EXPECT_THROW(start.findABetterNameForRationalCrossing({100, 0.25}, 1, 2), std::invalid_argument);
    EXPECT_THROW(start.findABetterNameForRationalCrossing({110, 0.5}, 1, 0), std::invalid_argument);
    EXPECT_NO_THROW(start.findABetterNameForRationalCrossing(start, 1, 2));
}
