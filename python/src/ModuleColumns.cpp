#include "ModuleColumns.h"

#include <cstring>
#include <stdexcept>
#include <vector>

#include "OutputRecords.h"
#include "RecordColumns.h"

namespace nb = nanobind;

namespace tarnel::bindings {

namespace {

using namespace tarnel::analyser;

SourceInfo moduleInfo(double sampleRate, int grid, unsigned currents) {
    SourceInfo info;
    info.sampleRate = sampleRate;
    info.gridType = grid;
    for (unsigned c = 0; c < currents; ++c) info.currents.push_back({"I" + std::to_string(c + 1), "A"});
    return info;
}

template <typename T>
std::vector<T> recordsOf(const RawRecords& raw, size_t expectedDims) {
    if (raw.ndim() != expectedDims || raw.shape(raw.ndim() - 1) != sizeof(T))
        throw std::invalid_argument("records of another layout");
    size_t count = 1;
    for (size_t d = 0; d + 1 < raw.ndim(); ++d) count *= raw.shape(d);
    std::vector<T> out(count);
    if (count) std::memcpy(static_cast<void*>(out.data()), raw.data(), count * sizeof(T));
    return out;
}

}  // namespace

nb::dict blockColumns(RawRecords raw, double sampleRate, int grid, unsigned currents) {
    const SourceInfo info = moduleInfo(sampleRate, grid, currents);
    ColumnTable table;
    const std::vector<PowerResultsGeneral> records = recordsOf<PowerResultsGeneral>(raw, 2);
    for (size_t k = 0; k < records.size(); ++k) {
        const Record block = blockRecord(info, records[k], k);
        for (unsigned p = 0; p < records[k].phasesCount; ++p)
            table.add(Record(block).append(blockPhaseRecord(info, records[k], p, false)));
    }
    return table.toPython();
}

nb::dict periodColumns(RawRecords raw, double sampleRate, int grid, unsigned currents) {
    const SourceInfo info = moduleInfo(sampleRate, grid, currents);
    ColumnTable table;
    if (raw.ndim() == 3 && raw.shape(0) > 0) {
        const int phases = static_cast<int>(raw.shape(1)) - 1;
        const std::vector<PowerResultsPeriod> records = recordsOf<PowerResultsPeriod>(raw, 3);
        for (size_t k = 0; k < raw.shape(0); ++k) {
            const PowerResultsPeriod* value = records.data() + k * static_cast<size_t>(phases + 1);
            const Record period = periodRecord(info, value, phases, k);
            for (int p = 1; p <= phases; ++p)
                table.add(Record(period).append(periodPhaseRecord(info, value[p], p - 1)));
        }
    }
    return table.toPython();
}

}  // namespace tarnel::bindings
