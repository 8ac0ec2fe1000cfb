// Output records of the analyser (schema "tarnel64.analysis/1") gathered
// into columns for pandas: the same names, values and nulls as the JSON Lines
// and CSV files, since the rows are built by the same record functions.
#pragma once

#include <nanobind/nanobind.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "OutputRecord.h"

namespace tarnel::bindings {

using tarnel::analyser::FieldValue;
using tarnel::analyser::Record;

class ColumnTable {
  public:
    // The first row names the columns; every later row has the same fields.
    void add(const Record& row);
    size_t size() const { return rows; }
    // {name: column}: numbers as float64 (NaN for null), integers as int64
    // (float64 when one is null), flags as bool, texts as lists of str or
    // None, lists of texts as lists, lists of numbers as 2-D float64 arrays
    // (rows, longest list) padded with NaN. Lists of records are left out.
    nanobind::dict toPython() const;

  private:
    struct Column {
        std::string name;
        FieldValue::Kind kind = FieldValue::Kind::Null;  // of the non-null values
        std::vector<double> numbers;
        std::vector<int64_t> integers;
        std::vector<uint8_t> flags, nulls;
        std::vector<std::optional<std::string>> texts;
        std::vector<std::vector<std::string>> lists;
        std::vector<std::vector<std::optional<double>>> arrays;
        void add(const FieldValue& value, size_t row);
        nanobind::object toPython(size_t rows) const;
    };
    std::vector<Column> columns;
    size_t rows = 0;
};

// One record as a dict (JSON types: None for null, lists, nested dicts).
nanobind::dict recordDict(const Record& record);

}  // namespace tarnel::bindings
