#include "RecordColumns.h"

#include <nanobind/stl/string.h>

#include <algorithm>
#include <limits>
#include <stdexcept>

#include "RecordCopies.h"

namespace nb = nanobind;

namespace tarnel::bindings {

namespace {

constexpr double kMissing = std::numeric_limits<double>::quiet_NaN();

nb::object fieldObject(const FieldValue& value) {
    switch (value.kind) {
        case FieldValue::Kind::Null:
            return nb::none();
        case FieldValue::Kind::Number:
            return nb::float_(value.number);
        case FieldValue::Kind::Integer:
            return nb::int_(value.integer);
        case FieldValue::Kind::Text:
            return nb::str(value.text.c_str(), value.text.size());
        case FieldValue::Kind::Boolean:
            return nb::bool_(value.boolean);
        case FieldValue::Kind::Numbers: {
            nb::list out;
            for (const std::optional<double>& v : value.numbers)
                out.append(v ? nb::object(nb::float_(*v)) : nb::none());
            return std::move(out);
        }
        case FieldValue::Kind::Texts: {
            nb::list out;
            for (const std::string& t : value.texts) out.append(nb::str(t.c_str(), t.size()));
            return std::move(out);
        }
        case FieldValue::Kind::Records: {
            nb::list out;
            for (const Record& r : value.records) out.append(recordDict(r));
            return std::move(out);
        }
    }
    return nb::none();
}

}  // namespace

nb::dict recordDict(const Record& record) {
    nb::dict out;
    for (const auto& [name, value] : record.entries()) out[name.c_str()] = fieldObject(value);
    return out;
}

void ColumnTable::add(const Record& row) {
    const auto& fields = row.entries();
    if (rows == 0 && columns.empty())
        for (const auto& field : fields) {
            columns.emplace_back();
            columns.back().name = field.first;
        }
    if (fields.size() != columns.size()) throw std::logic_error("a row with other fields than the table's");
    for (size_t c = 0; c < fields.size(); ++c) columns[c].add(fields[c].second, rows);
    ++rows;
}

void ColumnTable::Column::add(const FieldValue& value, size_t row) {
    if (value.kind == FieldValue::Kind::Null) {
        nulls.push_back(1);
        return;
    }
    if (kind == FieldValue::Kind::Null) kind = value.kind;
    if (value.kind != kind) throw std::logic_error("column " + name + " holds values of two types");
    nulls.push_back(0);
    // Rows that were null before the first value are filled in here.
    switch (kind) {
        case FieldValue::Kind::Number:
            numbers.resize(row, kMissing);
            numbers.push_back(value.number);
            break;
        case FieldValue::Kind::Integer:
            integers.resize(row, 0);
            integers.push_back(value.integer);
            break;
        case FieldValue::Kind::Boolean:
            flags.resize(row, 0);
            flags.push_back(value.boolean ? 1 : 0);
            break;
        case FieldValue::Kind::Text:
            texts.resize(row);
            texts.push_back(value.text);
            break;
        case FieldValue::Kind::Texts:
            lists.resize(row);
            lists.push_back(value.texts);
            break;
        case FieldValue::Kind::Numbers:
            arrays.resize(row);
            arrays.push_back(value.numbers);
            break;
        case FieldValue::Kind::Null:
        case FieldValue::Kind::Records:
            break;
    }
}

nb::object ColumnTable::Column::toPython(size_t count) const {
    const bool anyNull = std::find(nulls.begin(), nulls.end(), 1) != nulls.end();
    switch (kind) {
        case FieldValue::Kind::Null:
            return ownedArray(std::vector<double>(count, kMissing), {count});
        case FieldValue::Kind::Number: {
            std::vector<double> out(numbers);
            out.resize(count, kMissing);
            for (size_t r = 0; r < count; ++r)
                if (nulls[r]) out[r] = kMissing;
            return ownedArray(std::move(out), {count});
        }
        case FieldValue::Kind::Integer: {
            if (!anyNull) return ownedArray(std::vector<int64_t>(integers), {count});
            std::vector<double> out(count, kMissing);
            for (size_t r = 0; r < count; ++r)
                if (!nulls[r]) out[r] = static_cast<double>(integers[r]);
            return ownedArray(std::move(out), {count});
        }
        case FieldValue::Kind::Boolean: {
            // uint8: the Python layer views it as bool.
            if (!anyNull) return ownedArray(std::vector<uint8_t>(flags), {count});
            nb::list out;
            for (size_t r = 0; r < count; ++r) out.append(nulls[r] ? nb::none() : nb::object(nb::bool_(flags[r] != 0)));
            return std::move(out);
        }
        case FieldValue::Kind::Text: {
            nb::list out;
            for (size_t r = 0; r < count; ++r) {
                const bool present = r < texts.size() && !nulls[r] && texts[r];
                out.append(present ? nb::object(nb::str(texts[r]->c_str(), texts[r]->size())) : nb::none());
            }
            return std::move(out);
        }
        case FieldValue::Kind::Texts: {
            nb::list out;
            for (size_t r = 0; r < count; ++r) {
                nb::list items;
                if (r < lists.size())
                    for (const std::string& t : lists[r]) items.append(nb::str(t.c_str(), t.size()));
                out.append(items);
            }
            return std::move(out);
        }
        case FieldValue::Kind::Numbers: {
            size_t width = 0;
            for (const auto& a : arrays) width = std::max(width, a.size());
            std::vector<double> out(count * width, kMissing);
            for (size_t r = 0; r < std::min(count, arrays.size()); ++r)
                for (size_t k = 0; k < arrays[r].size(); ++k)
                    if (arrays[r][k]) out[r * width + k] = *arrays[r][k];
            return ownedArray(std::move(out), {count, width});
        }
        case FieldValue::Kind::Records:
            break;
    }
    return nb::none();
}

nb::dict ColumnTable::toPython() const {
    nb::dict out;
    for (const Column& c : columns)
        if (c.kind != FieldValue::Kind::Records) out[c.name.c_str()] = c.toPython(rows);
    return out;
}

}  // namespace tarnel::bindings
