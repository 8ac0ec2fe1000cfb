#include "recordings/ComtradeConfig.h"

#include <optional>

#include "recordings/RecordingError.h"
#include "recordings/TextParsing.h"

namespace tarnel::recordings {

const char* dataTypeName(ComtradeDataType type) {
    switch (type) {
        case ComtradeDataType::Ascii:
            return "ASCII";
        case ComtradeDataType::Binary:
            return "BINARY";
        case ComtradeDataType::Binary32:
            return "BINARY32";
        case ComtradeDataType::Float32:
            return "FLOAT32";
    }
    return "?";
}

namespace {

constexpr size_t kAnalogFields1991 = 10;    // n, id, ph, ccbm, uu, a, b, skew, min, max
constexpr size_t kAnalogFieldsRatios = 13;  // ... primary, secondary, P/S since 1999

class ConfigParser {
  public:
    ConfigParser(std::istream& text, const std::string& fileName, size_t lineNumberBefore)
        : lines(text, lineNumberBefore), file(fileName) {}

    ComtradeConfig parse() {
        parseHeader();
        const auto [analogCount, digitalCount] = parseChannelCounts();
        for (size_t n = 1; n <= analogCount; ++n) config.analogs.push_back(parseAnalog(n));
        for (size_t n = 1; n <= digitalCount; ++n) nextLine("digital channel " + std::to_string(n));
        config.digitalCount = digitalCount;
        config.lineFrequency = parseLineFrequency();
        parseRates();
        config.startTime = parseDateTime("start time");
        const bool nanoseconds = fractionDigits(config.startTime) >= 9;
        parseDateTime("trigger time");
        config.dataType = parseDataType();
        config.timestampUnit = (nanoseconds ? 1e-9 : 1e-6) * parseTimeMultiplier();
        // The time code places the start time in UTC; time quality does not matter to the analysis.
        if (config.revision == 2013) config.timeCode = parseTimeCode();
        return config;
    }

  private:
    [[noreturn]] void fail(const std::string& problem) const {
        throw RecordingError(file, lines.lineNumber(), problem);
    }

    std::string nextLine(const std::string& what) {
        std::string line;
        if (!lines.next(line)) throw RecordingError(file, lines.lineNumber() + 1, "ends before the " + what);
        return line;
    }

    std::vector<std::string_view> nextFields(const std::string& what, size_t minimum) {
        current = nextLine(what);
        std::vector<std::string_view> fields = splitFields(current, ',');
        if (fields.size() < minimum)
            fail(what + ": expected at least " + std::to_string(minimum) + " fields, found " +
                 std::to_string(fields.size()));
        return fields;
    }

    double number(std::string_view field, const std::string& what) const {
        const std::optional<double> value = parseNumber(field);
        if (!value) fail(what + " '" + std::string(field) + "' is not a number");
        return *value;
    }

    uint64_t count(std::string_view field, const std::string& what) const {
        const std::optional<uint64_t> value = parseCount(field);
        if (!value) fail(what + " '" + std::string(field) + "' is not a whole number");
        return *value;
    }

    void parseHeader() {
        const std::vector<std::string_view> fields = nextFields("station line", 1);
        config.station = std::string(fields[0]);
        // 1991 files have no revision field (or an empty one).
        const std::string_view year = fields.size() >= 3 ? fields[2] : std::string_view();
        if (year.empty() || year == "1991") return;
        const std::optional<uint64_t> value = parseCount(year);
        // Years between the revisions can only have been written to the 1999 layout.
        if (!value || *value < 1999 || *value > 2013)
            fail("unknown revision year '" + std::string(year) + "' (expected 1991, 1999 or 2013)");
        config.revision = *value == 2013 ? 2013 : 1999;
    }

    std::pair<size_t, size_t> parseChannelCounts() {
        const std::vector<std::string_view> fields = nextFields("channel counts", 3);
        const uint64_t total = count(fields[0], "total channel count");
        const uint64_t analogs = suffixedCount(fields[1], 'A', "analog channel count");
        const uint64_t digitals = suffixedCount(fields[2], 'D', "digital channel count");
        if (total != analogs + digitals)
            fail("inconsistent channel counts: " + std::to_string(total) + " in total but " + std::to_string(analogs) +
                 " analog and " + std::to_string(digitals) + " digital");
        return {static_cast<size_t>(analogs), static_cast<size_t>(digitals)};
    }

    uint64_t suffixedCount(std::string_view field, char suffix, const std::string& what) const {
        if (field.empty() || (field.back() != suffix && field.back() != suffix + ('a' - 'A')))
            fail(what + " '" + std::string(field) + "' should end in '" + suffix + "'");
        return count(field.substr(0, field.size() - 1), what);
    }

