#include "recordings/ComtradeStartTime.h"

#include <cctype>
#include <string_view>

#include "recordings/TextParsing.h"

namespace tarnel::recordings {

namespace {

constexpr int64_t kNanosecondsPerSecond = 1000000000;
// Nanoseconds since 1970 in 64 bits span about 292 years either way; days
// beyond this bound (with a day of time and of offset added) would overflow.
constexpr int64_t kMaxDaysFrom1970 = 106000;

// Reads up to `maxDigits` decimal digits at `pos`; empty when there are none.
std::optional<int64_t> digits(std::string_view text, size_t& pos, size_t maxDigits, size_t* count = nullptr) {
    const size_t start = pos;
    int64_t value = 0;
    while (pos < text.size() && pos - start < maxDigits && std::isdigit(static_cast<unsigned char>(text[pos])))
        value = value * 10 + (text[pos++] - '0');
    if (count) *count = pos - start;
    if (pos == start) return std::nullopt;
    return value;
}

bool expect(std::string_view text, size_t& pos, char c) {
    if (pos >= text.size() || text[pos] != c) return false;
    ++pos;
    return true;
}

bool leapYear(int64_t y) { return (y % 4 == 0 && y % 100 != 0) || y % 400 == 0; }

unsigned daysInMonth(int64_t year, unsigned month) {
    static const unsigned days[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    return month == 2 && leapYear(year) ? 29 : days[month - 1];
}

// "dd/mm/yyyy" (or "mm/dd/yy" in 1991 files) to days since 1970-01-01.
std::optional<int64_t> parseDate(std::string_view date, int revision) {
    size_t pos = 0, yearDigits = 0;
    const auto first = digits(date, pos, 2);
    if (!first || !expect(date, pos, '/')) return std::nullopt;
    const auto second = digits(date, pos, 2);
    if (!second || !expect(date, pos, '/')) return std::nullopt;
    auto year = digits(date, pos, 4, &yearDigits);
    if (!year || pos != date.size() || (yearDigits != 2 && yearDigits != 4)) return std::nullopt;
    // Two-digit years of 1991 files: 70-99 are the 1900s, 00-69 the 2000s.
    if (yearDigits == 2) *year += *year >= 70 ? 1900 : 2000;
    const auto month = static_cast<unsigned>(revision == 1991 ? *first : *second);
    const auto day = static_cast<unsigned>(revision == 1991 ? *second : *first);
    if (month < 1 || month > 12 || day < 1 || day > daysInMonth(*year, month)) return std::nullopt;
    return daysFromCivil(*year, month, day);
}

// "hh:mm:ss.fffffffff" to nanoseconds since midnight.
std::optional<int64_t> parseTime(std::string_view time) {
    size_t pos = 0, fractionDigits = 0;
    const auto hours = digits(time, pos, 2);
    if (!hours || !expect(time, pos, ':')) return std::nullopt;
    const auto minutes = digits(time, pos, 2);
    if (!minutes || !expect(time, pos, ':')) return std::nullopt;
    const auto seconds = digits(time, pos, 2);
    if (!seconds || *hours > 23 || *minutes > 59 || *seconds > 60) return std::nullopt;
    int64_t fraction = 0;
    if (expect(time, pos, '.')) {
        const auto value = digits(time, pos, 9, &fractionDigits);
        if (!value) return std::nullopt;
        fraction = *value;
        for (size_t d = fractionDigits; d < 9; ++d) fraction *= 10;
    }
    if (pos != time.size()) return std::nullopt;
    return ((*hours * 60 + *minutes) * 60 + *seconds) * kNanosecondsPerSecond + fraction;
}

// "+9", "-5h30", "0" to nanoseconds that the clock runs ahead of UTC.
std::optional<int64_t> parseTimeCode(std::string_view code) {
    size_t pos = 0;
    const bool negative = expect(code, pos, '-');
    if (!negative) expect(code, pos, '+');
    const auto hours = digits(code, pos, 2);
    if (!hours) return std::nullopt;
    int64_t minutes = 0;
    if (expect(code, pos, 'h') || expect(code, pos, 'H')) {
        const auto value = digits(code, pos, 2);
        if (!value || *value > 59) return std::nullopt;
        minutes = *value;
    }
    if (pos != code.size() || *hours > 24) return std::nullopt;
    const int64_t offset = (*hours * 60 + minutes) * 60 * kNanosecondsPerSecond;
    return negative ? -offset : offset;
}

}  // namespace

int64_t daysFromCivil(int64_t year, unsigned month, unsigned day) {
    // Days of the 400-year Gregorian cycle, counted from 1 March so that the
    // leap day falls at the end of the year.
    year -= month <= 2;
    const int64_t era = (year >= 0 ? year : year - 399) / 400;
    const auto yearOfEra = static_cast<unsigned>(year - era * 400);
    const unsigned dayOfYear = (153 * (month + (month > 2 ? -3 : 9)) + 2) / 5 + day - 1;
    const unsigned dayOfEra = yearOfEra * 365 + yearOfEra / 4 - yearOfEra / 100 + dayOfYear;
    return era * 146097 + static_cast<int64_t>(dayOfEra) - 719468;
}

std::optional<RecordingStart> comtradeStartTime(const std::string& dateTime, int revision,
                                                const std::string& timeCode) {
    const std::string_view text = trim(dateTime);
    const size_t blank = text.find(' ');
    if (blank == std::string_view::npos) return std::nullopt;
    const auto days = parseDate(trim(text.substr(0, blank)), revision);
    const auto time = parseTime(trim(text.substr(blank + 1)));
    if (!days || !time || *days > kMaxDaysFrom1970 || *days < -kMaxDaysFrom1970) return std::nullopt;
    RecordingStart start;
    start.utcNanoseconds = *days * 86400 * kNanosecondsPerSecond + *time;
    const std::string_view code = trim(timeCode);
    if (const auto offset = code.empty() ? std::nullopt : parseTimeCode(code)) {
        start.utcNanoseconds -= *offset;
        start.zoneStated = true;
    }
    return start;
}

}  // namespace tarnel::recordings
