#include "RecordLayout.h"

#include <cstddef>

#include "tarnel/PowerResults.h"

namespace nb = nanobind;

namespace tarnel {}
namespace tarnel::bindings {

using namespace tarnel;

namespace {

// Pointer fields are left out: they refer to the module's buffers, and the
// harmonics they point to are handed over as arrays of their own.
#define FIELD(Record, member, format) fields.append(nb::make_tuple(#member, format, offsetof(Record, member), 1))
#define ARRAY(Record, member, format, count) \
    fields.append(nb::make_tuple(#member, format, offsetof(Record, member), count))

nb::tuple thdLayout() {
    nb::list fields;
    FIELD(PowerResultsThd, thd, "f8");
    FIELD(PowerResultsThd, thdEven, "f8");
    FIELD(PowerResultsThd, thdOdd, "f8");
    FIELD(PowerResultsThd, thdOddTriplen, "f8");
    FIELD(PowerResultsThd, thdOddNonTriplen, "f8");
    FIELD(PowerResultsThd, thdOfRms, "f8");
    FIELD(PowerResultsThd, harmonicContent, "f8");
    FIELD(PowerResultsThd, distortionContent, "f8");
    FIELD(PowerResultsThd, totalDistortion, "f8");
    return nb::make_tuple(sizeof(PowerResultsThd), fields);
}

nb::tuple phaseLayout() {
    nb::list fields;
    FIELD(PowerResultsPhase, rectifiedMeanU, "f8");
    FIELD(PowerResultsPhase, rectifiedMeanI, "f8");
    FIELD(PowerResultsPhase, rectifiedMeanUL, "f8");
    FIELD(PowerResultsPhase, rmsU, "f8");
    FIELD(PowerResultsPhase, rmsI, "f8");
    FIELD(PowerResultsPhase, rmsUL, "f8");
    FIELD(PowerResultsPhase, activePower, "f8");
    FIELD(PowerResultsPhase, spectralRmsU, "f8");
    FIELD(PowerResultsPhase, spectralRmsI, "f8");
    FIELD(PowerResultsPhase, spectralRmsUL, "f8");
    FIELD(PowerResultsPhase, fundamentalU, "f8");
    FIELD(PowerResultsPhase, fundamentalI, "f8");
    FIELD(PowerResultsPhase, fundamentalUL, "f8");
    FIELD(PowerResultsPhase, spectralActivePower, "f8");
    FIELD(PowerResultsPhase, nonActivePower, "f8");
    FIELD(PowerResultsPhase, apparentPower, "f8");
    FIELD(PowerResultsPhase, powerFactor, "f8");
    FIELD(PowerResultsPhase, distortionPower, "f8");
    FIELD(PowerResultsPhase, budeanuReactivePower, "f8");
    FIELD(PowerResultsPhase, budeanuDistortionPower, "f8");
    FIELD(PowerResultsPhase, fundamentalActivePower, "f8");
    FIELD(PowerResultsPhase, fundamentalReactivePower, "f8");
    FIELD(PowerResultsPhase, fundamentalApparentPower, "f8");
    FIELD(PowerResultsPhase, displacementPowerFactor, "f8");
    FIELD(PowerResultsPhase, fundamentalReactivePowerSum, "f8");
    FIELD(PowerResultsPhase, impedance, "f8");
    FIELD(PowerResultsPhase, fundamentalImpedance, "f8");
    FIELD(PowerResultsPhase, thdU, "thd");
    FIELD(PowerResultsPhase, thdI, "thd");
    FIELD(PowerResultsPhase, thdUL, "thd");
    FIELD(PowerResultsPhase, interharmonicDistortionU, "thd");
    FIELD(PowerResultsPhase, interharmonicDistortionI, "thd");
    FIELD(PowerResultsPhase, interharmonicDistortionUL, "thd");
    FIELD(PowerResultsPhase, currentHarmonicContent, "f8");
    return nb::make_tuple(sizeof(PowerResultsPhase), fields);
}

nb::tuple sequenceLayout() {
    using S = PowerResultsSymmetricalComponent;
    nb::list fields;
    FIELD(S, voltage, "c16");
    FIELD(S, lineToLineVoltage, "c16");
    FIELD(S, current, "c16");
    FIELD(S, voltageMagnitude, "f8");
    FIELD(S, lineToLineVoltageMagnitude, "f8");
    FIELD(S, currentMagnitude, "f8");
    FIELD(S, activePower, "f8");
    FIELD(S, reactivePower, "f8");
    FIELD(S, apparentPower, "f8");
    FIELD(S, activeCurrent, "f8");
    FIELD(S, reactiveCurrent, "f8");
    FIELD(S, powerFactor, "f8");
    FIELD(S, voltageAllBins, "f8");
    FIELD(S, currentAllBins, "f8");
    FIELD(S, voltageAllBinsRatio, "f8");
    FIELD(S, currentAllBinsRatio, "f8");
    FIELD(S, voltageRatio, "f8");
    FIELD(S, currentRatio, "f8");
    return nb::make_tuple(sizeof(S), fields);
}

nb::tuple blockLayout() {
    using G = PowerResultsGeneral;
    nb::list fields;
    FIELD(G, endTime, "f8");
    FIELD(G, frequency, "f8");
    FIELD(G, dFrequency, "f8");
    FIELD(G, referenceAngle, "f8");
    FIELD(G, firstSampleIndex, "u8");
    FIELD(G, length, "u4");
    FIELD(G, fftOutputLength, "u4");
    FIELD(G, harmonicLength, "u4");
    FIELD(G, phasesCount, "u1");
    ARRAY(G, phases, "phase", 4);
    ARRAY(G, symmetricalComponents, "sequence", 3);
    ARRAY(G, clarkeU, "c16", 3);
    ARRAY(G, parkU, "f8", 3);
    ARRAY(G, clarkeI, "c16", 3);
    ARRAY(G, parkI, "f8", 3);
    return nb::make_tuple(sizeof(G), fields);
}

nb::tuple rvcLayout() {
    nb::list fields;
    FIELD(RvcResult, stateChanged, "?");
    FIELD(RvcResult, firstValue, "?");
    FIELD(RvcResult, state, "i4");
    FIELD(RvcResult, eventDetected, "?");
    FIELD(RvcResult, eventCount, "u4");
    FIELD(RvcResult, deltaUss, "f4");
    FIELD(RvcResult, deltaUmax, "f4");
    FIELD(RvcResult, duration, "f8");
    FIELD(RvcResult, time, "f8");
    return nb::make_tuple(sizeof(RvcResult), fields);
}

nb::tuple dipLayout() {
    nb::list fields;
    FIELD(DipResult, firstValue, "?");
    FIELD(DipResult, eventEnded, "?");
    FIELD(DipResult, eventStarted, "?");
    FIELD(DipResult, eventCount, "u4");
    FIELD(DipResult, depthInPercent, "f8");
    FIELD(DipResult, residualVoltage, "f8");
    FIELD(DipResult, duration, "f8");
    FIELD(DipResult, timeBelowThreshold, "f8");
    FIELD(DipResult, time, "f8");
    return nb::make_tuple(sizeof(DipResult), fields);
}

nb::tuple swellLayout() {
    nb::list fields;
    FIELD(SwellResult, firstValue, "?");
    FIELD(SwellResult, eventEnded, "?");
    FIELD(SwellResult, eventStarted, "?");
    FIELD(SwellResult, eventCount, "u4");
    FIELD(SwellResult, maximumVoltage, "f8");
    FIELD(SwellResult, duration, "f8");
    FIELD(SwellResult, timeAboveThreshold, "f8");
    FIELD(SwellResult, time, "f8");
    return nb::make_tuple(sizeof(SwellResult), fields);
}

nb::tuple periodLayout() {
    using P = PowerResultsPeriod;
    nb::list fields;
    FIELD(P, time, "f8");
    FIELD(P, frequency, "f8");
    FIELD(P, rmsU, "f8");
    FIELD(P, rmsI, "f8");
    FIELD(P, rmsUL, "f8");
    FIELD(P, activePower, "f8");
    FIELD(P, nonActivePower, "f8");
    FIELD(P, apparentPower, "f8");
    FIELD(P, powerFactor, "f8");
    FIELD(P, fundamentalU, "f8");
    FIELD(P, fundamentalI, "f8");
    FIELD(P, fundamentalActivePower, "f8");
    FIELD(P, fundamentalReactivePower, "f8");
    FIELD(P, fundamentalReactivePowerSum, "f8");
    FIELD(P, fundamentalApparentPower, "f8");
    FIELD(P, fundamentalPhaseAngle, "f8");
    FIELD(P, valid, "?");
    FIELD(P, rvc, "rvc");
    FIELD(P, rvcUL, "rvc");
    FIELD(P, dip, "dip");
    FIELD(P, dipUL, "dip");
    FIELD(P, swell, "swell");
    FIELD(P, swellUL, "swell");
    FIELD(P, symmetricalComponent, "sequence");
    return nb::make_tuple(sizeof(P), fields);
}

#undef FIELD
#undef ARRAY

}  // namespace

nb::dict recordLayouts() {
    nb::dict d;
    d["thd"] = thdLayout();
    d["phase"] = phaseLayout();
    d["sequence"] = sequenceLayout();
    d["block"] = blockLayout();
    d["rvc"] = rvcLayout();
    d["dip"] = dipLayout();
    d["swell"] = swellLayout();
    d["period"] = periodLayout();
    return d;
}

}  // namespace tarnel::bindings
