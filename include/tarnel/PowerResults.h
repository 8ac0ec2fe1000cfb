// Result records that cross the library boundary. Their layout is an external
// format: every size and offset is fixed and checked at compile time.
#pragma once

#include <cstddef>
#include <cstdint>

#include "tarnel/PowerEvents.h"
#include "tarnel/VectorTypes.h"

namespace tarnel {

// A complex double inside result records: real part, then imaginary part, with
// 8-byte alignment so that the records keep their packed layout.
struct ComplexDouble {
    double x;
    double y;
};

// Total harmonic distortion of one channel (72 bytes). On the device the first
// five fields hold sums of squared group values; on the host, percentages.
struct PowerResultsThd {
    double thd;
    double thdEven;
    double thdOdd;
    double thdOddTriplen;
    double thdOddNonTriplen;
    double thdOfRms;
    double harmonicContent;
    double distortionContent;
    double totalDistortion;
};

// Values of one phase, or the totals of all phases (776 bytes).
struct PowerResultsPhase {
    double rectifiedMeanU;
    double rectifiedMeanI;
    double rectifiedMeanUL;
    double rmsU;
    double rmsI;
    double rmsUL;
    double activePower;
    double spectralRmsU;
    double spectralRmsI;
    double spectralRmsUL;
    double fundamentalU;
    double fundamentalI;
    double fundamentalUL;
    double spectralActivePower;
    double nonActivePower;
    double apparentPower;
    double powerFactor;
    double distortionPower;
    double budeanuReactivePower;
    double budeanuDistortionPower;
    double fundamentalActivePower;
    double fundamentalReactivePower;
    double fundamentalApparentPower;
    double displacementPowerFactor;
    double fundamentalReactivePowerSum;
    double impedance;
    double fundamentalImpedance;
    PowerResultsThd thdU;
    PowerResultsThd thdI;
    PowerResultsThd thdUL;
    PowerResultsThd interharmonicDistortionU;
    PowerResultsThd interharmonicDistortionI;
    PowerResultsThd interharmonicDistortionUL;
    double currentHarmonicContent;
    const float2* fftU;
    const float2* fftI;
    const float2* fftUL;
    const float* harmonicsU;
    const float* harmonicsI;
    const float* harmonicsUL;
    const float* interharmonicsU;
    const float* interharmonicsI;
    const float* interharmonicsUL;
    const float* harmonicActivePowers;
    const float* harmonicReactivePowers;
    const float* harmonicApparentPowers;
    const float* harmonicImpedances;
    const float* harmonicAnglesU;
    const float* harmonicAnglesI;
};

// One sequence component (zero, positive or negative) of a three-phase set (168 bytes).
struct PowerResultsSymmetricalComponent {
    ComplexDouble voltage{0.0, 0.0};
    ComplexDouble lineToLineVoltage{0.0, 0.0};
    ComplexDouble current{0.0, 0.0};
    double voltageMagnitude;
    double lineToLineVoltageMagnitude;
    double currentMagnitude;
    double activePower;
    double reactivePower;
    double apparentPower;
    double activeCurrent;
    double reactiveCurrent;
    double powerFactor;
    double voltageAllBins;
    double currentAllBins;
    double voltageAllBinsRatio;
    double currentAllBinsRatio;
    double voltageRatio;
    double currentRatio;
};

// The result of one block calculation (3808 bytes).
struct PowerResultsGeneral {
    double endTime;
    double frequency;
    double dFrequency;
    double referenceAngle;
    uint64_t firstSampleIndex;
    uint32_t length;
    uint32_t fftOutputLength;
    uint32_t harmonicLength;
    uint8_t phasesCount;
    uint8_t reserved[3];
    PowerResultsPhase phases[4];
    PowerResultsSymmetricalComponent symmetricalComponents[3];
    ComplexDouble clarkeU[3];
    double parkU[3];
    ComplexDouble clarkeI[3];
    double parkI[3];
};

// One record of a period value (568 bytes); a value is (phases + 1) records.
struct PowerResultsPeriod {
    double time;
    double frequency;
    double rmsU;
    double rmsI;
    double rmsUL;
    double activePower;
    double nonActivePower;
    double apparentPower;
    double powerFactor;
    double fundamentalU;
    double fundamentalI;
    double reserved;
    double fundamentalActivePower;
    double fundamentalReactivePower;
    double fundamentalReactivePowerSum;
    double fundamentalApparentPower;
    double fundamentalPhaseAngle;
    bool valid;
    RvcResult rvc;
    RvcResult rvcUL;
    DipResult dip;
    DipResult dipUL;
    SwellResult swell;
    SwellResult swellUL;
    PowerResultsSymmetricalComponent symmetricalComponent;
};

static_assert(sizeof(PowerResultsThd) == 72, "PowerResultsThd layout");
static_assert(sizeof(PowerResultsPhase) == 776, "PowerResultsPhase layout");
static_assert(offsetof(PowerResultsPhase, spectralRmsU) == 56, "PowerResultsPhase layout");
static_assert(offsetof(PowerResultsPhase, spectralActivePower) == 104, "PowerResultsPhase layout");
static_assert(offsetof(PowerResultsPhase, nonActivePower) == 112, "PowerResultsPhase layout");
static_assert(offsetof(PowerResultsPhase, budeanuReactivePower) == 144, "PowerResultsPhase layout");
static_assert(offsetof(PowerResultsPhase, fundamentalImpedance) == 208, "PowerResultsPhase layout");
static_assert(offsetof(PowerResultsPhase, thdU) == 216, "PowerResultsPhase layout");
static_assert(offsetof(PowerResultsPhase, interharmonicDistortionUL) == 576, "PowerResultsPhase layout");
static_assert(offsetof(PowerResultsPhase, currentHarmonicContent) == 648, "PowerResultsPhase layout");
static_assert(offsetof(PowerResultsPhase, fftU) == 656, "PowerResultsPhase layout");
static_assert(offsetof(PowerResultsPhase, harmonicsU) == 680, "PowerResultsPhase layout");
static_assert(offsetof(PowerResultsPhase, harmonicActivePowers) == 728, "PowerResultsPhase layout");
static_assert(offsetof(PowerResultsPhase, harmonicAnglesU) == 760, "PowerResultsPhase layout");
static_assert(offsetof(PowerResultsPhase, harmonicAnglesI) == 768, "PowerResultsPhase layout");
static_assert(sizeof(PowerResultsSymmetricalComponent) == 168, "PowerResultsSymmetricalComponent layout");
static_assert(offsetof(PowerResultsSymmetricalComponent, current) == 32, "sequence record layout");
static_assert(offsetof(PowerResultsSymmetricalComponent, voltageMagnitude) == 48, "sequence record layout");
static_assert(offsetof(PowerResultsSymmetricalComponent, activePower) == 72, "sequence record layout");
static_assert(offsetof(PowerResultsSymmetricalComponent, voltageAllBins) == 120, "sequence record layout");
static_assert(offsetof(PowerResultsSymmetricalComponent, currentRatio) == 160, "sequence record layout");
static_assert(sizeof(PowerResultsGeneral) == 3808, "PowerResultsGeneral layout");
static_assert(offsetof(PowerResultsGeneral, referenceAngle) == 24, "PowerResultsGeneral layout");
static_assert(offsetof(PowerResultsGeneral, firstSampleIndex) == 32, "PowerResultsGeneral layout");
static_assert(offsetof(PowerResultsGeneral, length) == 40, "PowerResultsGeneral layout");
static_assert(offsetof(PowerResultsGeneral, fftOutputLength) == 44, "PowerResultsGeneral layout");
static_assert(offsetof(PowerResultsGeneral, harmonicLength) == 48, "PowerResultsGeneral layout");
static_assert(offsetof(PowerResultsGeneral, phasesCount) == 52, "PowerResultsGeneral layout");
static_assert(offsetof(PowerResultsGeneral, phases) == 56, "PowerResultsGeneral layout");
static_assert(offsetof(PowerResultsGeneral, symmetricalComponents) == 3160, "PowerResultsGeneral layout");
static_assert(offsetof(PowerResultsGeneral, clarkeU) == 3664, "PowerResultsGeneral layout");
static_assert(offsetof(PowerResultsGeneral, parkU) == 3712, "PowerResultsGeneral layout");
static_assert(offsetof(PowerResultsGeneral, clarkeI) == 3736, "PowerResultsGeneral layout");
static_assert(offsetof(PowerResultsGeneral, parkI) == 3784, "PowerResultsGeneral layout");
static_assert(sizeof(PowerResultsPeriod) == 568, "PowerResultsPeriod layout");
static_assert(offsetof(PowerResultsPeriod, fundamentalActivePower) == 96, "PowerResultsPeriod layout");
static_assert(offsetof(PowerResultsPeriod, fundamentalPhaseAngle) == 128, "PowerResultsPeriod layout");
static_assert(offsetof(PowerResultsPeriod, valid) == 136, "PowerResultsPeriod layout");
static_assert(offsetof(PowerResultsPeriod, rvc) == 144, "PowerResultsPeriod layout");
static_assert(offsetof(PowerResultsPeriod, rvcUL) == 184, "PowerResultsPeriod layout");
static_assert(offsetof(PowerResultsPeriod, dip) == 224, "PowerResultsPeriod layout");
static_assert(offsetof(PowerResultsPeriod, dipUL) == 272, "PowerResultsPeriod layout");
static_assert(offsetof(PowerResultsPeriod, swell) == 320, "PowerResultsPeriod layout");
static_assert(offsetof(PowerResultsPeriod, swellUL) == 360, "PowerResultsPeriod layout");
static_assert(offsetof(PowerResultsPeriod, symmetricalComponent) == 400, "PowerResultsPeriod layout");

}  // namespace tarnel

// Global aliases for code written against unqualified names (see README).
#if defined(TARNEL_GLOBAL_NAMES)
using tarnel::ComplexDouble;
using tarnel::PowerResultsGeneral;
using tarnel::PowerResultsPeriod;
using tarnel::PowerResultsPhase;
using tarnel::PowerResultsSymmetricalComponent;
using tarnel::PowerResultsThd;
#endif
