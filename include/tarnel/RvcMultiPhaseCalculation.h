// Rapid voltage change detectors of one kind of voltage channel and the event of the whole system.
#pragma once

#include <cstdint>
#include <vector>

#include "tarnel/Export.h"
#include "tarnel/PowerEvents.h"
#include "tarnel/RvcPhaseCalculation.h"

namespace tarnel {

// The polyphase event starts when the first channel enters an event and ends when the last
// channel has returned to steady state.
class TARNEL_API RvcMultiPhaseCalculation {
  public:
    // Resizes the detector set; new detectors start with the default settings.
    void setNumberOfPhases(uint64_t count) { phases.resize(count); }
    uint64_t getNumberOfPhases() const { return phases.size(); }
    RvcPhaseCalculation& operator[](uint64_t phase) { return phases[phase]; }
    const RvcPhaseCalculation& operator[](uint64_t phase) const { return phases[phase]; }

    void initialize() { reset(); }
    void reset();
    // Combines the detectors' latest results; call once per value after every detector was fed.
    RvcResult getTotalResult();

  private:
    static constexpr double noEventTime = -1.0;

    void mergePhaseResult(RvcResult& total, const RvcResult& phase) const;

    double eventStartTime = noEventTime;
    int32_t previousState = -1;
    uint32_t eventCount = 0;
    std::vector<RvcPhaseCalculation> phases;
};

}  // namespace tarnel

// Global aliases for code written against unqualified names (see README).
#if defined(TARNEL_GLOBAL_NAMES)
using tarnel::RvcMultiPhaseCalculation;
#endif
