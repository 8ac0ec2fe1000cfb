// The common interface of every recording reader: what the recording holds and
// its samples, chunk by chunk, as physical values.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace tarnel::recordings {

enum class ChannelKind { Voltage, Current, Other };

struct ChannelInfo {
    std::string name;
    std::string phase;  // phase identifier as recorded; empty when the format has none
    std::string unit;   // unit of the values delivered: "V" and "A" for voltages and currents
    ChannelKind kind = ChannelKind::Other;
    // Delivered value = scale * stored value + offset, unit and ratio conversions included.
    double scale = 1.0;
    double offset = 0.0;
};

// A stretch of samples taken at one rate; sample indices count from the first
// sample delivered by readChunk.
struct SampleSection {
    double sampleRate = 0.0;
    uint64_t firstSample = 0;
    uint64_t sampleCount = 0;
};

struct RecordingMetadata {
    std::string fileName;   // as given by the caller, for messages
    std::string format;     // e.g. "COMTRADE 1999 ASCII", "CSV", "WAV 16-bit PCM"
    std::string startTime;  // as recorded; empty when the format has none
    // The first sample's time in nanoseconds since 1970-01-01 UTC; empty when unknown.
    std::optional<int64_t> startUtcNanoseconds;
    bool startTimeZoneStated = false;  // false: the recorded clock time was taken as UTC
    double nominalFrequency = 0.0;     // 0 when the recording does not say
    std::vector<ChannelInfo> channels;
    std::vector<SampleSection> sections;  // at least one
    uint64_t totalSamples = 0;

    // The sample rate of a recording with one section; throws RecordingError
    // naming the sections otherwise, since one rate cannot describe them.
    double uniformSampleRate() const;
};

struct RecordingOptions {
    bool secondary = false;            // COMTRADE: secondary-side values instead of primary
    std::optional<size_t> section;     // COMTRADE: deliver only this sample-rate section (1-based)
    std::optional<double> sampleRate;  // CSV (and COMTRADE without one): the rate to use
    double wavFullScale = 1.0;         // WAV: the physical value of digital full scale
};

class RecordingReader {
  public:
    virtual ~RecordingReader() = default;
    virtual const RecordingMetadata& metadata() const = 0;
    // Reads up to maxSamples samples of every channel into `out`, interleaved
    // (sample-major: out[k * channels + c]); `out` holds maxSamples * channels
    // floats. Returns the samples read, 0 at the end. Memory stays bounded
    // whatever maxSamples is. Throws RecordingError for bad or truncated data.
    virtual size_t readChunk(float* out, size_t maxSamples) = 0;
};

}  // namespace tarnel::recordings
