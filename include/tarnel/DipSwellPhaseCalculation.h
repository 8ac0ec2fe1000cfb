// Dip and swell detectors of one voltage channel, fed with per-period RMS values.
#pragma once

#include <cstdint>

#include "tarnel/Export.h"
#include "tarnel/PowerEvents.h"

namespace tarnel {

// A dip starts strictly below the dip level and ends at or above that level plus the hysteresis; a
// swell starts strictly above the swell level and ends at or below that level minus the hysteresis.
// All levels are percentages of the reference voltage. The first value after a reset only
// initialises the detectors.
class TARNEL_API DipSwellPhaseCalculation {
  public:
    DipSwellPhaseCalculation();

    void calculate(double value, double time);
    // Clears the per-value parts of both results before the next value.
    void clearResult();
    // Both reset the detectors and take over the settings.
    void initialize() { reset(); }
    void reset();

    const DipResult& getDipResult() const { return dipResult; }
    const SwellResult& getSwellResult() const { return swellResult; }
    DipSwellState getDipState() const { return dipState; }
    DipSwellState getSwellState() const { return swellState; }
    // Start of the current or last event; 0 before the first one.
    double getDipStartTime() const { return dipStartTime; }
    double getSwellStartTime() const { return swellStartTime; }
    // True while a dip (swell) is open and the latest value lies beyond its start level, outside
    // the hysteresis band.
    bool isBelowDipThreshold() const { return dipState == InEvent && !dipInBand; }
    bool isAboveSwellThreshold() const { return swellState == InEvent && !swellInBand; }
    // Time of the latest value fed; 0 before the first.
    double getLatestTime() const { return latestTime; }

    // Settings take effect at the next reset() or initialize().
    double getDipSwellReferenceVoltage() const { return referenceVoltage; }
    void setDipSwellReferenceVoltage(double voltage) { referenceVoltage = voltage; }
    double getDipThreshold() const { return dipThreshold; }
    void setDipThreshold(double threshold) { dipThreshold = threshold; }
    double getSwellThreshold() const { return swellThreshold; }
    void setSwellThreshold(double threshold) { swellThreshold = threshold; }
    double getDipHysteresis() const { return dipHysteresis; }
    void setDipHysteresis(double hysteresis) { dipHysteresis = hysteresis; }
    double getSwellHysteresis() const { return swellHysteresis; }
    void setSwellHysteresis(double hysteresis) { swellHysteresis = hysteresis; }

  private:
    void calculateDip(double value, double time);
    void continueDip(double value, double time);
    void endDip(double time);
    void calculateSwell(double value, double time);
    void continueSwell(double value, double time);
    void endSwell(double time);

    double referenceVoltage = 230.0;
    double dipThreshold = 80.0;
    double swellThreshold = 110.0;
    double dipHysteresis = 2.0;
    double swellHysteresis = 2.0;

    DipSwellState dipState = NoEvent;
    DipSwellState swellState = NoEvent;
    bool firstDipValue = true;
    bool firstSwellValue = true;
    uint32_t dipCount = 0;
    uint32_t swellCount = 0;
    DipResult dipResult;
    SwellResult swellResult;
    double dipStartTime = 0.0;
    double swellStartTime = 0.0;
    double dipBelowSince = 0.0;
    double swellAboveSince = 0.0;
    double dipTimeBelow = 0.0;
    double swellTimeAbove = 0.0;
    bool dipInBand = false;
    bool swellInBand = false;
    double dipMinimum = 0.0;
    double swellMaximum = 0.0;
    double dipStartLevel = 0.0;
    double dipEndLevel = 0.0;
    double swellStartLevel = 0.0;
    double swellEndLevel = 0.0;
    double latestTime = 0.0;
};

}  // namespace tarnel

// Global aliases for code written against unqualified names (see README).
#if defined(TARNEL_GLOBAL_NAMES)
using tarnel::DipSwellPhaseCalculation;
#endif
