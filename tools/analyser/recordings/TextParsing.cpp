#include "recordings/TextParsing.h"

#include <cctype>
#include <charconv>
#include <cmath>

namespace tarnel::recordings {

std::string_view trim(std::string_view text) {
    const auto blank = [](char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n' || c == '\v' || c == '\f'; };
    while (!text.empty() && blank(text.front())) text.remove_prefix(1);
    while (!text.empty() && blank(text.back())) text.remove_suffix(1);
    return text;
}

std::string toUpper(std::string_view text) {
    std::string upper(text);
    for (char& c : upper) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    return upper;
}

std::vector<std::string_view> splitFields(std::string_view line, char delimiter) {
    std::vector<std::string_view> fields;
    size_t start = 0;
    while (true) {
        const size_t end = line.find(delimiter, start);
        fields.push_back(
            trim(line.substr(start, end == std::string_view::npos ? std::string_view::npos : end - start)));
        if (end == std::string_view::npos) return fields;
        start = end + 1;
    }
}

std::optional<double> parseNumber(std::string_view text) {
    text = trim(text);
    if (!text.empty() && text.front() == '+') text.remove_prefix(1);
    if (text.empty()) return std::nullopt;
    double value = 0.0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error != std::errc() || end != text.data() + text.size() || !std::isfinite(value)) return std::nullopt;
    return value;
}

std::optional<uint64_t> parseCount(std::string_view text) {
    const std::optional<double> value = parseNumber(text);
    // 2^53: beyond it doubles skip whole numbers, and no recording is that long.
    if (!value || *value < 0.0 || *value > 9007199254740992.0 || std::floor(*value) != *value) return std::nullopt;
    return static_cast<uint64_t>(*value);
}

LineReader::LineReader(std::istream& input, size_t lineNumberBefore) : in(input), number(lineNumberBefore) {}

bool LineReader::next(std::string& line) {
    if (!std::getline(in, line)) return false;
    ++number;
    if (!line.empty() && line.back() == '\r') line.pop_back();
    if (first && line.compare(0, 3, "\xEF\xBB\xBF") == 0) line.erase(0, 3);
    first = false;
    return true;
}

}  // namespace tarnel::recordings
