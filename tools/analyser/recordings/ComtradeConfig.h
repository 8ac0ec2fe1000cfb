// The contents of a COMTRADE configuration (.cfg) that the readers need, and
// its parser. Digital (status) channels are counted but not described: the
// analysis has no use for them.
#pragma once

#include <cstddef>
#include <cstdint>
#include <istream>
#include <string>
#include <vector>

namespace tarnel::recordings {

enum class ComtradeDataType { Ascii, Binary, Binary32, Float32 };

const char* dataTypeName(ComtradeDataType type);

struct ComtradeAnalogChannel {
    std::string name;
    std::string phase;
    std::string unit;
    double a = 1.0;  // recorded value = a * stored value + b, in `unit`
    double b = 0.0;
    // Transformer ratio primary:secondary and the side the values were
    // recorded on; 1:1 on the primary side when the file does not say (1991).
    double primary = 1.0;
    double secondary = 1.0;
    bool secondarySide = false;
};

struct ComtradeRate {
    double sampleRate = 0.0;  // 0: the timing is only in the timestamps
    uint64_t lastSample = 0;  // cumulative sample count at the end of this rate
};

struct ComtradeConfig {
    std::string station;
    int revision = 1991;  // the layout followed: 1991, 1999 or 2013
    std::vector<ComtradeAnalogChannel> analogs;
    size_t digitalCount = 0;
    double lineFrequency = 0.0;
    std::vector<ComtradeRate> rates;  // at least one
    std::string startTime;
    std::string timeCode;  // 2013: how far the recorded clock is ahead of UTC ("+9", "-5h30"); empty before
    ComtradeDataType dataType = ComtradeDataType::Ascii;
    double timestampUnit = 1e-6;  // seconds per count of the data's time field, multiplier included

    uint64_t totalSamples() const { return rates.empty() ? 0 : rates.back().lastSample; }
};

// Parses a configuration; `fileName` and the line numbers (counted on from
// lineNumberBefore, for a configuration inside a .cff) go into the
// RecordingError thrown for a malformed one.
ComtradeConfig parseComtradeConfig(std::istream& text, const std::string& fileName, size_t lineNumberBefore = 0);

}  // namespace tarnel::recordings
