#include "tarnel/PowerGridConfig.h"

#include <unordered_map>

namespace tarnel {

PowerGridConfig::PowerGridConfig() : PowerGridConfig(SinglePhase, 1, 1, 1, false) {}

PowerGridConfig::PowerGridConfig(PowerGridConfigType type_, unsigned char phases, unsigned char voltages,
                                 unsigned char currents, bool delta)
    : type(type_),
      phasesCount(phases),
      voltagesCount(voltages),
      currentsCount(currents),
      lineToLineCount(static_cast<unsigned char>(phases * (phases - 1) / 2)),
      starVoltages(!delta),
      deltaVoltages(delta),
      missingCurrent(static_cast<int>(phases) - static_cast<int>(currents) > 0) {}

namespace {

// Built once at load and only read afterwards, so lookups need no lock.
const std::unordered_map<PowerGridConfigType, PowerGridConfig>& gridTable() {
    static const std::unordered_map<PowerGridConfigType, PowerGridConfig> table = {
        {SinglePhase, PowerGridConfig(SinglePhase, 1, 1, 1, false)},
        {ThreePhaseStarThreeCurrents, PowerGridConfig(ThreePhaseStarThreeCurrents, 3, 3, 3, false)},
        {ThreePhaseStarTwoCurrents, PowerGridConfig(ThreePhaseStarTwoCurrents, 3, 3, 2, false)},
        {ThreePhaseDeltaThreeCurrents, PowerGridConfig(ThreePhaseDeltaThreeCurrents, 3, 3, 3, true)},
        {ThreePhaseDeltaTwoCurrents, PowerGridConfig(ThreePhaseDeltaTwoCurrents, 3, 3, 2, true)},
        {TwoPhaseStarTwoCurrents, PowerGridConfig(TwoPhaseStarTwoCurrents, 2, 2, 2, false)},
        {ThreePhaseTwoDeltaVoltagesTwoCurrents, PowerGridConfig(ThreePhaseTwoDeltaVoltagesTwoCurrents, 3, 2, 2, true)},
        {SinglePhaseAlternative, PowerGridConfig(SinglePhaseAlternative, 1, 1, 1, false)},
    };
    return table;
}

// Build the table when the library loads.
[[maybe_unused]] const auto& tableAtLoad = gridTable();

}  // namespace

PowerGridConfig PowerGridConfig::forType(PowerGridConfigType type) {
    const auto& table = gridTable();
    auto it = table.find(type);
    return it == table.end() ? PowerGridConfig() : it->second;
}

}  // namespace tarnel
