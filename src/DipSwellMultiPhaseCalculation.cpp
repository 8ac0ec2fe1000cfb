#include "tarnel/DipSwellMultiPhaseCalculation.h"

#include <algorithm>
#include <limits>

namespace tarnel {

void DipSwellMultiPhaseCalculation::reset() {
    for (DipSwellPhaseCalculation& phase : phases) phase.reset();
    dip = PolyphaseEvent{};
    swell = PolyphaseEvent{};
    dipCount = 0;
    swellCount = 0;
}

double DipSwellMultiPhaseCalculation::getLatestTime() const {
    double time = 0.0;
    for (const DipSwellPhaseCalculation& phase : phases) time = std::max(time, phase.getLatestTime());
    return time;
}

DipResult DipSwellMultiPhaseCalculation::getDipTotalResult() {
    DipResult total;
    total.depthInPercent = std::numeric_limits<double>::infinity();
    total.residualVoltage = std::numeric_limits<double>::infinity();
    total.time = getLatestTime();
    total.eventCount = dipCount;
    bool anyInEvent = false, anyBeyond = false;
    for (const DipSwellPhaseCalculation& phase : phases) {
        const DipResult& result = phase.getDipResult();
        total.firstValue = total.firstValue || result.firstValue;
        anyInEvent = anyInEvent || phase.getDipState() == InEvent;
        anyBeyond = anyBeyond || phase.isBelowDipThreshold();
        // Depth and residual voltage both describe the deepest channel dip of the polyphase event.
        if (result.eventEnded && result.depthInPercent > dip.extreme) {
            dip.extreme = result.depthInPercent;
            dip.extremeVoltage = result.residualVoltage;
        }
    }
    const bool wasOpen = dip.open;
    if (trackPolyphaseEvent(dip, anyInEvent, anyBeyond, total.time)) {
        total.eventEnded = true;
        total.eventCount = ++dipCount;
        total.depthInPercent = dip.extreme;
        total.residualVoltage = dip.extremeVoltage;
        total.duration = total.time - dip.startTime;
        total.timeBelowThreshold = dip.timeBeyond;
        total.time = dip.startTime;
    }
    total.eventStarted = !wasOpen && dip.open;
    return total;
}

SwellResult DipSwellMultiPhaseCalculation::getSwellTotalResult() {
    SwellResult total;
    total.maximumVoltage = -std::numeric_limits<double>::infinity();
    total.time = getLatestTime();
    total.eventCount = swellCount;
    bool anyInEvent = false, anyBeyond = false;
    for (const DipSwellPhaseCalculation& phase : phases) {
        const SwellResult& result = phase.getSwellResult();
        total.firstValue = total.firstValue || result.firstValue;
        anyInEvent = anyInEvent || phase.getSwellState() == InEvent;
        anyBeyond = anyBeyond || phase.isAboveSwellThreshold();
        if (result.eventEnded && result.maximumVoltage > swell.extreme) swell.extreme = result.maximumVoltage;
    }
    const bool wasOpen = swell.open;
    if (trackPolyphaseEvent(swell, anyInEvent, anyBeyond, total.time)) {
        total.eventEnded = true;
        total.eventCount = ++swellCount;
        total.maximumVoltage = swell.extreme;
        total.duration = total.time - swell.startTime;
        total.timeAboveThreshold = swell.timeBeyond;
        total.time = swell.startTime;
    }
    total.eventStarted = !wasOpen && swell.open;
    return total;
}

// Carries the polyphase event of one direction (dip or swell) from value to value. `anyInEvent`:
// some channel is in an event; `anyBeyond`: some channel lies beyond its start level now; `time`:
// the time of the latest value. Returns true when the polyphase event ends with this value.
bool DipSwellMultiPhaseCalculation::trackPolyphaseEvent(PolyphaseEvent& event, bool anyInEvent, bool anyBeyond,
                                                        double time) {
    if (anyInEvent && !event.open) {
        event = PolyphaseEvent{};
        event.open = true;
        event.startTime = time;
    }
    if (!event.open) return false;
    // The time beyond the threshold counts the stretches in which at least one channel was beyond.
    if (anyBeyond && !event.beyond) event.beyondSince = time;
    if (!anyBeyond && event.beyond) event.timeBeyond += time - event.beyondSince;
    event.beyond = anyBeyond;
    if (anyInEvent) return false;
    event.open = false;
    return true;
}

}  // namespace tarnel
