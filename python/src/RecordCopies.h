// Tables of result records that outlive the module's buffers: each record is
// copied whole, and the arrays its pointers refer to are copied beside it.
#pragma once

#include <nanobind/nanobind.h>

#include <cstdint>
#include <vector>

#include "tarnel/PowerResults.h"

namespace tarnel {}
namespace tarnel::bindings {

using namespace tarnel;

class BlockTable {
  public:
    void add(const PowerResultsGeneral& record);
    size_t size() const { return records.size(); }
    // {"records": uint8 (n, record size), "h_u_V": float32 (n, phases, orders), ...}
    nanobind::dict toPython() const;

  private:
    struct Series {
        const char* name;
        const float* PowerResultsPhase::*field;
        std::vector<float> values;
    };
    void copySeries(const PowerResultsGeneral& record);

    std::vector<PowerResultsGeneral> records;
    unsigned phases = 0, orders = 0;
    std::vector<Series> series = {
        {"h_u_V", &PowerResultsPhase::harmonicsU, {}},        {"h_i_A", &PowerResultsPhase::harmonicsI, {}},
        {"h_ul_V", &PowerResultsPhase::harmonicsUL, {}},      {"h_u_deg", &PowerResultsPhase::harmonicAnglesU, {}},
        {"h_i_deg", &PowerResultsPhase::harmonicAnglesI, {}}, {"ih_u_V", &PowerResultsPhase::interharmonicsU, {}},
        {"ih_i_A", &PowerResultsPhase::interharmonicsI, {}},
    };
};

class PeriodTable {
  public:
    // One period value: `phases` + 1 records, the combination first.
    void add(const PowerResultsPeriod* value, int phases);
    size_t size() const { return phases ? records.size() / (phases + 1) : 0; }
    // uint8 (n, phases + 1, record size).
    nanobind::object toPython() const;

  private:
    std::vector<PowerResultsPeriod> records;
    size_t phases = 0;
};

// An owning numpy array over a moved-in vector.
template <typename T>
nanobind::object ownedArray(std::vector<T>&& data, std::initializer_list<size_t> shape);

}  // namespace tarnel::bindings
