// Reads a CSV recording: a header row naming the columns, then one row per
// sample. Columns are separated by ',', ';' or tabs (whichever the header
// uses); with ';' or tabs a decimal comma is accepted. An optional column
// named time, t, timestamp or seconds gives the sample rate (unit in brackets:
// s, ms, us, ns); a unit in a column's header, "Va [kV]", scales it to volts
// or amperes. Every other column is a channel.
#pragma once

#include <fstream>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "recordings/RecordingReader.h"
#include "recordings/TextParsing.h"

namespace tarnel::recordings {

class CsvReader : public RecordingReader {
  public:
    CsvReader(const std::string& path, const RecordingOptions& options);
    const RecordingMetadata& metadata() const override { return meta; }
    size_t readChunk(float* out, size_t maxSamples) override;

  private:
    void parseHeader();
    void describeColumn(std::string_view header, size_t column);
    void scanRows(const RecordingOptions& options);
    double sampleRateFromTimes(uint64_t rows, double first, double last) const;
    std::vector<std::string_view> rowFields(const std::string& row, size_t lineNumber) const;
    double value(std::string_view field, size_t column, size_t lineNumber) const;

    std::ifstream in;
    LineReader lines;
    char delimiter = ',';
    size_t columnCount = 0;
    std::vector<std::string> columnNames;
    std::optional<size_t> timeColumn;
    double timeFactor = 1.0;  // seconds per unit of the time column
    std::vector<size_t> channelColumns;
    RecordingMetadata meta;
    uint64_t delivered = 0;
    std::string line;
};

}  // namespace tarnel::recordings
