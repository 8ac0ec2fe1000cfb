// What the analyser reads: a recording's channels, already mapped to the
// module's grid, delivered in chunks of physical values.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace tarnel::analyser {

struct SourceChannel {
    std::string name;
    std::string unit;  // "V" or "A"
};

enum class NominalSource {
    Given,      // by the user
    Recording,  // stated by the recording (e.g. a COMTRADE line frequency)
    Estimated,  // estimated from the samples
    Assumed,    // neither given nor measurable: a default
};

inline const char* nominalSourceName(NominalSource source) {
    switch (source) {
        case NominalSource::Given:
            return "given";
        case NominalSource::Recording:
            return "from the recording";
        case NominalSource::Estimated:
            return "estimated";
        case NominalSource::Assumed:
            return "assumed";
    }
    return "";
}

enum class PhaseRotation { Unknown, Forward, Reverse };  // L1-L2-L3 or L1-L3-L2

struct SourceInfo {
    std::string description;  // file name or "built-in synthetic recording"
    std::string sourceFile;   // the recording's path as given; empty for the synthetic recording
    std::string format;       // e.g. "COMTRADE 1999 ASCII"; empty for the synthetic recording
    // The first sample's time in nanoseconds since 1970-01-01 UTC; empty when the recording has none.
    std::optional<int64_t> startUtcNanoseconds;
    bool startTimeZoneStated = false;  // false: the recorded clock time was taken as UTC
    double sampleRate = 0.0;
    uint64_t totalSamples = 0;  // 0 when unknown
    int gridType = 0;           // PowerGridConfigType
    double nominalVoltage = 230.0;
    double nominalFrequency = 50.0;
    // Where the nominal values come from: the user, the recording's own
    // statement, or estimates from the samples (see SignalEstimates.h).
    NominalSource nominalVoltageSource = NominalSource::Given;
    NominalSource nominalFrequencySource = NominalSource::Given;
    // Fundamental frequency measured over the first seconds, Hz; 0 when unknown.
    double measuredFrequency = 0.0;
    // How the samples were put onto one rate; empty when they were recorded at one.
    std::string resampling;
    std::vector<SourceChannel> voltages;  // in phase order, as the grid expects them
    std::vector<SourceChannel> currents;
};

class SignalSource {
  public:
    virtual ~SignalSource() = default;
    virtual const SourceInfo& info() const = 0;
    // Reads up to `count` samples of every channel: voltages[c][k] and
    // currents[c][k]. Returns the samples read; 0 at the end.
    virtual size_t read(std::vector<std::vector<float>>& voltages, std::vector<std::vector<float>>& currents,
                        size_t count) = 0;
};

}  // namespace tarnel::analyser
