#include "PowerBuffers.h"

#include <cmath>

namespace tarnel {

using Copy = GpuBufferItems::CopyType;

PowerBuffers::PowerBuffers(PowerConfig& config_, std::shared_ptr<tarnel::Backend> backend)
    : config(config_),
      samplesBuffer(10, true, backend),
      clarkeParkBuffer(12, true, backend),
      fftInputBuffer(10, true, backend),
      fftOutputBuffer(10, true, backend),
      harmonicsBuffer(39, true, backend),
      thdBuffer(39, true, backend),
      symmetricalComponentsBuffer(10, true, backend),
      symmetricalComponentsH1Buffer(10, true, backend),
      clarkeH1Buffer(10, true, backend),
      parkBuffer(10, true, backend),
      generalResultsBuffer(1, true, backend),
      periodResultsBuffer(1, true, backend),
      periodReferenceBuffer(4, false, backend) {
    generalResultsBuffer.addItems(0, 1, Copy::DeviceToHost);
}

void PowerBuffers::setBufferLengthAndDuration(size_t length, double duration) {
    bufferLength = length;
    bufferDuration = duration;
}

static size_t ceilToSize(double x) { return x > 0.0 ? static_cast<size_t>(std::ceil(x)) : 0; }

void PowerBuffers::addSampleItems(const PowerGridConfig& grid) {
    const unsigned short p = config.getPhasesCount(), v = config.getVoltagesCount(), c = config.getCurrentsCount();
    const unsigned short d = config.getDeltaWaveformsCount();
    // Period values read the derived phase, line-to-line and current waveforms
    // on the host, so they bring those back even with waveforms off.
    const Copy w =
        (config.waveformsEnabled || config.areAnyPeriodValuesEnabled()) ? Copy::DeviceToHost : Copy::DeviceOnly;
    if (grid.starVoltages) samplesBuffer.addItems(slots::kVoltages, v, Copy::HostToDevice);
    if (!grid.starVoltages) samplesBuffer.addItems(slots::kVoltages, p, w);
    if (config.currentEnabled) {
        samplesBuffer.addItems(slots::kCurrents, c, Copy::HostToDevice);
        if (p > c) samplesBuffer.addItems(static_cast<unsigned short>(slots::kCurrents + c), p - c, w);
    }
    if (grid.deltaVoltages) {
        samplesBuffer.addItems(slots::kLineToLine, v, Copy::HostToDevice);
        if (p > v) samplesBuffer.addItems(static_cast<unsigned short>(slots::kLineToLine + v), p - v, w);
    } else if (d > 0) {
        samplesBuffer.addItems(slots::kLineToLine, d, w);
    }
    if (config.mechanicalAngleUsed) samplesBuffer.addItems(slots::kMechanicalAngle, 1, Copy::HostToDevice);
}

void PowerBuffers::addClarkeParkItems() {
    if (config.areClarkeWaveformsRequired()) {
        if (config.clarkeOrParkVoltagesEnabled) clarkeParkBuffer.addItems(slots::kClarkeU, 3, Copy::DeviceToHost);
        if (config.clarkeOrParkCurrentsEnabled && config.currentEnabled)
            clarkeParkBuffer.addItems(slots::kClarkeI, 3, Copy::DeviceToHost);
    }
    if (config.areParkWaveformsRequired()) {
        if (config.clarkeOrParkVoltagesEnabled) clarkeParkBuffer.addItems(slots::kParkU, 3, Copy::DeviceToHost);
        if (config.clarkeOrParkCurrentsEnabled && config.currentEnabled)
            clarkeParkBuffer.addItems(slots::kParkI, 3, Copy::DeviceToHost);
    }
}

void PowerBuffers::addFftItems(unsigned short first, unsigned short count) {
    fftInputBuffer.addItems(first, count, Copy::DeviceOnly);
    fftOutputBuffer.addItems(first, count, config.fullFftEnabled ? Copy::DeviceToHost : Copy::DeviceOnly);
}

void PowerBuffers::addHarmonicItems(unsigned short first, unsigned short count) {
    harmonicsBuffer.addItems(first, count, Copy::DeviceToHost);
    if (config.thdEnabled) thdBuffer.addItems(first, count, Copy::DeviceToHost);
}

void PowerBuffers::addSymmetricItems(GpuBuffer<double>& sums, GpuBuffer<double2>& phasors, bool currents) {
    sums.addItems(slots::kVoltages, 3, Copy::DeviceToHost);
    phasors.addItems(slots::kVoltages, 3, Copy::DeviceToHost);
    if (currents) {
        sums.addItems(slots::kCurrents, 3, Copy::DeviceToHost);
        phasors.addItems(slots::kCurrents, 3, Copy::DeviceToHost);
    }
}

void PowerBuffers::addRowItems(bool voltages, bool currents) {
    symmetricalComponentsBuffer.clearItems();
    symmetricalComponentsH1Buffer.clearItems();
    clarkeH1Buffer.clearItems();
    parkBuffer.clearItems();
    if (config.areSymmetricalComponentsEnabled())
        addSymmetricItems(symmetricalComponentsBuffer, symmetricalComponentsH1Buffer, currents);
    if (voltages && config.clarkeTransformEnabled) {
        clarkeH1Buffer.addItems(slots::kVoltages, 3, Copy::DeviceToHost);
        if (currents) clarkeH1Buffer.addItems(slots::kCurrents, 3, Copy::DeviceToHost);
    }
    if (voltages && config.parkTransformEnabled) {
        parkBuffer.addItems(slots::kVoltages, 3, Copy::DeviceToHost);
        if (currents) parkBuffer.addItems(slots::kCurrents, 3, Copy::DeviceToHost);
    }
}

void PowerBuffers::initialize() {
    const PowerGridConfig grid = config.getGridConfig();
    const unsigned short p = config.getPhasesCount(), d = config.getDeltaWaveformsCount();
    const unsigned short ll = config.lineToLineResultsEnabled ? d : 0;
    const bool currents = config.currentEnabled;
    const double fmax = config.maxFrequency;

    generalResultsBufferLength = std::max<size_t>(1, ceilToSize(bufferDuration * fmax / config.periodCount));
    periodResultsBufferLength =
        std::max<size_t>(1, ceilToSize(bufferDuration * fmax / config.getPeriodCountAdvanceBy()));

    samplesBuffer.clearItems();
    clarkeParkBuffer.clearItems();
    addSampleItems(grid);
    addClarkeParkItems();
    samplesBuffer.resize(bufferLength);
    clarkeParkBuffer.resize(bufferLength);

    minFftLength = config.getMinFftLength();
    maxFftLength = config.getMaxFftLength();
    maxFftOutputLength = maxFftLength / 2 + 1;
    fftInputBuffer.clearItems();
    fftOutputBuffer.clearItems();
    addFftItems(slots::kVoltages, p);
    if (currents) addFftItems(slots::kCurrents, p);
    if (ll > 0) addFftItems(slots::kLineToLine, ll);
    fftInputBuffer.resize(maxFftLength);
    fftOutputBuffer.resize(maxFftOutputLength + (config.fullFftEnabled ? bufferLength : 0));

    requiredHarmonicsCount = config.getRequiredHarmonicsCount();
    harmonicsBuffer.clearItems();
    thdBuffer.clearItems();
    addHarmonicItems(slots::kVoltages, p);
    if (currents) addHarmonicItems(slots::kCurrents, p);
    if (ll > 0) addHarmonicItems(slots::kLineToLine, ll);
    if (config.interHarmonicsEnabled) {
        addHarmonicItems(slots::kInterharmonicsU, p);
        if (currents) addHarmonicItems(slots::kInterharmonicsI, p);
        if (ll > 0) addHarmonicItems(slots::kInterharmonicsUL, ll);
    }
    if (currents) {
        for (unsigned short first :
             {slots::kActivePowers, slots::kReactivePowers, slots::kApparentPowers, slots::kImpedances})
            addHarmonicItems(first, p);
    }
    addHarmonicItems(slots::kAnglesU, p);
    if (currents) addHarmonicItems(slots::kAnglesI, p);
    if (ll > 0) addHarmonicItems(slots::kAnglesUL, ll);
    harmonicsBuffer.resize(requiredHarmonicsCount * generalResultsBufferLength);
    thdBuffer.resize(generalResultsBufferLength);

    addRowItems(p == 3, currents);
    symmetricalComponentsBuffer.resize(generalResultsBufferLength);
    symmetricalComponentsH1Buffer.resize(generalResultsBufferLength);
    clarkeH1Buffer.resize(generalResultsBufferLength);
    parkBuffer.resize(generalResultsBufferLength);
    generalResultsBuffer.resize(generalResultsBufferLength);

    periodReferenceBuffer.clearItems();
    periodResultsBuffer.clearItems();
    periodRecordsCount = 0;
    if (config.areAnyPeriodValuesEnabled()) {
        periodRecordsCount = static_cast<size_t>(p) + 1;
        periodReferenceBuffer.addItems(0, 4, Copy::HostOnly);
        periodResultsBuffer.addItems(0, 1, Copy::HostOnly);
    }
    periodReferenceBuffer.resize(bufferLength);
    periodResultsBuffer.resize(periodRecordsCount * periodResultsBufferLength);
    built = bufferLength > 0;
}

}  // namespace tarnel
