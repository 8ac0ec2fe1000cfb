// Public recordings of real events: four recorders, three revisions, ASCII
// and FLOAT32, 83 rate sections, kV channels. Expected values come from the
// files' own numbers and from the systems' known voltages.
#include <gtest/gtest.h>

#include "RecordingTestSupport.h"
#include "recordings/ChannelMapping.h"
#include "recordings/ComtradeReader.h"
#include "recordings/OpenRecording.h"

using namespace tarnel::recordings;
using namespace recordings_test;

namespace {

using Indices = std::vector<size_t>;

class RealRecords : public ::testing::Test {
  protected:
    static std::string path(const std::string& relative) {
        return std::string(TARNEL_COMTRADE_DATA_DIR) + "/" + relative;
    }

    static std::vector<float> readFirst(RecordingReader& reader, size_t samples) {
        std::vector<float> values(samples * reader.metadata().channels.size());
        EXPECT_EQ(reader.readChunk(values.data(), samples), samples);
        return values;
    }

    static double rms(const std::vector<float>& values, size_t channels, size_t channel) {
        double sum = 0.0;
        const size_t samples = values.size() / channels;
        for (size_t k = 0; k < samples; ++k)
            sum += double(values[k * channels + channel]) * values[k * channels + channel];
        return std::sqrt(sum / static_cast<double>(samples));
    }
};

TEST_F(RealRecords, PowerQualityMeterWithNonIntegerRate) {
    ComtradeReader reader(path("pq_meter_dip_60Hz/1999-ascii-pq.cfg"), {});
    const RecordingMetadata& meta = reader.metadata();
    EXPECT_EQ(meta.format, "COMTRADE 1999 ASCII");
    EXPECT_EQ(meta.totalSamples, 3584u);
    EXPECT_DOUBLE_EQ(meta.uniformSampleRate(), 7678.4833984375);
    const ChannelMap map = mapChannels(meta, {});
    EXPECT_EQ(map.gridType, 1);
    EXPECT_EQ(map.voltages, (Indices{3, 4, 5}));
    EXPECT_EQ(map.currents, (Indices{0, 1, 2}));
    EXPECT_EQ(map.nominalFrequency, 60.0);
    const std::vector<float> cycle = readFirst(reader, 128);
    // First line "1,-41663,67707,12085,65964,57756,..." through a and b of the .cfg.
    EXPECT_NEAR(cycle[0], 0.00618221921336894 * 67707 - 317.518127441406, 1e-3);
    EXPECT_NEAR(cycle[3], 0.231206244021046 * 57756 - 11241.396484375, 1e-3);
    EXPECT_NEAR(rms(cycle, 6, 3), 7870.0, 400.0);  // 13.6 kV-class feeder before the dip
}

TEST_F(RealRecords, FrequencyTrackingRecorderWith83RateSections) {
    const std::string cfg = path("earthfault_swell_multirate_50Hz/1.cfg");
    ComtradeReader primary(cfg, {});
    const RecordingMetadata& meta = primary.metadata();
    ASSERT_EQ(meta.sections.size(), 83u);
    EXPECT_DOUBLE_EQ(meta.sections[0].sampleRate, 2401.509521);
    EXPECT_EQ(meta.sections[0].sampleCount, 708u);
    EXPECT_EQ(meta.sections[82].firstSample + meta.sections[82].sampleCount, 5316u);
    EXPECT_NE(errorOf([&] { meta.uniformSampleRate(); }).find("83 sample-rate sections"), std::string::npos);
    const ChannelMap map = mapChannels(meta, {});
    EXPECT_EQ(map.voltages, (Indices{0, 1, 2}));  // UA UB UC, not 3U0
    EXPECT_TRUE(map.currents.empty());
    EXPECT_EQ(map.nominalFrequency, 50.0);

    RecordingOptions options;
    options.secondary = true;
    ComtradeReader secondary(cfg, options);
    const std::vector<float> primaryCycle = readFirst(primary, 48), secondaryCycle = readFirst(secondary, 48);
    EXPECT_NEAR(secondaryCycle[0], -3188 * 0.016552, 1e-4);      // recorded on the secondary side
    EXPECT_NEAR(primaryCycle[0], -3188 * 0.016552 * 100, 1e-2);  // VT 100:1
    EXPECT_NEAR(rms(secondaryCycle, 4, 0), 100.0 / std::sqrt(3.0), 6.0);

    options.section = 2;
    ComtradeReader second(cfg, options);
    EXPECT_DOUBLE_EQ(second.metadata().uniformSampleRate(), 2400.823242);
    EXPECT_EQ(readAll(second, 1000).size(), 24u * 4);
}

TEST_F(RealRecords, TransformerRelayFloat32WithNanosecondStamps) {
    ComtradeReader reader(path("ret670_breaker_open_2013_float32/Comtrade1.cfg"), {});
    EXPECT_EQ(reader.configuration().digitalCount, 140u);
    EXPECT_DOUBLE_EQ(reader.configuration().timestampUnit, 1e-9);
    const RecordingMetadata& meta = reader.metadata();
    EXPECT_EQ(meta.channels.size(), 23u);
    EXPECT_EQ(meta.uniformSampleRate(), 1200.0);
    const ChannelMap map = mapChannels(meta, {});
    EXPECT_EQ(map.voltages, (Indices{5, 6, 7}));  // HV Bus VR VS VT
    EXPECT_EQ(map.currents, (Indices{0, 1, 2}));  // HV IR IS IT
    const std::vector<float> cycle = readFirst(reader, 20);
    EXPECT_EQ(cycle[0], 233.04701232910156f);  // the first record's bytes 09 0c 69 43
    EXPECT_NEAR(rms(cycle, 23, 5), 130400.0, 3000.0);
}

TEST_F(RealRecords, LineRelay1991WithKilovoltChannels) {
    ComtradeReader reader(path("sel311l_CG_fault_1991/1991-ascii-sel.cfg"), {});
    EXPECT_EQ(reader.configuration().revision, 1991);
    const RecordingMetadata& meta = reader.metadata();
    EXPECT_EQ(meta.channels.size(), 24u);
    EXPECT_EQ(meta.totalSamples, 480u);
    EXPECT_EQ(meta.channels[5].unit, "V");
    const ChannelMap map = mapChannels(meta, {});
    EXPECT_EQ(map.gridType, 1);
    EXPECT_EQ(map.voltages, (Indices{5, 6, 7}));  // VA VB VC, not the sync voltage VS
    EXPECT_EQ(map.currents, (Indices{0, 1, 2}));
    EXPECT_NEAR(rms(readFirst(reader, 16), 24, 5), 28700.0, 1500.0);  // pre-fault phase voltage, in volts
}

TEST_F(RealRecords, ReadToTheEndThroughTheFactory) {
    for (const char* relative :
         {"pq_meter_dip_60Hz/1999-ascii-pq.cfg", "earthfault_swell_multirate_50Hz/1.dat",
          "ret670_breaker_open_2013_float32/Comtrade1.cfg", "sel311l_CG_fault_1991/1991-ascii-sel.cfg"}) {
        SCOPED_TRACE(relative);
        const std::unique_ptr<RecordingReader> reader = openRecording(path(relative));
        const std::vector<float> values = readAll(*reader, 1000);
        EXPECT_EQ(values.size(), reader->metadata().totalSamples * reader->metadata().channels.size());
        float chunk[64];
        EXPECT_EQ(reader->readChunk(chunk, 1), 0u);
    }
}

}  // namespace
