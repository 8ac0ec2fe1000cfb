#include "tarnel/DipSwellPhaseCalculation.h"

#include <algorithm>
#include <limits>

namespace tarnel {

DipSwellPhaseCalculation::DipSwellPhaseCalculation() {
    reset();
    clearResult();
}

void DipSwellPhaseCalculation::calculate(double value, double time) {
    latestTime = time;
    calculateDip(value, time);
    calculateSwell(value, time);
}

void DipSwellPhaseCalculation::clearResult() {
    dipResult.firstValue = false;
    dipResult.eventEnded = false;
    dipResult.eventStarted = false;
    dipResult.depthInPercent = std::numeric_limits<double>::infinity();
    dipResult.residualVoltage = std::numeric_limits<double>::infinity();
    dipResult.duration = 0.0;
    dipResult.timeBelowThreshold = 0.0;
    swellResult.firstValue = false;
    swellResult.eventEnded = false;
    swellResult.eventStarted = false;
    swellResult.maximumVoltage = -std::numeric_limits<double>::infinity();
    swellResult.duration = 0.0;
    swellResult.timeAboveThreshold = 0.0;
}

void DipSwellPhaseCalculation::reset() {
    dipState = NoEvent;
    swellState = NoEvent;
    firstDipValue = true;
    firstSwellValue = true;
    dipStartTime = swellStartTime = 0.0;
    dipBelowSince = swellAboveSince = 0.0;
    dipTimeBelow = swellTimeAbove = 0.0;
    dipInBand = swellInBand = false;
    dipMinimum = swellMaximum = 0.0;
    dipCount = swellCount = 0;
    latestTime = 0.0;
    dipStartLevel = dipThreshold * 0.01 * referenceVoltage;
    dipEndLevel = dipHysteresis * 0.01 * referenceVoltage + dipStartLevel;
    swellStartLevel = swellThreshold * 0.01 * referenceVoltage;
    swellEndLevel = swellStartLevel - swellHysteresis * 0.01 * referenceVoltage;
}

void DipSwellPhaseCalculation::calculateDip(double value, double time) {
    dipResult.time = time;
    if (firstDipValue) {
        dipResult.firstValue = true;
        dipResult.eventCount = 0;
        firstDipValue = false;
        return;
    }
    if (dipState == NoEvent && dipStartLevel > value) {
        dipStartTime = time;
        dipBelowSince = time;
        dipMinimum = value;
        dipState = InEvent;
        dipInBand = false;
        dipResult.eventStarted = true;
    } else if (dipState == InEvent) {
        continueDip(value, time);
    }
}

void DipSwellPhaseCalculation::continueDip(double value, double time) {
    dipMinimum = std::min(dipMinimum, value);
    // Each value stands for the period that ends at its time, so a stretch below the start level
    // runs from the first value below it to the first value that is not, whether that value lies in
    // the hysteresis band or ends the dip.
    if (!dipInBand) {
        if (value >= dipStartLevel) {
            dipTimeBelow += time - dipBelowSince;
            dipInBand = true;
        }
    } else if (value < dipStartLevel) {
        dipBelowSince = time;
        dipInBand = false;
    }
    if (value >= dipEndLevel) endDip(time);
}

void DipSwellPhaseCalculation::endDip(double time) {
    dipResult.eventCount = ++dipCount;
    dipResult.residualVoltage = dipMinimum;
    dipResult.depthInPercent = (referenceVoltage - dipMinimum) / referenceVoltage * 100.0;
    dipResult.timeBelowThreshold = dipTimeBelow;
    dipTimeBelow = 0.0;
    dipResult.eventEnded = true;
    // An ended dip is reported at its start time.
    dipResult.time = dipStartTime;
    dipResult.duration = time - dipStartTime;
    dipState = NoEvent;
}

void DipSwellPhaseCalculation::calculateSwell(double value, double time) {
    swellResult.time = time;
    if (firstSwellValue) {
        swellResult.firstValue = true;
        swellResult.eventCount = 0;
        firstSwellValue = false;
        return;
    }
    if (swellState == NoEvent && value > swellStartLevel) {
        swellStartTime = time;
        swellAboveSince = time;
        swellMaximum = value;
        swellState = InEvent;
        swellInBand = false;
        swellResult.eventStarted = true;
    } else if (swellState == InEvent) {
        continueSwell(value, time);
    }
}

void DipSwellPhaseCalculation::continueSwell(double value, double time) {
    swellMaximum = std::max(swellMaximum, value);
    // Mirror image of the dip: a stretch above runs up to the first value at or below the start level.
    if (!swellInBand) {
        if (value <= swellStartLevel) {
            swellTimeAbove += time - swellAboveSince;
            swellInBand = true;
        }
    } else if (value > swellStartLevel) {
        swellAboveSince = time;
        swellInBand = false;
    }
    if (value <= swellEndLevel) endSwell(time);
}

void DipSwellPhaseCalculation::endSwell(double time) {
    swellResult.eventCount = ++swellCount;
    swellResult.maximumVoltage = swellMaximum;
    swellResult.timeAboveThreshold = swellTimeAbove;
    swellTimeAbove = 0.0;
    swellResult.eventEnded = true;
    swellResult.time = swellStartTime;
    swellResult.duration = time - swellStartTime;
    swellState = NoEvent;
}

}  // namespace tarnel
