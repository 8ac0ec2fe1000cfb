// One output record as named, typed fields in a fixed order, written as a
// JSON object or as a CSV row. Numbers are written in their shortest form that
// reads back to the same double; what was not measured is null (JSON) or
// empty (CSV).
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace tarnel::analyser {

class Record;

struct FieldValue {
    enum class Kind { Null, Number, Integer, Text, Boolean, Numbers, Texts, Records };
    Kind kind = Kind::Null;
    bool array = false;  // numbers or records, null or not: kept out of CSV rows
    double number = 0.0;
    long long integer = 0;
    bool boolean = false;
    std::string text;
    std::vector<std::optional<double>> numbers;
    std::vector<std::string> texts;
    std::vector<Record> records;
};

class Record {
  public:
    // Non-finite numbers are written as null: they mean "no value" here.
    Record& number(const std::string& name, std::optional<double> value);
    Record& integer(const std::string& name, std::optional<long long> value);
    Record& text(const std::string& name, std::optional<std::string> value);
    Record& boolean(const std::string& name, std::optional<bool> value);
    Record& numbers(const std::string& name, std::optional<std::vector<std::optional<double>>> values);
    Record& texts(const std::string& name, std::vector<std::string> values);
    Record& records(const std::string& name, std::vector<Record> values);
    // Appends the fields of `other` after these.
    Record& append(const Record& other);

    std::string json() const;
    // CSV: scalar fields only (arrays of numbers and of records go to tables
    // of their own); lists of texts are joined by `joinedList`.
    std::string csvHeader() const;
    std::string csvRow() const;
    // The fields in order, for readers that take the values as they are
    // (the Python package's tables).
    const std::vector<std::pair<std::string, FieldValue>>& entries() const { return fields; }

  private:
    Record& add(const std::string& name, FieldValue value);
    std::vector<std::pair<std::string, FieldValue>> fields;
};

// A list of texts as one CSV field: joined with ";", since channel names may
// hold spaces (e.g. "HV Bus VR").
std::string joinedList(const std::vector<std::string>& texts);
// Shortest text that reads back as the same double, always with a decimal
// point or an exponent so that readers keep it a floating-point number.
std::string formatNumber(double value);
// The double nearest to the shortest decimal text of a float, so that values
// measured in single precision are written without spurious digits.
double shortestFromFloat(float value);
// ISO 8601 UTC time with nanoseconds, e.g. "2023-07-27T00:19:53.156666511Z".
std::string formatUtc(int64_t nanosecondsSinceEpoch);

}  // namespace tarnel::analyser
