// The WAV reader on every supported sample format.
#include <gtest/gtest.h>

#include "RecordingTestSupport.h"
#include "recordings/WavReader.h"

using namespace tarnel::recordings;
using namespace recordings_test;

namespace {

struct WavFormat {
    uint16_t tag;
    unsigned bits;
    bool extensible;
};

class EveryWavFormat : public ::testing::TestWithParam<WavFormat> {};

TEST_P(EveryWavFormat, DeliversFullScaleFractionsTimesTheScale) {
    const WavFormat format = GetParam();
    std::vector<std::vector<double>> frames;
    for (size_t n = 0; n < 500; ++n) {
        const double x = 2 * kPi * static_cast<double>(n) / 20;
        frames.push_back({0.9 * std::sin(x), -0.5 * std::cos(x), n == 0 ? -1.0 : 0.25});
    }
    TempDir dir;
    RecordingOptions options;
    options.wavFullScale = 400.0;
    WavReader reader(dir.write("x.wav", wavBytes(format.tag, format.bits, 48000.0, frames, format.extensible, true)),
                     options);
    EXPECT_EQ(reader.metadata().channels.size(), 3u);
    EXPECT_EQ(reader.metadata().totalSamples, 500u);
    EXPECT_EQ(reader.metadata().uniformSampleRate(), 48000.0);
    const std::vector<float> values = readAll(reader, 33);
    ASSERT_EQ(values.size(), 1500u);
    const double step = format.tag == 3 ? 1e-6 : std::ldexp(1.0, 1 - static_cast<int>(format.bits));
    // Quantisation, plus the rounding of the float delivered.
    for (size_t k = 0; k < values.size(); ++k)
        ASSERT_NEAR(values[k], 400.0 * frames[k / 3][k % 3], 400.0 * (step + 1e-7)) << k;
    EXPECT_EQ(values[2], -400.0f);  // negative full scale is exact
}

INSTANTIATE_TEST_SUITE_P(Formats, EveryWavFormat,
                         ::testing::Values(WavFormat{1, 16, false}, WavFormat{1, 24, false}, WavFormat{1, 32, true},
                                           WavFormat{3, 32, false}, WavFormat{3, 32, true}));

}  // namespace
