#include "OutputRecord.h"

#include <charconv>
#include <cmath>
#include <cstdio>

namespace tarnel::analyser {

namespace {

void appendJsonString(std::string& out, const std::string& text) {
    out += '"';
    for (const char c : text) {
        const auto u = static_cast<unsigned char>(c);
        if (c == '"' || c == '\\') {
            out += '\\';
            out += c;
        } else if (u < 0x20) {
            char escaped[8];
            std::snprintf(escaped, sizeof escaped, "\\u%04x", u);
            out += escaped;
        } else {
            out += c;
        }
    }
    out += '"';
}

std::string csvText(const std::string& text) {
    if (text.find_first_of(",\"\r\n") == std::string::npos) return text;
    std::string quoted = "\"";
    for (const char c : text) quoted += c == '"' ? std::string("\"\"") : std::string(1, c);
    return quoted + "\"";
}

void appendJson(std::string& out, const FieldValue& value);

void appendJsonObject(std::string& out, const std::vector<std::pair<std::string, FieldValue>>& fields) {
    out += '{';
    for (size_t k = 0; k < fields.size(); ++k) {
        if (k) out += ',';
        appendJsonString(out, fields[k].first);
        out += ':';
        appendJson(out, fields[k].second);
    }
    out += '}';
}

}  // namespace

std::string joinedList(const std::vector<std::string>& texts) {
    std::string line;
    for (size_t k = 0; k < texts.size(); ++k) line += (k ? ";" : "") + texts[k];
    return line;
}

std::string formatNumber(double value) {
    char text[32];
    const std::to_chars_result result = std::to_chars(text, text + sizeof text, value);
    std::string number(text, result.ptr);
    if (number.find_first_of(".einf") == std::string::npos) number += ".0";
    return number;
}

double shortestFromFloat(float value) {
    if (!std::isfinite(value)) return value;
    char text[32];
    const std::to_chars_result written = std::to_chars(text, text + sizeof text, value);
    double widened = value;
    std::from_chars(text, written.ptr, widened);
    return widened;
}

std::string formatUtc(int64_t nanosecondsSinceEpoch) {
    constexpr int64_t perDay = 86400LL * 1000000000LL;
    int64_t days = nanosecondsSinceEpoch / perDay, rest = nanosecondsSinceEpoch % perDay;
    if (rest < 0) rest += perDay, --days;
    // Civil date from days since 1970-01-01 (the inverse of daysFromCivil).
    const int64_t z = days + 719468, era = (z >= 0 ? z : z - 146096) / 146097;
    const auto dayOfEra = static_cast<unsigned>(z - era * 146097);
    const unsigned yearOfEra = (dayOfEra - dayOfEra / 1460 + dayOfEra / 36524 - dayOfEra / 146096) / 365;
    const unsigned dayOfYear = dayOfEra - (365 * yearOfEra + yearOfEra / 4 - yearOfEra / 100);
    const unsigned mp = (5 * dayOfYear + 2) / 153;
    const unsigned day = dayOfYear - (153 * mp + 2) / 5 + 1, month = mp < 10 ? mp + 3 : mp - 9;
    const int64_t year = static_cast<int64_t>(yearOfEra) + era * 400 + (month <= 2);
    const int64_t seconds = rest / 1000000000LL;
    char text[96];  // room for any 64-bit year, as the compiler counts it
    std::snprintf(text, sizeof text, "%04lld-%02u-%02uT%02lld:%02lld:%02lld.%09lldZ", static_cast<long long>(year),
                  month, day, static_cast<long long>(seconds / 3600), static_cast<long long>(seconds / 60 % 60),
                  static_cast<long long>(seconds % 60), static_cast<long long>(rest % 1000000000LL));
    return text;
}

Record& Record::add(const std::string& name, FieldValue value) {
    fields.emplace_back(name, std::move(value));
    return *this;
}

Record& Record::number(const std::string& name, std::optional<double> value) {
    FieldValue v;
    if (value && std::isfinite(*value)) v.kind = FieldValue::Kind::Number, v.number = *value;
    return add(name, std::move(v));
}

Record& Record::integer(const std::string& name, std::optional<long long> value) {
    FieldValue v;
    if (value) v.kind = FieldValue::Kind::Integer, v.integer = *value;
    return add(name, std::move(v));
}

Record& Record::text(const std::string& name, std::optional<std::string> value) {
    FieldValue v;
    if (value) v.kind = FieldValue::Kind::Text, v.text = std::move(*value);
    return add(name, std::move(v));
}

Record& Record::boolean(const std::string& name, std::optional<bool> value) {
    FieldValue v;
    if (value) v.kind = FieldValue::Kind::Boolean, v.boolean = *value;
    return add(name, std::move(v));
}

Record& Record::numbers(const std::string& name, std::optional<std::vector<std::optional<double>>> values) {
    FieldValue v;
    v.array = true;
    if (values) v.kind = FieldValue::Kind::Numbers, v.numbers = std::move(*values);
    return add(name, std::move(v));
}

Record& Record::texts(const std::string& name, std::vector<std::string> values) {
    FieldValue v;
    v.kind = FieldValue::Kind::Texts;
    v.texts = std::move(values);
    return add(name, std::move(v));
}

Record& Record::records(const std::string& name, std::vector<Record> values) {
    FieldValue v;
    v.array = true;
    v.kind = FieldValue::Kind::Records;
    v.records = std::move(values);
    return add(name, std::move(v));
}

Record& Record::append(const Record& other) {
    fields.insert(fields.end(), other.fields.begin(), other.fields.end());
    return *this;
}

namespace {

void appendJson(std::string& out, const FieldValue& value) {
    switch (value.kind) {
        case FieldValue::Kind::Null:
            out += "null";
            return;
        case FieldValue::Kind::Number:
            out += formatNumber(value.number);
            return;
        case FieldValue::Kind::Integer:
            out += std::to_string(value.integer);
            return;
        case FieldValue::Kind::Text:
            appendJsonString(out, value.text);
            return;
        case FieldValue::Kind::Boolean:
            out += value.boolean ? "true" : "false";
            return;
        case FieldValue::Kind::Numbers:
            out += '[';
            for (size_t k = 0; k < value.numbers.size(); ++k) {
                if (k) out += ',';
                const std::optional<double>& n = value.numbers[k];
                out += n && std::isfinite(*n) ? formatNumber(*n) : "null";
            }
            out += ']';
            return;
        case FieldValue::Kind::Texts:
            out += '[';
            for (size_t k = 0; k < value.texts.size(); ++k) {
                if (k) out += ',';
                appendJsonString(out, value.texts[k]);
            }
            out += ']';
            return;
        case FieldValue::Kind::Records:
            out += '[';
            for (size_t k = 0; k < value.records.size(); ++k) {
                if (k) out += ',';
                out += value.records[k].json();
            }
            out += ']';
            return;
    }
}

std::string csvValue(const FieldValue& value) {
    switch (value.kind) {
        case FieldValue::Kind::Number:
            return formatNumber(value.number);
        case FieldValue::Kind::Integer:
            return std::to_string(value.integer);
        case FieldValue::Kind::Text:
            return csvText(value.text);
        case FieldValue::Kind::Boolean:
            return value.boolean ? "true" : "false";
        case FieldValue::Kind::Texts:
            return csvText(joinedList(value.texts));
        default:
            return "";
    }
}

}  // namespace

std::string Record::json() const {
    std::string out;
    appendJsonObject(out, fields);
    return out;
}

std::string Record::csvHeader() const {
    std::string line;
    for (const auto& [name, value] : fields)
        if (!value.array) line += (line.empty() ? "" : ",") + csvText(name);
    return line;
}

std::string Record::csvRow() const {
    std::string line;
    bool first = true;
    for (const auto& [name, value] : fields) {
        if (value.array) continue;
        if (!first) line += ',';
        line += csvValue(value);
        first = false;
    }
    return line;
}

}  // namespace tarnel::analyser
