#include "recordings/CsvReader.h"

#include <algorithm>

#include "recordings/FileInput.h"
#include "recordings/PhaseNames.h"
#include "recordings/RecordingError.h"
#include "recordings/Units.h"

namespace tarnel::recordings {

namespace {

std::string_view unquoted(std::string_view field) {
    if (field.size() >= 2 && field.front() == '"' && field.back() == '"')
        return trim(field.substr(1, field.size() - 2));
    return field;
}

// "Va [kV]" or "Va (kV)" gives {"Va", "kV"}; "Va" gives {"Va", ""}.
std::pair<std::string, std::string> splitUnit(std::string_view header) {
    if (header.empty() || (header.back() != ']' && header.back() != ')')) return {std::string(header), ""};
    const size_t open = header.find_last_of(header.back() == ']' ? '[' : '(');
    if (open == std::string_view::npos || open == 0) return {std::string(header), ""};
    return {std::string(trim(header.substr(0, open))),
            std::string(trim(header.substr(open + 1, header.size() - open - 2)))};
}

std::optional<double> timeUnitFactor(const std::string& unit) {
    const std::string upper = toUpper(unit);
    if (upper.empty() || upper == "S") return 1.0;
    if (upper == "MS") return 1e-3;
    if (upper == "US" || upper == "\xC2\xB5S" || upper == "\xCE\xBCS") return 1e-6;  // us, micro sign, Greek mu
    if (upper == "NS") return 1e-9;
    return std::nullopt;
}

bool isTimeName(const std::string& name) {
    const std::string upper = toUpper(name);
    return upper == "TIME" || upper == "T" || upper == "TIMESTAMP" || upper == "SECONDS";
}

bool nextRow(LineReader& reader, std::string& row) {
    while (reader.next(row))
        if (!trim(row).empty()) return true;
    return false;
}

}  // namespace

CsvReader::CsvReader(const std::string& path, const RecordingOptions& options) : in(openInput(path)), lines(in) {
    meta.fileName = path;
    meta.format = "CSV";
    parseHeader();
    scanRows(options);
}

void CsvReader::parseHeader() {
    if (!nextRow(lines, line)) throw RecordingError(meta.fileName, "empty file, expected a header row");
    // The separator the header uses most; a single column has none.
    delimiter = ',';
    size_t most = static_cast<size_t>(std::count(line.begin(), line.end(), ','));
    for (char candidate : {';', '\t'})
        if (static_cast<size_t>(std::count(line.begin(), line.end(), candidate)) > most) {
            delimiter = candidate;
            most = static_cast<size_t>(std::count(line.begin(), line.end(), candidate));
        }
    std::vector<std::string_view> headers = splitFields(line, delimiter);
    if (headers.size() > 1 && headers.back().empty()) headers.pop_back();  // a trailing separator
    columnCount = headers.size();
    for (size_t column = 0; column < headers.size(); ++column) describeColumn(unquoted(headers[column]), column);
    if (channelColumns.empty())
        throw RecordingError(meta.fileName, lines.lineNumber(), "no channel columns in the header");
}

void CsvReader::describeColumn(std::string_view header, size_t column) {
    const auto [name, unit] = splitUnit(header);
    const std::string channelName = name.empty() ? "column " + std::to_string(column + 1) : name;
    columnNames.push_back(header.empty() ? channelName : std::string(header));
    if (!timeColumn && isTimeName(name)) {
        const std::optional<double> factor = timeUnitFactor(unit);
        if (!factor) throw RecordingError(meta.fileName, lines.lineNumber(), "unknown time unit '" + unit + "'");
        timeColumn = column;
        timeFactor = *factor;
        return;
    }
    ChannelInfo channel;
    channel.name = channelName;
    const UnitConversion conversion = convertUnit(unit);
    channel.kind = unit.empty() ? kindFromName(name) : conversion.kind;
    // Without a unit a voltage or current named as such is taken in volts or amperes.
    channel.unit = unit.empty() && channel.kind != ChannelKind::Other
                       ? (channel.kind == ChannelKind::Voltage ? "V" : "A")
                       : conversion.unit;
    channel.scale = conversion.factor;
    meta.channels.push_back(channel);
    channelColumns.push_back(column);
}

// Counts the rows in a pass of its own, so that the length and the rate from
// the time column are known before reading, in constant memory.
void CsvReader::scanRows(const RecordingOptions& options) {
    std::ifstream scan = openInput(meta.fileName);
    LineReader reader(scan);
    std::string row, lastRow;
    nextRow(reader, row);  // the header
    uint64_t rows = 0;
    size_t lastLine = 0;
    double firstTime = 0.0;
    while (nextRow(reader, row)) {
        if (rows++ == 0 && timeColumn)
            firstTime = value(rowFields(row, reader.lineNumber())[*timeColumn], *timeColumn, reader.lineNumber());
        lastRow.swap(row);
        lastLine = reader.lineNumber();
    }
    if (rows == 0) throw RecordingError(meta.fileName, "no data rows below the header");
    meta.totalSamples = rows;
    double rate = 0.0;
    if (options.sampleRate)
        rate = *options.sampleRate;
    else if (timeColumn)
        rate = sampleRateFromTimes(rows, firstTime,
                                   value(rowFields(lastRow, lastLine)[*timeColumn], *timeColumn, lastLine));
    else
        throw RecordingError(meta.fileName, "no time column (time, t, timestamp or seconds); give the sample rate");
    if (!(rate > 0.0)) throw RecordingError(meta.fileName, "the sample rate must be positive");
    meta.sections = {{rate, 0, rows}};
}

// The mean step over the whole file: exact even when times are printed rounded.
double CsvReader::sampleRateFromTimes(uint64_t rows, double first, double last) const {
    const double span = (last - first) * timeFactor;
    if (rows < 2 || !(span > 0.0))
        throw RecordingError(meta.fileName, "the time column does not increase; give the sample rate");
    return static_cast<double>(rows - 1) / span;
}

std::vector<std::string_view> CsvReader::rowFields(const std::string& row, size_t lineNumber) const {
    std::vector<std::string_view> fields = splitFields(row, delimiter);
    if (fields.size() == columnCount + 1 && fields.back().empty()) fields.pop_back();
    if (fields.size() != columnCount)
        throw RecordingError(meta.fileName, lineNumber,
                             std::to_string(fields.size()) + " fields, the header has " + std::to_string(columnCount));
    return fields;
}

double CsvReader::value(std::string_view field, size_t column, size_t lineNumber) const {
    field = unquoted(field);
    std::optional<double> number = parseNumber(field);
    if (!number && delimiter != ',' && field.find(',') != std::string_view::npos) {
        std::string decimalPoint(field);
        std::replace(decimalPoint.begin(), decimalPoint.end(), ',', '.');
        number = parseNumber(decimalPoint);
    }
    if (!number)
        throw RecordingError(meta.fileName, lineNumber,
                             columnNames[column] + ": '" + std::string(field) + "' is not a number");
    return *number;
}

size_t CsvReader::readChunk(float* out, size_t maxSamples) {
    const size_t channels = channelColumns.size();
    size_t read = 0;
    for (; read < maxSamples && delivered < meta.totalSamples; ++read, ++delivered) {
        if (!nextRow(lines, line))
            throw RecordingError(meta.fileName, "ends after " + std::to_string(delivered) + " of " +
                                                    std::to_string(meta.totalSamples) + " rows: changed while read");
        const std::vector<std::string_view> fields = rowFields(line, lines.lineNumber());
        for (size_t c = 0; c < channels; ++c)
            out[read * channels + c] = static_cast<float>(
                meta.channels[c].scale * value(fields[channelColumns[c]], channelColumns[c], lines.lineNumber()));
    }
    return read;
}

}  // namespace tarnel::recordings
