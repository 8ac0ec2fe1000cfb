// Dip and swell detectors of one kind of voltage channel and the events of the whole system.
#pragma once

#include <cstdint>
#include <limits>
#include <vector>

#include "tarnel/DipSwellPhaseCalculation.h"
#include "tarnel/Export.h"
#include "tarnel/PowerEvents.h"

namespace tarnel {

// A polyphase dip or swell begins when the first channel enters one and ends when the last
// channel has left it. Its duration runs from that first start to that last end, its depth (or
// maximum) is the most extreme of its channel events, and its time beyond the threshold counts
// the time in which at least one channel was beyond the start level.
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
    // An ended polyphase event is reported at its start time, like a channel's.
    DipResult getDipTotalResult();
    SwellResult getSwellTotalResult();

  private:
    // The open polyphase dip or swell.
    struct PolyphaseEvent {
        bool open = false;
        double startTime = 0.0;
        // Stretches in which at least one channel lay beyond its start level.
        bool beyond = false;
        double beyondSince = 0.0;
        double timeBeyond = 0.0;
        // Largest channel depth (dips) or highest maximum (swells) among the channel events ended
        // so far, and for dips the residual voltage that goes with that depth.
        double extreme = -std::numeric_limits<double>::infinity();
        double extremeVoltage = std::numeric_limits<double>::infinity();
    };

    // Carries an event from value to value; true when it ends with this value.
    static bool trackPolyphaseEvent(PolyphaseEvent& event, bool anyInEvent, bool anyBeyond, double time);
    double getLatestTime() const;

    PolyphaseEvent dip;
    PolyphaseEvent swell;
    uint32_t dipCount = 0;
    uint32_t swellCount = 0;
    std::vector<DipSwellPhaseCalculation> phases;
};

}  // namespace tarnel

// Global aliases for code written against unqualified names (see README).
#if defined(TARNEL_GLOBAL_NAMES)
using tarnel::DipSwellMultiPhaseCalculation;
#endif
