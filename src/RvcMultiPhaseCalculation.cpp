#include "tarnel/RvcMultiPhaseCalculation.h"

namespace tarnel {

void RvcMultiPhaseCalculation::reset() {
    for (RvcPhaseCalculation& phase : phases) phase.reset();
    eventStartTime = noEventTime;
    previousState = -1;
    eventCount = 0;
}

RvcResult RvcMultiPhaseCalculation::getTotalResult() {
    RvcResult total;
    for (const RvcPhaseCalculation& phase : phases) mergePhaseResult(total, phase.getCurrentResult());
    if (total.state == 1) {
        if (eventStartTime == noEventTime) eventStartTime = total.time;
        // Nothing is reported while any channel is still in an event.
        total.eventDetected = false;
    } else if (total.state == 0) {
        if (total.eventDetected) {
            // The first channel's steady window is the settling time after the last change.
            total.duration = total.time - eventStartTime - phases.front().getSteadyStateDuration();
            ++total.eventCount;
        }
        // An event that ends unreported (a dip or swell began in it) closes the polyphase event too.
        eventStartTime = noEventTime;
    }
    total.stateChanged = total.state != previousState;
    previousState = total.state;
    eventCount = total.eventCount;
    return total;
}

void RvcMultiPhaseCalculation::mergePhaseResult(RvcResult& total, const RvcResult& phase) const {
    if (phase.deltaUmax > total.deltaUmax) total.deltaUmax = phase.deltaUmax;
    if (phase.deltaUss > total.deltaUss) total.deltaUss = phase.deltaUss;
    total.time = phase.time;
    total.eventDetected = total.eventDetected || phase.eventDetected;
    total.firstValue = total.firstValue || phase.firstValue;
    total.eventCount = eventCount;
    if (total.state == -1) total.state = phase.state;
    if (phase.state == 1) total.state = 1;
}

}  // namespace tarnel
