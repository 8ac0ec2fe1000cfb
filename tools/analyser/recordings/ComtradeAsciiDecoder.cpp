#include "recordings/ComtradeAsciiDecoder.h"

#include <cmath>

#include "recordings/RecordingError.h"

namespace tarnel::recordings {

ComtradeAsciiDecoder::ComtradeAsciiDecoder(std::ifstream input, const ComtradeConfig& config,
                                           const ComtradeSource& source)
    : in(std::move(input)),
      lines(in, source.dataLinesBefore),
      fileName(source.dataName),
      analogCount(config.analogs.size()),
      fieldCount(2 + config.analogs.size() + config.digitalCount) {}

size_t ComtradeAsciiDecoder::decode(double* values, double* times, size_t maxRecords) {
    size_t decoded = 0;
    while (decoded < maxRecords && nextSampleLine()) {
        decodeLine(values + decoded * analogCount, times[decoded]);
        ++decoded;
    }
    return decoded;
}

// Skips blank lines (some recorders separate samples by them) and the 0x1A
// end-of-file marks that old tools append.
bool ComtradeAsciiDecoder::nextSampleLine() {
    while (lines.next(line)) {
        const std::string_view text = trim(line);
        if (text.find_first_not_of('\x1A') != std::string_view::npos) return true;
    }
    return false;
}

void ComtradeAsciiDecoder::decodeLine(double* values, double& time) {
    std::vector<std::string_view> fields = splitFields(line, ',');
    if (fields.size() == fieldCount + 1 && fields.back().empty()) fields.pop_back();  // a trailing comma
    if (fields.size() != fieldCount)
        throw RecordingError(fileName, lines.lineNumber(),
                             std::to_string(fields.size()) + " values, but the configuration declares " +
                                 std::to_string(fieldCount - 2) + " channels plus sample number and time");
    // The time field may be empty when the sample rate carries the timing.
    const std::optional<double> stamp = parseNumber(fields[1]);
    if (!stamp && !fields[1].empty())
        throw RecordingError(fileName, lines.lineNumber(), "time '" + std::string(fields[1]) + "' is not a number");
    time = stamp ? *stamp : NAN;
    for (size_t c = 0; c < analogCount; ++c) {
        const std::optional<double> value = parseNumber(fields[2 + c]);
        if (!value)
            throw RecordingError(
                fileName, lines.lineNumber(),
                "analog value " + std::to_string(c + 1) + " '" + std::string(fields[2 + c]) + "' is not a number");
        values[c] = *value;
    }
}

}  // namespace tarnel::recordings
