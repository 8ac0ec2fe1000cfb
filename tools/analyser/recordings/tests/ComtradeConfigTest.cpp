// The configuration parser: the three revisions' layouts, the liberties real
// files take, and messages with line numbers for malformed ones.
#include <gtest/gtest.h>

#include <sstream>

#include "RecordingTestSupport.h"
#include "recordings/ComtradeConfig.h"
#include "recordings/RecordingError.h"

using namespace tarnel::recordings;
using namespace recordings_test;

namespace {

ComtradeConfig parse(const std::string& text) {
    std::istringstream in(text);
    return parseComtradeConfig(in, "x.cfg");
}

TEST(ComtradeConfig, ReadsThe1999Layout) {
    GeneratedComtrade recording;
    recording.analogs[0].primary = 20000;
    recording.analogs[0].secondary = 100;
    recording.analogs[0].side = 'S';
    recording.rates = {{4000.0, 100}, {1234.5678, 160}};
    const ComtradeConfig config = parse(cfgText(recording));
    EXPECT_EQ(config.revision, 1999);
    ASSERT_EQ(config.analogs.size(), 2u);
    EXPECT_EQ(config.digitalCount, 3u);
    EXPECT_DOUBLE_EQ(config.analogs[1].a, 0.002);
    EXPECT_DOUBLE_EQ(config.analogs[1].b, -0.1);
    EXPECT_DOUBLE_EQ(config.analogs[0].primary / config.analogs[0].secondary, 200.0);
    EXPECT_TRUE(config.analogs[0].secondarySide);
    EXPECT_FALSE(config.analogs[1].secondarySide);
    EXPECT_DOUBLE_EQ(config.lineFrequency, 50.0);
    ASSERT_EQ(config.rates.size(), 2u);
    EXPECT_DOUBLE_EQ(config.rates[1].sampleRate, 1234.5678);
    EXPECT_EQ(config.totalSamples(), 160u);
    EXPECT_EQ(config.dataType, ComtradeDataType::Ascii);
    EXPECT_DOUBLE_EQ(config.timestampUnit, 1e-6);
    recording.revision = "2000";  // years between revisions read as the earlier layout
    EXPECT_EQ(parse(cfgText(recording)).revision, 1999);
}

TEST(ComtradeConfig, ReadsThe1991LayoutWithoutRatiosOrMultiplier) {
    GeneratedComtrade recording;
    recording.revision = "";
    recording.dataType = "BINARY";
    const ComtradeConfig config = parse(cfgText(recording));
    EXPECT_EQ(config.revision, 1991);
    EXPECT_EQ(config.dataType, ComtradeDataType::Binary);
    EXPECT_EQ(config.analogs[0].primary, config.analogs[0].secondary);
    EXPECT_FALSE(config.analogs[0].secondarySide);
}

TEST(ComtradeConfig, TakesTheTimestampUnitFromTheStartTimeAndMultiplier) {
    const std::string cfg =
        "\xEF\xBB\xBFst , dev , 2013 \n 1 , 1A , 0D \n1, U ,,, kV, 1.5E-01 , , , , \n60\n0\n0,10\n"
        "27/07/2023,09:19:53.156666511\n27/07/2023,09:19:54.156602167\nfloat32\n2.5\n+9,+9\n0,0\n";
    const ComtradeConfig config = parse(cfg);
    EXPECT_EQ(config.revision, 2013);
    EXPECT_EQ(config.analogs[0].name, "U");
    EXPECT_DOUBLE_EQ(config.analogs[0].a, 0.15);
    EXPECT_EQ(config.analogs[0].b, 0.0);  // empty offset
    EXPECT_EQ(config.dataType, ComtradeDataType::Float32);
    EXPECT_DOUBLE_EQ(config.timestampUnit, 2.5e-9);
    EXPECT_EQ(config.rates[0].sampleRate, 0.0);  // nrates 0: timing from the time stamps
    EXPECT_EQ(config.timeCode, "+9");
}

struct Malformed {
    std::string from, to;  // replaced in a valid configuration
    std::string expected;  // in the message
};

class MalformedConfig : public ::testing::TestWithParam<Malformed> {};

TEST_P(MalformedConfig, NamesTheFileLineAndProblem) {
    std::string cfg = cfgText(GeneratedComtrade());
    const size_t at = cfg.find(GetParam().from);
    ASSERT_NE(at, std::string::npos);
    cfg.replace(at, GetParam().from.size(), GetParam().to);
    const std::string message = errorOf([&] { parse(cfg); });
    EXPECT_NE(message.find(GetParam().expected), std::string::npos) << message;
}

INSTANTIATE_TEST_SUITE_P(
    Cases, MalformedConfig,
    ::testing::Values(
        Malformed{"5,2A,3D", "6,2A,3D", "x.cfg:2: inconsistent channel counts: 6 in total"},
        Malformed{"5,2A,3D", "5,2,3D", "x.cfg:2: analog channel count '2' should end in 'A'"},
        Malformed{"2,IA,A,,A,0.002", "2,IA,A,,A,zero", "x.cfg:4: analog channel 2 multiplier 'zero'"},
        Malformed{"2,IA,A,,A,0.002,", "2,IA,A,,A,0.002\r\n#",
                  "x.cfg:4: analog channel 2: expected at least 10 fields, found 6"},
        Malformed{"rig,1999", "rig,1985", "x.cfg:1: unknown revision year '1985'"},
        Malformed{"\r\nASCII", "\r\nBINARY64", "x.cfg:13: unknown data type 'BINARY64'"},
        Malformed{"1000,200", "-1000,200", "x.cfg:10: sample rate 1 is negative"},
        Malformed{"50\r\n1\r\n", "50\r\none\r\n", "x.cfg:9: number of sample rates 'one'"},
        Malformed{"1\r\n1000,200", "2\r\n1000,200\r\n500,150", "x.cfg:11: sample rate 2 ends at sample 150"},
        Malformed{"01/02/2024,10:00:00.100000\r\nASCII\r\n1\r\n", "", "x.cfg:12: ends before the trigger time"}));

// A configuration cut short anywhere, or with any line damaged, is a clear
// error or a valid configuration, never anything else.
TEST(ComtradeConfig, SurvivesTruncationAndDamageAnywhere) {
    const std::string cfg = cfgText(GeneratedComtrade());
    std::mt19937 random(7);
    for (size_t cut = 0; cut < cfg.size(); cut += 3) {
        std::string damaged = cfg.substr(0, cut);
        if (cut % 2) damaged += std::string(1, static_cast<char>(random() % 256)) + cfg.substr(cut + 1);
        try {
            parse(damaged);
        } catch (const RecordingError& e) {
            EXPECT_EQ(std::string(e.what()).find('\n'), std::string::npos);
        }
    }
}

}  // namespace
