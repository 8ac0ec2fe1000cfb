// Start times of COMTRADE recordings in UTC; the expected instants are Unix
// times of the same calendar times.
#include <gtest/gtest.h>

#include "recordings/ComtradeStartTime.h"

using namespace tarnel::recordings;

namespace {

constexpr int64_t kSecond = 1000000000;

int64_t utc(const std::string& dateTime, int revision, const std::string& timeCode = "") {
    const std::optional<RecordingStart> start = comtradeStartTime(dateTime, revision, timeCode);
    EXPECT_TRUE(start.has_value()) << dateTime;
    return start ? start->utcNanoseconds : 0;
}

}  // namespace

TEST(ComtradeStartTime, ReadsEachRevisionsDateOrderAndFraction) {
    // 1999 and 2013: dd/mm/yyyy; microseconds or nanoseconds.
    EXPECT_EQ(utc("11/07/2012 08:44:21.051022", 1999), 1341996261 * kSecond + 51022000);
    EXPECT_EQ(utc("31/12/1999 23:59:59", 2013), 946684799 * kSecond);
    EXPECT_EQ(utc("29/02/2024 00:00:00.000000001", 2013), 1709164800 * kSecond + 1);
    // 1991: mm/dd/yy, two-digit years 70-99 in the 1900s, the others in the 2000s.
    EXPECT_EQ(utc("02/12/11 11:41:11.081315", 1991), 1297510871 * kSecond + 81315000);
    EXPECT_EQ(utc("12/31/99 23:59:59", 1991), 946684799 * kSecond);
    EXPECT_FALSE(comtradeStartTime("11/07/2012 08:44:21", 1999, "")->zoneStated);
}

TEST(ComtradeStartTime, TakesTheTimeCodeAsTheClocksLeadOverUtc) {
    const int64_t local = utc("27/07/2023 09:19:53.156666511", 2013);
    EXPECT_EQ(local, 1690449593 * kSecond + 156666511);
    EXPECT_EQ(utc("27/07/2023 09:19:53.156666511", 2013, "+9"), local - 9 * 3600 * kSecond);
    EXPECT_EQ(utc("27/07/2023 09:19:53.156666511", 2013, "-5h30"), local + 330 * 60 * kSecond);
    EXPECT_EQ(utc("27/07/2023 09:19:53.156666511", 2013, "0"), local);
    EXPECT_TRUE(comtradeStartTime("27/07/2023 09:19:53", 2013, "-5h30")->zoneStated);
    // An unreadable code leaves the clock time standing as UTC, and says so.
    const std::optional<RecordingStart> unknown = comtradeStartTime("27/07/2023 09:19:53", 2013, "x");
    ASSERT_TRUE(unknown.has_value());
    EXPECT_FALSE(unknown->zoneStated);
    EXPECT_EQ(unknown->utcNanoseconds, 1690449593 * kSecond);
}

TEST(ComtradeStartTime, RefusesTimesThatAreNotOnTheCalendar) {
    for (const char* bad :
         {"29/02/2023 00:00:00", "31/04/2020 00:00:00", "01/13/2020 00:00:00", "01/01/2020 24:00:00",
          "01/01/2020 12:60:00", "01/01/2020", "", "1/1/2020 00:00:00.1234567890", "aa/01/2020 00:00:00"})
        EXPECT_FALSE(comtradeStartTime(bad, 1999, "").has_value()) << bad;
    // Nanoseconds since 1970 in 64 bits end in the year 2262 and begin in 1677.
    for (const char* distant : {"01/01/5991 00:00:00", "31/12/9999 23:59:59", "01/01/0001 00:00:00"})
        EXPECT_FALSE(comtradeStartTime(distant, 2013, "+12").has_value()) << distant;
    EXPECT_EQ(utc("01/01/2250 00:00:00", 2013), (daysFromCivil(2250, 1, 1) * 86400) * kSecond);
}
