// Collection of finished block calculations: the device's raw sums become
// RMS values, powers, THD and totals on the host.
#include <algorithm>
#include <cmath>
#include <cstring>

#include "PowerModuleImpl.h"
#include "PowerQuantities.h"
#include "kernels/KernelMath.h"
#include "tarnel/PowerSymmetricalComponents.h"

namespace tarnel {

bool PowerModule::PowerModuleImpl::isAnyResultReady() {
    std::lock_guard<std::mutex> lock(resultsMutex);
    return !resultsQueue.empty() && resultsQueue.front()->isResultReady();
}

std::vector<PowerResultsGeneral> PowerModule::PowerModuleImpl::getResults(unsigned int maxCount) {
    std::vector<PowerResultsGeneral> results;
    std::lock_guard<std::mutex> lock(resultsMutex);
    while (maxCount == 0 || results.size() < maxCount) {
        if (resultsQueue.empty() || !resultsQueue.front()->isResultReady()) break;
        std::shared_ptr<PowerResultsQueueItem> item = resultsQueue.front();
        resultsQueue.pop_front();
        processedSampleIndex = item->getNextSampleIndex();
        results.push_back(collectResult(*item));
    }
    return results;
}

PowerResultsGeneral PowerModule::PowerModuleImpl::collectResult(const PowerResultsQueueItem& item) {
    PowerResultsGeneral record;
    std::memset(static_cast<void*>(&record), 0, sizeof(record));
    const size_t row = item.getIndex() % buffers.getGeneralResultsBufferLength();
    const PowerResultsGeneral& sums = *buffers.generalResultsBuffer.getHostBufferAt(row, 1, 0);
    record.endTime = static_cast<double>(item.getFirstSampleIndex() + item.getLength()) / config.sampleRate;
    record.frequency = item.getFrequency();
    record.dFrequency = item.getDFrequency();
    record.firstSampleIndex = item.getFirstSampleIndex();
    record.length = item.getLength();
    record.fftOutputLength = item.getFftOutputLength();
    record.harmonicLength = item.getHarmonicLength();
    record.phasesCount = config.getPhasesCount();
    const unsigned phases = record.phasesCount;
    for (unsigned p = 0; p < phases; ++p) {
        fillPhase(record, sums, item, p, row);
        if (phases >= 2) addToTotals(record.phases[phases], record.phases[p], p, phases);
    }
    if (phases >= 2 && config.currentEnabled) completeTotals(record.phases[phases]);
    if (config.areSymmetricalComponentsEnabled()) fillSymmetricalComponents(record, row);
    fillClarkePark(record, row);
    return record;
}

void PowerModule::PowerModuleImpl::fillPhase(PowerResultsGeneral& record, const PowerResultsGeneral& sums,
                                             const PowerResultsQueueItem& item, unsigned p, size_t row) {
    PowerResultsPhase& r = record.phases[p];
    const PowerResultsPhase& d = sums.phases[p];
    const double length = item.getLength();
    const bool lineToLine = config.lineToLineResultsEnabled && p < config.getLineToLineCount();
    const bool current = config.currentEnabled;
    const bool inter = config.interHarmonicsEnabled;
    const auto slot = static_cast<unsigned short>(p);
    const unsigned h = item.getHarmonicLength();
    auto harmonics = [&](unsigned short s) -> const float* {
        return buffers.harmonicsBuffer.getHostBufferAt(item.getFirstHarmonicSampleIndex(), h, s);
    };
    auto spectra = [&](unsigned short s) -> const float2* {
        return buffers.fftOutputBuffer.getHostBufferAt(item.getFirstFftOutputSampleIndex(), item.getFftOutputLength(),
                                                       s);
    };

    r.rectifiedMeanU = d.rectifiedMeanU / length;
    r.rmsU = std::sqrt(d.rmsU / length);
    r.spectralRmsU = std::sqrt(d.spectralRmsU);
    if (lineToLine) {
        r.rectifiedMeanUL = d.rectifiedMeanUL / length;
        r.rmsUL = std::sqrt(d.rmsUL / length);
        r.spectralRmsUL = std::sqrt(d.spectralRmsUL);
    }
    if (current) {
        r.rectifiedMeanI = d.rectifiedMeanI / length;
        r.rmsI = std::sqrt(d.rmsI / length);
        r.spectralRmsI = std::sqrt(d.spectralRmsI);
        r.activePower = d.activePower / length;
        r.spectralActivePower = d.spectralActivePower;
        r.budeanuReactivePower = d.nonActivePower;
        r.apparentPower = r.spectralRmsU * r.spectralRmsI;
        r.nonActivePower = nonNegativeRoot(r.apparentPower, r.spectralActivePower);
        r.powerFactor = ratioOrZero(r.spectralActivePower, r.apparentPower);
        r.impedance = r.rmsI > 0.001 ? r.rmsU / r.rmsI : 0.0;
    }
    if (getFullFftEnabled()) {
        r.fftU = spectra(slot);
        if (current) r.fftI = spectra(static_cast<unsigned short>(slots::kCurrents + p));
        if (config.lineToLineResultsEnabled) r.fftUL = spectra(static_cast<unsigned short>(slots::kLineToLine + p));
    }
    r.harmonicsU = harmonics(slot);
    r.harmonicAnglesU = harmonics(static_cast<unsigned short>(slots::kAnglesU + p));
    r.harmonicsUL = harmonics(static_cast<unsigned short>(slots::kLineToLine + p));
    r.fundamentalU = r.harmonicsU[1];
    if (lineToLine) r.fundamentalUL = r.harmonicsUL[1];
    if (inter) {
        r.interharmonicsU = harmonics(static_cast<unsigned short>(slots::kInterharmonicsU + p));
        r.interharmonicsUL = harmonics(static_cast<unsigned short>(slots::kInterharmonicsUL + p));
    }
    if (current) {
        r.harmonicsI = harmonics(static_cast<unsigned short>(slots::kCurrents + p));
        r.harmonicAnglesI = harmonics(static_cast<unsigned short>(slots::kAnglesI + p));
        r.harmonicActivePowers = harmonics(static_cast<unsigned short>(slots::kActivePowers + p));
        r.harmonicReactivePowers = harmonics(static_cast<unsigned short>(slots::kReactivePowers + p));
        r.harmonicApparentPowers = harmonics(static_cast<unsigned short>(slots::kApparentPowers + p));
        r.harmonicImpedances = harmonics(static_cast<unsigned short>(slots::kImpedances + p));
        r.fundamentalI = r.harmonicsI[1];
        const float angleDifference = r.harmonicAnglesI[1] - r.harmonicAnglesU[1];
        r.displacementPowerFactor = std::cos(static_cast<double>(angleDifference) * 0.017453292519943295);
        if (inter) r.interharmonicsI = harmonics(static_cast<unsigned short>(slots::kInterharmonicsI + p));
        r.fundamentalActivePower = r.harmonicActivePowers[1];
        r.fundamentalReactivePower = r.harmonicReactivePowers[1];
        r.fundamentalApparentPower = r.harmonicApparentPowers[1];
        r.fundamentalImpedance = r.harmonicImpedances[1];
        r.distortionPower = nonNegativeRoot(r.nonActivePower, r.fundamentalReactivePower);
        r.budeanuDistortionPower = nonNegativeRoot(r.nonActivePower, r.budeanuReactivePower);
    }
    if (!config.thdEnabled) return;
    calculateThd(r.thdU, r.harmonicsU[1], r.rmsU, slot, row);
    if (lineToLine)
        calculateThd(r.thdUL, r.harmonicsUL[1], r.rmsUL, static_cast<unsigned short>(slots::kLineToLine + p), row);
    if (inter) {
        calculateThd(r.interharmonicDistortionU, r.harmonicsU[1], r.rmsU,
                     static_cast<unsigned short>(slots::kInterharmonicsU + p), row);
        if (lineToLine)
            calculateThd(r.interharmonicDistortionUL, r.harmonicsUL[1], r.rmsUL,
                         static_cast<unsigned short>(slots::kInterharmonicsUL + p), row);
    }
    if (current) {
        calculateThd(r.thdI, r.harmonicsI[1], r.rmsI, static_cast<unsigned short>(slots::kCurrents + p), row);
        r.currentHarmonicContent = r.thdI.harmonicContent;
        if (inter)
            calculateThd(r.interharmonicDistortionI, r.harmonicsI[1], r.rmsI,
                         static_cast<unsigned short>(slots::kInterharmonicsI + p), row);
    }
}

void PowerModule::PowerModuleImpl::calculateThd(PowerResultsThd& result, double fundamental, double rms,
                                                unsigned short slot, unsigned long long row) {
    const PowerResultsThd* sums = buffers.thdBuffer.getHostBufferAt(row, 1, slot);
    if (sums == nullptr) return;
    const PowerResultsThd d = *sums;
    const double kF = fundamental > 0.0 ? 100.0 / fundamental : 0.0;
    const double kR = rms > 0.0 ? 100.0 / rms : 0.0;
    result.harmonicContent = std::sqrt(d.thd);
    result.thdOfRms = result.harmonicContent * kR;
    result.thd = result.harmonicContent * kF;
    result.thdEven = std::sqrt(d.thdEven) * kF;
    result.thdOdd = std::sqrt(d.thdOdd) * kF;
    result.thdOddTriplen = std::sqrt(d.thdOddTriplen) * kF;
    result.thdOddNonTriplen = std::sqrt(d.thdOddNonTriplen) * kF;
    result.distortionContent = std::sqrt(std::max(rms * rms - fundamental * fundamental, 0.0));
    result.totalDistortion = result.distortionContent * kF;
}

void PowerModule::PowerModuleImpl::addToTotals(PowerResultsPhase& t, const PowerResultsPhase& p, unsigned index,
                                               unsigned phases) {
    const double n = phases;
    t.rectifiedMeanU += p.rectifiedMeanU / n;
    t.rmsU += p.rmsU / n;
    t.spectralRmsU += p.spectralRmsU / n;
    t.fundamentalU += p.fundamentalU / n;
    const double m = config.getLineToLineCount();
    if (m > 0 && index < config.getLineToLineCount()) {
        t.rectifiedMeanUL += p.rectifiedMeanUL / m;
        t.rmsUL += p.rmsUL / m;
        t.spectralRmsUL += p.spectralRmsUL / m;
        t.fundamentalUL += p.fundamentalUL / m;
    }
    if (config.currentEnabled) {
        t.rectifiedMeanI += p.rectifiedMeanI / n;
        t.rmsI += p.rmsI / n;
        t.spectralRmsI += p.spectralRmsI / n;
        t.fundamentalI += p.fundamentalI / n;
        t.activePower += p.activePower;
        t.spectralActivePower += p.spectralActivePower;
        t.apparentPower += p.apparentPower;
        t.fundamentalActivePower += p.fundamentalActivePower;
        t.fundamentalApparentPower += p.fundamentalApparentPower;
        t.budeanuReactivePower += p.budeanuReactivePower;
        t.fundamentalReactivePowerSum += p.fundamentalReactivePower;
    }
}

void PowerModule::PowerModuleImpl::completeTotals(PowerResultsPhase& t) {
    t.nonActivePower = nonNegativeRoot(t.apparentPower, t.spectralActivePower);
    t.fundamentalReactivePower = nonNegativeRoot(t.fundamentalApparentPower, t.fundamentalActivePower);
    t.powerFactor = ratioOrZero(t.spectralActivePower, t.apparentPower);
    t.distortionPower = nonNegativeRoot(t.nonActivePower, t.fundamentalReactivePower);
    t.budeanuDistortionPower = nonNegativeRoot(t.nonActivePower, t.budeanuReactivePower);
    t.displacementPowerFactor =
        t.fundamentalApparentPower > 0.0 ? t.fundamentalActivePower / t.fundamentalApparentPower : 1.0;
}

void PowerModule::PowerModuleImpl::fillSymmetricalComponents(PowerResultsGeneral& record, size_t row) {
    const bool current = config.currentEnabled;
    const double* sums = buffers.symmetricalComponentsBuffer.getHostBufferAt(row, 1, slots::kVoltages);
    const double2* phasors = buffers.symmetricalComponentsH1Buffer.getHostBufferAt(row, 1, slots::kVoltages);
    for (int k = 0; k < 3; ++k) {
        PowerResultsSymmetricalComponent& c = record.symmetricalComponents[k];
        c.voltage = {phasors[k].x, phasors[k].y};
        if (current) c.current = {phasors[3 + k].x, phasors[3 + k].y};
        PowerSymmetricalComponents::calculate(c, current);
        c.voltageAllBins = std::sqrt(sums[k]);
        c.currentAllBins = current ? std::sqrt(sums[3 + k]) : 0.0;
    }
    PowerSymmetricalComponents::calculateRatios(record.symmetricalComponents, current);
}

void PowerModule::PowerModuleImpl::fillClarkePark(PowerResultsGeneral& record, size_t row) {
    const bool current = config.currentEnabled;
    if (config.clarkeTransformEnabled) {
        const double2* u = buffers.clarkeH1Buffer.getHostBufferAt(row, 1, slots::kVoltages);
        const double2* i = buffers.clarkeH1Buffer.getHostBufferAt(row, 1, slots::kCurrents);
        for (int k = 0; k < 3 && u != nullptr; ++k) record.clarkeU[k] = {u[k].x, u[k].y};
        for (int k = 0; k < 3 && current && i != nullptr; ++k) record.clarkeI[k] = {i[k].x, i[k].y};
    }
    if (config.parkTransformEnabled) {
        const double* u = buffers.parkBuffer.getHostBufferAt(row, 1, slots::kVoltages);
        const double* i = buffers.parkBuffer.getHostBufferAt(row, 1, slots::kCurrents);
        for (int k = 0; k < 3 && u != nullptr; ++k) record.parkU[k] = u[k];
        for (int k = 0; k < 3 && current && i != nullptr; ++k) record.parkI[k] = i[k];
    }
}

double PowerModule::PowerModuleImpl::rad2deg(double radians) {
    return tarnel::wrapDegrees(radians * tarnel::kDegreesPerRadian);
}

}  // namespace tarnel
