#include "RecordCopies.h"

#include <nanobind/ndarray.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>

namespace nb = nanobind;

namespace tarnel::bindings {

template <typename T>
nb::object ownedArray(std::vector<T>&& data, std::initializer_list<size_t> shape) {
    auto* heap = new std::vector<T>(std::move(data));
    nb::capsule owner(heap, [](void* p) noexcept { delete static_cast<std::vector<T>*>(p); });
    return nb::cast(nb::ndarray<nb::numpy, T>(heap->data(), shape, owner));
}

template nb::object ownedArray<float>(std::vector<float>&&, std::initializer_list<size_t>);
template nb::object ownedArray<uint8_t>(std::vector<uint8_t>&&, std::initializer_list<size_t>);
template nb::object ownedArray<double>(std::vector<double>&&, std::initializer_list<size_t>);
template nb::object ownedArray<int64_t>(std::vector<int64_t>&&, std::initializer_list<size_t>);

namespace {

// The records as raw bytes; Python views them through a dtype of the same layout.
template <typename Record>
std::vector<uint8_t> recordBytes(const std::vector<Record>& records) {
    std::vector<uint8_t> bytes(records.size() * sizeof(Record));
    if (!records.empty()) std::memcpy(bytes.data(), static_cast<const void*>(records.data()), bytes.size());
    return bytes;
}

}  // namespace

void BlockTable::add(const PowerResultsGeneral& record) {
    if (records.empty()) {
        phases = record.phasesCount;
        orders = record.harmonicLength;
    }
    copySeries(record);
    records.push_back(record);
    // The pointers refer to the module's buffers; the copies above replace them.
    for (PowerResultsPhase& phase : records.back().phases) {
        phase.fftU = phase.fftI = phase.fftUL = nullptr;
        for (const float** p :
             {&phase.harmonicsU, &phase.harmonicsI, &phase.harmonicsUL, &phase.interharmonicsU, &phase.interharmonicsI,
              &phase.interharmonicsUL, &phase.harmonicActivePowers, &phase.harmonicReactivePowers,
              &phase.harmonicApparentPowers, &phase.harmonicImpedances, &phase.harmonicAnglesU, &phase.harmonicAnglesI})
            *p = nullptr;
    }
}

void BlockTable::copySeries(const PowerResultsGeneral& record) {
    const float missing = std::numeric_limits<float>::quiet_NaN();
    const unsigned available = std::min(orders, record.harmonicLength);
    for (Series& s : series) {
        for (unsigned p = 0; p < phases; ++p) {
            const float* source = p < record.phasesCount ? record.phases[p].*(s.field) : nullptr;
            const size_t start = s.values.size();
            s.values.resize(start + orders, missing);
            if (source != nullptr) std::copy(source, source + available, s.values.begin() + static_cast<long>(start));
        }
    }
}

nb::dict BlockTable::toPython() const {
    nb::dict out;
    out["records"] = ownedArray(recordBytes(records), {records.size(), sizeof(PowerResultsGeneral)});
    for (const Series& s : series)
        out[s.name] = ownedArray(std::vector<float>(s.values), {records.size(), size_t{phases}, size_t{orders}});
    return out;
}

void PeriodTable::add(const PowerResultsPeriod* value, int phaseCount) {
    phases = static_cast<size_t>(phaseCount);
    records.insert(records.end(), value, value + phaseCount + 1);
}

nb::object PeriodTable::toPython() const {
    return ownedArray(recordBytes(records), {size(), phases + 1, sizeof(PowerResultsPeriod)});
}

}  // namespace tarnel::bindings
