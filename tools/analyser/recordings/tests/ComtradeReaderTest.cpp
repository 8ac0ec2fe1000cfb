// The COMTRADE reader on generated recordings: every data type and revision,
// .cff files, ratios and units, rate sections, and the quirks of real files.
#include <gtest/gtest.h>

#include "RecordingTestSupport.h"
#include "recordings/ComtradeReader.h"
#include "recordings/OpenRecording.h"
#include "recordings/RecordingError.h"

using namespace tarnel::recordings;
using namespace recordings_test;

namespace {

// Every delivered value against the sine it was written from; the tolerance
// is half a quantisation step (none for FLOAT32 beyond float rounding).
void expectSines(const GeneratedComtrade& recording, const std::vector<float>& values, uint64_t first, uint64_t count,
                 const std::vector<double>& factors = {1.0, 1.0}) {
    const size_t channels = recording.analogs.size();
    ASSERT_EQ(values.size(), count * channels);
    for (uint64_t k = 0; k < count; ++k)
        for (size_t c = 0; c < channels; ++c) {
            const double step = recording.dataType == "FLOAT32" ? 0.0 : recording.analogs[c].a / 2;
            const double expected = recorded(recording, c, first + k) * factors[c];
            ASSERT_NEAR(values[k * channels + c], expected, (step + 1e-6 * recording.analogs[c].amplitude) * factors[c])
                << "sample " << first + k << " channel " << c;
        }
}

class EveryDataType : public ::testing::TestWithParam<std::tuple<std::string, std::string>> {};

TEST_P(EveryDataType, DeliversTheScaledSamples) {
    TempDir dir;
    GeneratedComtrade recording;
    std::tie(recording.revision, recording.dataType) = GetParam();
    recording.analogs[1].amplitude = 1.4;  // 0.0014 kA: the unit converts to amperes
    recording.analogs[1].unit = "kA";
    recording.analogs[1].a = 0.0002;
    ComtradeReader reader(writeComtrade(dir, recording), {});
    const RecordingMetadata& meta = reader.metadata();
    EXPECT_EQ(meta.totalSamples, 200u);
    EXPECT_EQ(meta.uniformSampleRate(), 1000.0);
    EXPECT_EQ(meta.channels[1].unit, "A");
    EXPECT_EQ(meta.channels[1].kind, ChannelKind::Current);
    EXPECT_EQ(meta.channels[0].kind, ChannelKind::Voltage);
    EXPECT_EQ(meta.nominalFrequency, 50.0);
    expectSines(recording, readAll(reader), 0, 200, {1.0, 1000.0});
}

INSTANTIATE_TEST_SUITE_P(Formats, EveryDataType,
                         ::testing::Values(std::make_tuple("", "ASCII"), std::make_tuple("1991", "BINARY"),
                                           std::make_tuple("1999", "ASCII"), std::make_tuple("1999", "BINARY"),
                                           std::make_tuple("2013", "BINARY32"), std::make_tuple("2013", "FLOAT32")));

TEST(ComtradeReader, ConvertsToThePrimaryOrSecondarySide) {
    TempDir dir;
    GeneratedComtrade recording;
    recording.dataType = "BINARY";
    recording.analogs[0] = {"VA", "A", "V", 0.005, 0.0, 100.0, 0.0, 20000.0, 100.0, 'S'};  // VT 20 kV : 100 V
    recording.analogs[1] = {"IA", "A", "A", 0.01, 0.0, 300.0, 0.0, 600.0, 5.0, 'P'};       // CT 600 A : 5 A
    const std::string path = writeComtrade(dir, recording);
    ComtradeReader primary(path, {});
    expectSines(recording, readAll(primary), 0, 200, {200.0, 1.0});
    RecordingOptions options;
    options.secondary = true;
    ComtradeReader secondary(path, options);
    expectSines(recording, readAll(secondary), 0, 200, {1.0, 5.0 / 600.0});
}

TEST(ComtradeReader, ReadsCombinedFiles) {
    for (const std::string type : {"ASCII", "BINARY"}) {
        TempDir dir;
        GeneratedComtrade recording;
        recording.revision = "2013";
        recording.dataType = type;
        const std::string data = datBytes(recording);
        const std::string marker = type == "ASCII"
                                       ? "--- file type: DAT ASCII ---\r\n"
                                       : "--- file type: DAT BINARY: " + std::to_string(data.size()) + " ---\r\n";
        const std::string cff = "--- file type: CFG ---\r\n" + cfgText(recording) +
                                "--- file type: INF ---\r\n[x]\r\n" + "--- file type: HDR ---\r\nfree text\r\n" +
                                marker + data;
        const std::unique_ptr<RecordingReader> reader = openRecording(dir.write("rec.cff", cff));
        expectSines(recording, readAll(*reader), 0, 200);
    }
}

TEST(ComtradeReader, DeliversRateSectionsWholeOrOneByOne) {
    TempDir dir;
    GeneratedComtrade recording;
    recording.rates = {{4000.0, 80}, {2000.0, 130}, {1000.0, 200}};
    const std::string path = writeComtrade(dir, recording);
    ComtradeReader whole(path, {});
    const std::vector<SampleSection>& sections = whole.metadata().sections;
    ASSERT_EQ(sections.size(), 3u);
    EXPECT_EQ(sections[1].sampleRate, 2000.0);
    EXPECT_EQ(sections[1].firstSample, 80u);
    EXPECT_EQ(sections[1].sampleCount, 50u);
    EXPECT_NE(errorOf([&] { whole.metadata().uniformSampleRate(); }).find("3 sample-rate sections (1000 to 4000 Hz)"),
              std::string::npos);
    expectSines(recording, readAll(whole), 0, 200);

    RecordingOptions options;
    options.section = 2;
    ComtradeReader second(path, options);
    EXPECT_EQ(second.metadata().uniformSampleRate(), 2000.0);
    EXPECT_EQ(second.metadata().totalSamples, 50u);
    expectSines(recording, readAll(second, 1000), 80, 50);

    options.section = 4;
    EXPECT_NE(errorOf([&] { ComtradeReader(path, options); }).find("no sample-rate section 4 (it has 3)"),
              std::string::npos);
}

TEST(ComtradeReader, AcceptsTheQuirksOfRealFiles) {
    for (const std::string type : {"ASCII", "BINARY"}) {
        TempDir dir;
        GeneratedComtrade recording;
        recording.dataType = type;
        recording.missingTimes = true;
        recording.rates = {{7678.4833984375, 200}};
        std::string data = datBytes(recording);
        if (type == "ASCII") {
            // Blank lines between samples and a trailing comma on one.
            for (size_t at = data.find("\r\n"); at != std::string::npos; at = data.find("\r\n", at + 4))
                data.insert(at, "\r\n");
            data.insert(data.find("\r\n"), ",");
        }
        dir.write("REC.DAT", data + "garbage after the last sample\x1A\x1A\x1A");
        const std::string cfg = dir.write("REC.CFG", cfgText(recording));
        ComtradeReader reader(cfg, {});
        EXPECT_DOUBLE_EQ(reader.metadata().uniformSampleRate(), 7678.4833984375);
        expectSines(recording, readAll(reader, 64), 0, 200);
        EXPECT_EQ(openRecording(dir.file("REC.DAT"))->metadata().totalSamples, 200u);  // opened through the .dat
    }
}

TEST(ComtradeReader, TakesTheRateFromTimeStampsWhenTheConfigurationHasNone) {
    TempDir dir;
    GeneratedComtrade recording;
    recording.dataType = "BINARY32";
    std::string cfg = cfgText(recording);
    const std::string oneRate = "\r\n1\r\n1000,200";
    cfg.replace(cfg.find(oneRate), oneRate.size(), "\r\n0\r\n0,200");
    dir.write("rec.dat", datBytes(recording));
    ComtradeReader reader(dir.write("rec.cfg", cfg), {});
    EXPECT_NEAR(reader.metadata().uniformSampleRate(), 1000.0, 1e-3);
    expectSines(recording, readAll(reader), 0, 200);
}

}  // namespace
