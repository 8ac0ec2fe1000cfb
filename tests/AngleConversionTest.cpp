// Radians to degrees as results report angles: within (-180, 180], a half
// turn either way reading +180.
#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "PowerModuleImpl.h"

using namespace tarnel;

namespace {

constexpr double kPi = 3.141592653589793;

double toDegrees(double radians) { return PowerModule::PowerModuleImpl::rad2deg(radians); }

TEST(AngleConversionTest, MapsRadiansIntoOneOpenHalfTurnEachWay) {
    EXPECT_DOUBLE_EQ(toDegrees(0.0), 0.0);
    EXPECT_DOUBLE_EQ(toDegrees(kPi / 6.0), 30.0);
    EXPECT_DOUBLE_EQ(toDegrees(-kPi / 2.0), -90.0);
    EXPECT_DOUBLE_EQ(toDegrees(kPi), 180.0);
    EXPECT_DOUBLE_EQ(toDegrees(-kPi), 180.0) << "-180 reads as 180";
    EXPECT_NEAR(toDegrees(3.0 * kPi), 180.0, 1e-9);
    EXPECT_NEAR(toDegrees(kPi + 0.01), 0.01 * 180.0 / kPi - 180.0, 1e-9) << "just past a half turn";
    EXPECT_NEAR(toDegrees(-2.5 * kPi), -90.0, 1e-9);
    EXPECT_NEAR(toDegrees(100.0 * kPi + kPi / 3.0), 60.0, 1e-9);
    EXPECT_TRUE(std::isnan(toDegrees(std::numeric_limits<double>::quiet_NaN())));
}

}  // namespace
