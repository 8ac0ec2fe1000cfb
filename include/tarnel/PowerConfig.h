// The settings of one module and every quantity derived from them.
#pragma once

#include <cstdint>
#include <utility>

#include "tarnel/Export.h"
#include "tarnel/PowerGridConfig.h"

namespace tarnel {

struct TARNEL_API PowerConfig {
    PowerGridConfigType gridConfigType = SinglePhase;
    double sampleRate = 1.0;
    int32_t sampleRateDivider = 1;
    bool variableFrequency = false;
    double minFrequency = 45.0;
    double maxFrequency = 55.00000000000001;
    uint16_t periodCount = 10;
    bool periodValuesEnabled = false;
    bool fundamentalPeriodValuesEnabled = false;
    bool periodSymmetricalComponentsEnabled = false;
    uint16_t halfPeriodValuesCount = 2;
    uint16_t periodValuesOverlapInPercent = 0;
    bool currentEnabled = true;
    bool lineToLineResultsEnabled = false;
    bool waveformsEnabled = false;
    bool interHarmonicsEnabled = false;
    bool fullFftEnabled = false;
    bool thdEnabled = false;
    int32_t highestRequestedHarmonic = 1;
    int32_t thdHighestHarmonic = 40;
    bool symmetricalComponentsEnabled = false;
    bool rvcEnabled = false;
    int32_t rvcSteadyStateLength = 100;
    double rvcThreshold = 2.0;
    double rvcThresholdHysteresis = 50.0;
    bool dipSwellEnabled = false;
    double dipThreshold = 85.0;
    double swellThreshold = 110.0;
    double dipHysteresis = 2.0;
    double swellHysteresis = 2.0;
    double nominalVoltage = 230.0;
    double nominalLineToLineVoltage = 400.0;
    bool clarkeTransformEnabled = false;
    bool parkTransformEnabled = false;
    bool clarkeOrParkVoltagesEnabled = false;
    bool clarkeOrParkCurrentsEnabled = false;
    bool clarkeOrParkWaveformsEnabled = false;
    bool mechanicalAngleUsed = false;
    int32_t polePairs = 0;
    double mechAngleOffset = 0.0;

    PowerGridConfig getGridConfig() const;

    unsigned char getPhasesCount() const;
    unsigned char getVoltagesCount() const;
    unsigned char getCurrentsCount() const;
    unsigned char getLineToLineCount() const;
    unsigned char getDeltaWaveformsCount() const;

    bool areAnyPeriodValuesEnabled() const;
    bool areSymmetricalComponentsEnabled() const;
    bool arePeriodSymmetricalComponentsEnabled() const;
    bool areClarkeVoltagesEnabled() const;
    bool areClarkeCurrentsEnabled() const;
    bool areParkVoltagesEnabled() const;
    bool areParkCurrentsEnabled() const;
    bool areClarkeWaveformsRequired() const;
    bool areParkWaveformsRequired() const;

    // FFT length of a block of `length` samples at `frequency` Hz.
    unsigned long long getFftLength(unsigned long long length, double frequency) const;
    // Power-of-two length that covers periodCount periods at `frequency`.
    unsigned long long getFftLengthX(double frequency) const;
    unsigned long long getMinFftLength() const;
    unsigned long long getMaxFftLength() const;
    static unsigned long long getPow2Length(double x);

    unsigned long long getRequiredHarmonicsCount() const;

    double getPeriodCountForPeriodValues() const;
    double getPeriodCountAdvanceBy() const;
    std::pair<unsigned short, unsigned short> getPeriodCountAdvanceByRatio() const;
};

}  // namespace tarnel

// Global aliases for code written against unqualified names (see README).
#if defined(TARNEL_GLOBAL_NAMES)
using tarnel::PowerConfig;
#endif
