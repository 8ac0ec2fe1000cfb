// Dip and swell detectors of one kind of voltage channel and the events of the whole system.
#pragma once

#include <cstdint>
#include <vector>

#include "tarnel/DipSwellPhaseCalculation.h"
#include "tarnel/Export.h"
#include "tarnel/PowerEvents.h"

namespace tarnel {

// A polyphase dip or swell begins when the first channel enters one and ends when the last
// channel has left it.
class TARNEL_API DipSwellMultiPhaseCalculation {
  public:
    // Resizes the detector set; new detectors start with the default settings.
    void setNumberOfPhases(uint64_t count) { phases.resize(count); }
    uint64_t getNumberOfPhases() const { return phases.size(); }
    DipSwellPhaseCalculation& operator[](uint64_t phase) { return phases[phase]; }
    const DipSwellPhaseCalculation& operator[](uint64_t phase) const { return phases[phase]; }

    void initialize() { reset(); }
    void reset();
    // Combine the detectors' latest results; call once per value after every detector was fed.
    DipResult getDipTotalResult();
    SwellResult getSwellTotalResult();

  private:
    static constexpr double noEventTime = -1.0;

    double dipStartTime = noEventTime;
    double swellStartTime = noEventTime;
    uint32_t dipCount = 0;
    uint32_t swellCount = 0;
    std::vector<DipSwellPhaseCalculation> phases;
};

}  // namespace tarnel

// Global aliases for code written against unqualified names (see README).
#if defined(TARNEL_GLOBAL_NAMES)
using tarnel::DipSwellMultiPhaseCalculation;
#endif
