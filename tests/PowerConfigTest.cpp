// Settings defaults and the quantities derived from them.
#include <gtest/gtest.h>

#include "tarnel/PowerConfig.h"

TEST(PowerConfigTest, DefaultsGiveOnePhaseWithCurrent) {
    PowerConfig config;
    EXPECT_EQ(config.getPhasesCount(), 1);
    EXPECT_EQ(config.getCurrentsCount(), 1);
    EXPECT_EQ(config.getRequiredHarmonicsCount(), 2u);
}
