#include "tarnel/RvcPhaseCalculation.h"

#include <algorithm>
#include <cmath>

namespace tarnel {

namespace {

constexpr uint32_t steadyState = 0;
constexpr uint32_t eventState = 1;

}  // namespace

void RvcPhaseCalculation::calculate(double value, double time, double dipStartTime, double swellStartTime) {
    result.time = time;
    const bool eventInProgress = state == eventState;
    // The reference level is the last steady average; it stays frozen while an event lasts.
    if (!eventInProgress) averageBefore = getAverage();
    addToWindow(value, time);
    const uint32_t newState =
        eventInProgress ? continueEvent(value, dipStartTime, swellStartTime) : startEventIfUnsteady(value, time);
    updateResultState(static_cast<int32_t>(newState));
}

void RvcPhaseCalculation::clearResult() {
    result.eventDetected = false;
    result.duration = 0.0;
    result.deltaUss = 0.0f;
    result.deltaUmax = 0.0f;
    result.firstValue = false;
}

void RvcPhaseCalculation::reset() {
    sum = 0.0;
    eventLength = 0;
    values.clear();
    times.clear();
    state = steadyState;
    maxDeviation = -std::numeric_limits<double>::infinity();
    averageBefore = 0.0;
    steadyWindowSeen = false;
    result.state = -1;
    result.eventCount = 0;
}

double RvcPhaseCalculation::getSteadyStateDuration() const {
    if (times.size() < 2) return 0.0;
    return times.back() - times.front();
}

double RvcPhaseCalculation::getAverage() const {
    if (values.empty()) return 0.0;
    return sum / static_cast<double>(values.size());
}

double RvcPhaseCalculation::getThreshold() const {
    if (state == eventState) return thresholdHysteresis * steadyStateThreshold / 100.0;
    return steadyStateThreshold;
}

bool RvcPhaseCalculation::isSteadyState() const {
    // A window that is still filling cannot show a change yet.
    if (values.size() < getWindowLength()) return true;
    const double average = getAverage();
    const double band = getThreshold() * average / 100.0;
    return std::all_of(values.begin(), values.end(),
                       [&](double v) { return v <= average + band && v >= average - band; });
}

// A window length of 0 is treated as 1: the window always keeps the latest value, so the steady
// state duration and the event bookkeeping stay defined. A single value always lies on its own
// average, so with either length no event can start.
uint64_t RvcPhaseCalculation::getWindowLength() const { return std::max<uint64_t>(steadyStateLength, 1); }

void RvcPhaseCalculation::addToWindow(double value, double time) {
    sum += value;
    values.push_back(value);
    times.push_back(time);
    if (values.size() > getWindowLength()) {
        sum -= values.front();
        values.pop_front();
        times.pop_front();
    }
}

uint32_t RvcPhaseCalculation::startEventIfUnsteady(double value, double time) {
    const bool steady = isSteadyState();
    // Until a full window has been steady there is no steady level to change from: a window that
    // fills during a dip or a ramp opens no event.
    if (values.size() >= getWindowLength() && steady) steadyWindowSeen = true;
    if (steady || !steadyWindowSeen) return steadyState;
    eventStartTime = time;
    state = eventState;
    eventLength = 1;
    maxDeviation = std::abs(averageBefore - value);
    return eventState;
}

uint32_t RvcPhaseCalculation::continueEvent(double value, double dipStartTime, double swellStartTime) {
    ++eventLength;
    if (isSteadyState() && eventLength >= getWindowLength()) {
        state = steadyState;
        eventLength = 0;
        // Written as "not at or after" so that an unset (NaN) start time does not suppress the event.
        const bool dipBegan = dipStartTime >= eventStartTime;
        const bool swellBegan = swellStartTime >= eventStartTime;
        if (!dipBegan && !swellBegan) reportEvent();
        return steadyState;
    }
    maxDeviation = std::max(maxDeviation, std::abs(averageBefore - value));
    return eventState;
}

void RvcPhaseCalculation::reportEvent() {
    ++result.eventCount;
    result.eventDetected = true;
    result.deltaUmax = static_cast<float>(maxDeviation);
    result.deltaUss = static_cast<float>(std::abs(averageBefore - getAverage()));
    // The new steady window starts where the change settled, so its oldest value closes the event.
    result.duration = times.front() - eventStartTime;
}

void RvcPhaseCalculation::updateResultState(int32_t newState) {
    result.stateChanged = result.state != newState;
    if (result.state == -1 && newState != -1) result.firstValue = true;
    result.state = newState;
}

}  // namespace tarnel
