// The CSV reader: rates from a time column or the options, units in headers,
// the separators and decimal commas of spreadsheet exports.
#include <gtest/gtest.h>

#include <sstream>

#include "RecordingTestSupport.h"
#include "recordings/CsvReader.h"

using namespace tarnel::recordings;
using namespace recordings_test;

namespace {

// Rows of time, a sine in kV and one in A; times printed rounded to microseconds so
// that only the mean step gives the exact rate.
std::string sineCsv(size_t rows, double rate, char separator, bool decimalComma) {
    std::ostringstream csv;
    csv << "\"Time [ms]\"" << separator << "U L1 [kV]" << separator << "I1\r\n";
    for (size_t n = 0; n < rows; ++n) {
        char line[96];
        std::snprintf(line, sizeof line, "%.3f%c%.6f%c%.4f\r\n", 1000.0 * static_cast<double>(n) / rate, separator,
                      0.325 * std::sin(2 * kPi * static_cast<double>(n) / 20), separator,
                      14.0 * std::cos(2 * kPi * static_cast<double>(n) / 20));
        std::string text = line;
        if (decimalComma)
            for (char& c : text)
                if (c == '.') c = ',';
        csv << text << (n == rows / 2 ? "\r\n" : "");  // and a blank line
    }
    return csv.str();
}

TEST(CsvReader, ReadsTimeUnitsSeparatorsAndDecimalCommas) {
    for (const auto& [separator, decimalComma] :
         {std::pair{',', false}, std::pair{';', true}, std::pair{'\t', false}}) {
        TempDir dir;
        CsvReader reader(dir.write("x.csv", sineCsv(300, 3000.0, separator, decimalComma)), {});
        const RecordingMetadata& meta = reader.metadata();
        ASSERT_EQ(meta.channels.size(), 2u);
        EXPECT_EQ(meta.channels[0].name, "U L1");
        EXPECT_EQ(meta.channels[0].kind, ChannelKind::Voltage);
        EXPECT_EQ(meta.channels[0].unit, "V");
        EXPECT_EQ(meta.channels[1].kind, ChannelKind::Current);  // from the name alone
        EXPECT_EQ(meta.totalSamples, 300u);
        EXPECT_NEAR(meta.uniformSampleRate(), 3000.0, 3000.0 * 1e-4);
        const std::vector<float> values = readAll(reader, 64);
        ASSERT_EQ(values.size(), 600u);
        for (size_t n = 0; n < 300; ++n) {
            ASSERT_NEAR(values[2 * n], 325.0 * std::sin(2 * kPi * static_cast<double>(n) / 20), 1e-3);
            ASSERT_NEAR(values[2 * n + 1], 14.0 * std::cos(2 * kPi * static_cast<double>(n) / 20), 1e-4);
        }
    }
}

TEST(CsvReader, TakesTheRateFromTheOptionsWithoutATimeColumn) {
    TempDir dir;
    RecordingOptions options;
    options.sampleRate = 12800.0;
    CsvReader reader(dir.write("x.csv", "Va,Vb,Vc,\n1,2,3,\n4,5,6\n"), options);  // trailing separators
    EXPECT_EQ(reader.metadata().uniformSampleRate(), 12800.0);
    EXPECT_EQ(readAll(reader), (std::vector<float>{1, 2, 3, 4, 5, 6}));
}

}  // namespace
