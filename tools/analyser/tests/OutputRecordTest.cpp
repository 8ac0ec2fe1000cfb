// How output records are written: numbers that read back exactly, UTC times,
// escaping, and nulls, in JSON and in CSV.
#include <gtest/gtest.h>

#include <charconv>
#include <cstring>
#include <random>

#include "OutputRecord.h"

using namespace tarnel::analyser;

TEST(OutputRecordTest, NumbersReadBackToTheSameDoubleAndStayFloatingPoint) {
    EXPECT_EQ(formatNumber(0.1), "0.1");
    EXPECT_EQ(formatNumber(50.0), "50.0");
    EXPECT_EQ(formatNumber(-0.0), "-0.0");
    EXPECT_EQ(formatNumber(1072500.7791945394), "1072500.7791945394");
    EXPECT_EQ(formatNumber(1e300), "1e+300");
    std::mt19937_64 random(7);
    for (int k = 0; k < 100000; ++k) {
        const uint64_t bits = random();
        double value;
        std::memcpy(&value, &bits, sizeof value);
        if (!std::isfinite(value)) continue;
        const std::string text = formatNumber(value);
        double back = 0.0;
        std::from_chars(text.data(), text.data() + text.size(), back);
        ASSERT_EQ(std::memcmp(&back, &value, sizeof value), 0) << text;
    }
    // Single-precision measurements keep only the digits a float has.
    EXPECT_EQ(formatNumber(shortestFromFloat(7775.5634765625f)), "7775.5635");
    EXPECT_EQ(static_cast<float>(shortestFromFloat(0.1f)), 0.1f);
}

TEST(OutputRecordTest, UtcTimesAreIso8601WithNanoseconds) {
    EXPECT_EQ(formatUtc(0), "1970-01-01T00:00:00.000000000Z");
    EXPECT_EQ(formatUtc(1690417193156666511), "2023-07-27T00:19:53.156666511Z");
    EXPECT_EQ(formatUtc(1709164800000000000), "2024-02-29T00:00:00.000000000Z");
    EXPECT_EQ(formatUtc(951868799999999999), "2000-02-29T23:59:59.999999999Z");
    EXPECT_EQ(formatUtc(-1), "1969-12-31T23:59:59.999999999Z");
}

TEST(OutputRecordTest, WritesNullsEscapesAndArraysInJsonAndCsv) {
    Record record;
    record.text("name", "a \"b\",\\c\n")
        .number("x_V", 230.0)
        .number("missing_A", std::nullopt)
        .number("nan_pct", std::nan(""))
        .integer("n", -3)
        .boolean("ok", true)
        .texts("phases", {"HV Bus VR", "HV Bus VT"})
        .numbers("h_V", std::vector<std::optional<double>>{1.5, std::nullopt})
        .numbers("h_A", std::nullopt)
        .records("parts", {Record().text("phase", "L1")});
    EXPECT_EQ(record.json(),
              "{\"name\":\"a \\\"b\\\",\\\\c\\u000a\",\"x_V\":230.0,\"missing_A\":null,\"nan_pct\":null,\"n\":-3,"
              "\"ok\":true,\"phases\":[\"HV Bus VR\",\"HV Bus "
              "VT\"],\"h_V\":[1.5,null],\"h_A\":null,\"parts\":[{\"phase\":\"L1\"}]}");
    // Arrays stay out of CSV rows whether they hold values or not, so every row has the header's columns.
    EXPECT_EQ(record.csvHeader(), "name,x_V,missing_A,nan_pct,n,ok,phases");
    EXPECT_EQ(record.csvRow(), "\"a \"\"b\"\",\\c\n\",230.0,,,-3,true,HV Bus VR;HV Bus VT");
}