    ComtradeAnalogChannel parseAnalog(size_t n) {
        const std::string what = "analog channel " + std::to_string(n);
        const std::vector<std::string_view> fields = nextFields(what, kAnalogFields1991);
        ComtradeAnalogChannel channel;
        channel.name = std::string(fields[1]);
        channel.phase = std::string(fields[2]);
        channel.unit = std::string(fields[4]);
        channel.a = number(fields[5], what + " multiplier");
        channel.b = fields[6].empty() ? 0.0 : number(fields[6], what + " offset");
        // Skew, min and max do not change the values; real files leave them
        // empty or write them as reals, so they are not checked.
        if (fields.size() >= kAnalogFieldsRatios) parseRatios(channel, fields);
        return channel;
    }

    static void parseRatios(ComtradeAnalogChannel& channel, const std::vector<std::string_view>& fields) {
        const std::optional<double> primary = parseNumber(fields[10]), secondary = parseNumber(fields[11]);
        // A missing or zero ratio cannot convert anything: keep 1:1.
        if (primary && secondary && *primary > 0.0 && *secondary > 0.0) {
            channel.primary = *primary;
            channel.secondary = *secondary;
        }
        channel.secondarySide = fields[12] == "S" || fields[12] == "s";
    }

    double parseLineFrequency() {
        const std::vector<std::string_view> fields = nextFields("line frequency", 1);
        return fields[0].empty() ? 0.0 : number(fields[0], "line frequency");
    }

    void parseRates() {
        const std::vector<std::string_view> countFields = nextFields("number of sample rates", 1);
        const uint64_t declared = count(countFields[0], "number of sample rates");
        // nrates 0 still has one line, "0,last sample": the timestamps give the timing.
        const uint64_t lineCount = declared == 0 ? 1 : declared;
        for (uint64_t n = 1; n <= lineCount; ++n) config.rates.push_back(parseRate(n, lineCount));
    }

    ComtradeRate parseRate(uint64_t n, uint64_t lineCount) {
        const std::string what = "sample rate " + std::to_string(n);
        const std::vector<std::string_view> fields = nextFields(what, 2);
        ComtradeRate rate;
        rate.sampleRate = number(fields[0], what);
        rate.lastSample = count(fields[1], what + " last sample");
        if (rate.sampleRate < 0.0) fail(what + " is negative");
        if (rate.sampleRate == 0.0 && lineCount > 1) fail(what + " is zero in a recording with several rates");
        const uint64_t previous = config.rates.empty() ? 0 : config.rates.back().lastSample;
        if (n > 1 && rate.lastSample <= previous)
            fail(what + " ends at sample " + std::to_string(rate.lastSample) + ", not after the previous rate's " +
                 std::to_string(previous));
        return rate;
    }

    std::string parseDateTime(const std::string& what) {
        const std::vector<std::string_view> fields = nextFields(what, 2);
        return std::string(fields[0]) + " " + std::string(fields[1]);
    }

    static size_t fractionDigits(const std::string& dateTime) {
        const size_t dot = dateTime.rfind('.');
        return dot == std::string::npos ? 0 : dateTime.size() - dot - 1;
    }

    ComtradeDataType parseDataType() {
        const std::vector<std::string_view> fields = nextFields("data type", 1);
        const std::string type = toUpper(fields[0]);
        if (type == "ASCII") return ComtradeDataType::Ascii;
        if (type == "BINARY") return ComtradeDataType::Binary;
        if (type == "BINARY32") return ComtradeDataType::Binary32;
        if (type == "FLOAT32") return ComtradeDataType::Float32;
        fail("unknown data type '" + std::string(fields[0]) + "' (expected ASCII, BINARY, BINARY32 or FLOAT32)");
    }

    double parseTimeMultiplier() {
        std::string line;
        // Absent in 1991 files and often in others; an empty or zero one means 1.
        if (!lines.next(line) || trim(line).empty()) return 1.0;
        current = line;
        const double multiplier = number(splitFields(current, ',')[0], "time multiplier");
        return multiplier > 0.0 ? multiplier : 1.0;
    }

    std::string parseTimeCode() {
        std::string line;
        if (!lines.next(line)) return {};
        return std::string(splitFields(line, ',')[0]);
    }

    LineReader lines;
    const std::string& file;
    std::string current;  // the line the fields of the last nextFields point into
    ComtradeConfig config;
};

}  // namespace

ComtradeConfig parseComtradeConfig(std::istream& text, const std::string& fileName, size_t lineNumberBefore) {
    return ConfigParser(text, fileName, lineNumberBefore).parse();
}

}  // namespace tarnel::recordings
