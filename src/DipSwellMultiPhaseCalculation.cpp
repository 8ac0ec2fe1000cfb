#include "tarnel/DipSwellMultiPhaseCalculation.h"

#include <algorithm>
#include <limits>

namespace tarnel {

namespace {

// Opens or closes the polyphase event from the channels' states. `startTime` holds the start of the
// open event or `noEventTime`; `count` counts the ended polyphase events.
template <typename Result>
void trackPolyphaseEvent(Result& total, bool anyInEvent, double noEventTime, double& startTime, uint32_t& count) {
    if (anyInEvent) {
        total.eventEnded = false;
        total.eventStarted = startTime == noEventTime;
        if (total.eventStarted) startTime = total.time;
        return;
    }
    if (!total.eventEnded) return;
    total.duration = total.time - startTime;
    startTime = noEventTime;
    count = ++total.eventCount;
}

}  // namespace

void DipSwellMultiPhaseCalculation::reset() {
    for (DipSwellPhaseCalculation& phase : phases) phase.reset();
    dipStartTime = noEventTime;
    swellStartTime = noEventTime;
    dipCount = 0;
    swellCount = 0;
}

DipResult DipSwellMultiPhaseCalculation::getDipTotalResult() {
    DipResult total;
    total.depthInPercent = std::numeric_limits<double>::infinity();
    total.residualVoltage = std::numeric_limits<double>::infinity();
    bool anyInEvent = false;
    for (const DipSwellPhaseCalculation& phase : phases) {
        const DipResult& result = phase.getDipResult();
        total.depthInPercent = std::min(total.depthInPercent, result.depthInPercent);
        total.residualVoltage = std::min(total.residualVoltage, result.residualVoltage);
        total.time = result.time;
        total.eventCount = dipCount;
        total.firstValue = total.firstValue || result.firstValue;
        total.eventEnded = total.eventEnded || result.eventEnded;
        total.eventStarted = total.eventStarted || result.eventStarted;
        anyInEvent = anyInEvent || phase.getDipState() == InEvent;
    }
    trackPolyphaseEvent(total, anyInEvent, noEventTime, dipStartTime, dipCount);
    return total;
}

SwellResult DipSwellMultiPhaseCalculation::getSwellTotalResult() {
    SwellResult total;
    total.maximumVoltage = -std::numeric_limits<double>::infinity();
    bool anyInEvent = false;
    for (const DipSwellPhaseCalculation& phase : phases) {
        const SwellResult& result = phase.getSwellResult();
        total.maximumVoltage = std::max(total.maximumVoltage, result.maximumVoltage);
        total.time = result.time;
        total.eventCount = swellCount;
        total.firstValue = total.firstValue || result.firstValue;
        total.eventEnded = total.eventEnded || result.eventEnded;
        total.eventStarted = total.eventStarted || result.eventStarted;
        anyInEvent = anyInEvent || phase.getSwellState() == InEvent;
    }
    trackPolyphaseEvent(total, anyInEvent, noEventTime, swellStartTime, swellCount);
    return total;
}

}  // namespace tarnel
