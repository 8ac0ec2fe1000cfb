// Small text helpers shared by the COMTRADE and CSV parsers.
#pragma once

#include <cstddef>
#include <cstdint>
#include <istream>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace tarnel::recordings {

std::string_view trim(std::string_view text);
std::string toUpper(std::string_view text);
// Fields between delimiters, each trimmed; "a,,b" gives three fields.
std::vector<std::string_view> splitFields(std::string_view line, char delimiter);

// A finite decimal number, surrounded by blanks or not, with an optional '+'.
// Independent of the C locale, so "1.5" parses the same everywhere.
std::optional<double> parseNumber(std::string_view text);
// A non-negative whole number; "708" and "708.0" both count.
std::optional<uint64_t> parseCount(std::string_view text);

// Reads text lines whatever their ending (LF or CRLF), drops a UTF-8 byte
// order mark at the start and counts lines for messages.
class LineReader {
  public:
    explicit LineReader(std::istream& input, size_t lineNumberBefore = 0);
    bool next(std::string& line);
    size_t lineNumber() const { return number; }

  private:
    std::istream& in;
    size_t number;
    bool first = true;
};

}  // namespace tarnel::recordings
