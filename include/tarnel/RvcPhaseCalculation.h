// Rapid voltage change detector of one voltage channel, fed with per-period RMS values.
#pragma once

#include <cstdint>
#include <deque>
#include <limits>

#include "tarnel/Export.h"
#include "tarnel/PowerEvents.h"

namespace tarnel {

// Keeps a sliding window of the latest RMS values. The voltage is steady while every value of a
// full window lies within +/- threshold percent of the window average; leaving that band starts an
// event, which ends once a full window is steady again within the tighter hysteresis band. No event
// opens before the first full window that is steady.
class TARNEL_API RvcPhaseCalculation {
  public:
    // Feeds one RMS value. An event during which a dip or swell began (its start time at or after
    // the event's start) ends silently instead of being reported.
    void calculate(double value, double time, double dipStartTime, double swellStartTime);
    // Clears the per-value parts of the result before the next value.
    void clearResult();
    void reset();

    const RvcResult& getCurrentResult() const { return result; }
    // Time from the oldest to the newest value of the window.
    double getSteadyStateDuration() const;

    uint64_t getSteadyStateLength() const { return steadyStateLength; }
    void setSteadyStateLength(uint64_t length) { steadyStateLength = length; }
    double getSteadyStateThreshold() const { return steadyStateThreshold; }
    void setSteadyStateThreshold(double threshold) { steadyStateThreshold = threshold; }
    double getThresholdHysteresis() const { return thresholdHysteresis; }
    void setThresholdHysteresis(double hysteresis) { thresholdHysteresis = hysteresis; }

  private:
    double getAverage() const;
    double getThreshold() const;
    bool isSteadyState() const;
    uint64_t getWindowLength() const;
    void addToWindow(double value, double time);
    uint32_t startEventIfUnsteady(double value, double time);
    uint32_t continueEvent(double value, double dipStartTime, double swellStartTime);
    void reportEvent();
    void updateResultState(int32_t newState);

    std::deque<double> values;
    std::deque<double> times;
    uint64_t steadyStateLength = 100;
    double steadyStateThreshold = 2.0;
    double thresholdHysteresis = 50.0;
    uint32_t state = 0;
    RvcResult result;
    double sum = 0.0;
    uint32_t eventLength = 0;
    double averageBefore = 0.0;
    double eventStartTime = 0.0;
    double maxDeviation = -std::numeric_limits<double>::infinity();
    bool steadyWindowSeen = false;
};

}  // namespace tarnel

// Global aliases for code written against unqualified names (see README).
#if defined(TARNEL_GLOBAL_NAMES)
using tarnel::RvcPhaseCalculation;
#endif
