// Scheduling of one block calculation: a fixed sequence of asynchronous work
// on the calculation's stream, ordered after the previous calculation's
// kernels by an event, ending with the copies of everything the caller reads.
#include <cmath>
#include <stdexcept>
#include <string>

#include "PowerModuleImpl.h"
#include "kernels/AllKernels.h"
#include "tarnel/CudaErrorHandling.h"

namespace tarnel {

namespace {

unsigned launchWidth(unsigned long long count) {
    return static_cast<unsigned>(std::min<unsigned long long>((count + 31) / 32, 1024));
}

[[noreturn]] void refuse(const std::string& problem) {
    throw std::invalid_argument("scheduleForCalculation: " + problem);
}

}  // namespace

template <typename Kernel>
void PowerModule::PowerModuleImpl::launch(const Kernel& kernel, unsigned gridX, unsigned blockX, unsigned blockY,
                                          CUstream_st* stream) {
    backend->launch(kernel, LaunchShape{gridX, blockX, blockY}, stream);
    TARNEL_CUDA_CALL(backend->peekAtLastError());
}

void PowerModule::PowerModuleImpl::validateBlockRequest(unsigned long long first, unsigned int length, double frequency,
                                                        unsigned long long fftLength) const {
    const unsigned long long ring = buffers.getBufferLength();
    if (length == 0) refuse("the block length must be at least 1 sample");
    if (length > ring)
        refuse("a block of " + std::to_string(length) + " samples does not fit the sample ring of " +
               std::to_string(ring));
    if (!(std::isfinite(frequency) && frequency > 0.0))
        refuse("the frequency must be positive and finite, not " + std::to_string(frequency));
    if (!(frequency < 0.5 * config.sampleRate))
        refuse("the frequency " + std::to_string(frequency) + " Hz does not lie below half the sample rate (" +
               std::to_string(0.5 * config.sampleRate) + " Hz)");
    const double resolution = config.sampleRate / static_cast<double>(fftLength);
    if (frequency < resolution)
        refuse("the frequency " + std::to_string(frequency) + " Hz lies below the resolution of the block's FFT (" +
               std::to_string(resolution) + " Hz)");
    if (length > fftLength)
        refuse("a block of " + std::to_string(length) + " samples is longer than its FFT length " +
               std::to_string(fftLength));
    // Distances are taken modulo 2^64 so that a measurement runs across the
    // wrap of the sample index.
    const unsigned long long behindWritten = writtenSampleIndex - first;
    const unsigned long long writtenSinceReset = writtenSampleIndex - lastResetSampleIndex;
    if (behindWritten < length || behindWritten > writtenSinceReset)
        refuse("samples " + std::to_string(first) + " to " + std::to_string(first + length - 1) +
               " have not been written with writeSamples");
    if (behindWritten > ring)
        refuse("sample " + std::to_string(first) + " has already been overwritten in the sample ring");
    // Ring positions are continuous across 2^64 only when the ring length divides it.
    const bool crossesWrap = first + length < first && first + length != 0;
    if (crossesWrap && (ring & (ring - 1)) != 0)
        refuse("a block may cross sample index 2^64 only with a power-of-two buffer length");
    const bool parkFromAngle =
        (config.areParkVoltagesEnabled() || config.areParkCurrentsEnabled()) && config.mechanicalAngleUsed;
    if (parkFromAngle && config.polePairs < 1)
        refuse("the Park transform from the mechanical angle needs at least one pole pair; call setPolePairs");
}

// Each result row, harmonics stretch and kept spectrum stretch belongs to one
// calculation until it is collected; a calculation that would reuse one early
// is refused instead of corrupting a waiting result.
void PowerModule::PowerModuleImpl::refuseOverwritingUncollected(unsigned long long fftLength, double frequency) {
    const PowerResultsQueueItem& next = *currentQueueItem;
    const unsigned long long harmonicsFirst = next.getFirstHarmonicSampleIndex();
    const unsigned long long harmonicsCount =
        PowerResultsQueueItem::harmonicLengthFor(config.sampleRate, static_cast<unsigned>(fftLength), frequency,
                                                 static_cast<unsigned>(config.getRequiredHarmonicsCount()));
    const unsigned long long spectraCount = fftLength / 2 + 1;
    unsigned long long spectraFirst = next.getFirstFftOutputSampleIndex();
    if (spectraFirst + spectraCount > buffers.fftOutputBuffer.getLength()) spectraFirst = 0;
    auto overlaps = [](unsigned long long a, unsigned long long n, unsigned long long b, unsigned long long m) {
        return a < b + m && b < a + n;
    };
    std::lock_guard<std::mutex> lock(resultsMutex);
    const size_t rows = buffers.getGeneralResultsBufferLength();
    if (resultsQueue.size() > rows)
        refuse(std::to_string(rows) +
               " results wait to be collected and every result row is taken; collect them "
               "with getResults first");
    for (const auto& waiting : resultsQueue) {
        if (waiting == currentQueueItem) continue;
        const bool harmonicsShared = overlaps(harmonicsFirst, harmonicsCount, waiting->getFirstHarmonicSampleIndex(),
                                              waiting->getHarmonicLength());
        const bool spectraShared =
            getFullFftEnabled() && overlaps(spectraFirst, spectraCount, waiting->getFirstFftOutputSampleIndex(),
                                            waiting->getFftOutputLength());
        if (harmonicsShared || spectraShared)
            refuse("the result of the block at sample " + std::to_string(waiting->getFirstSampleIndex()) +
                   " still occupies the storage this block needs; collect it with getResults first");
    }
}

const double* PowerModule::PowerModuleImpl::prepareWindow(int length, CUstream_st* stream) {
    double* table = windowBuffer.getDeviceBuffer(0);
    if (table == nullptr) return nullptr;
    if (windowLength != length) {
        launch(kernelBlackmanWindow{length, table}, launchWidth(length), 32, 1, stream);
        windowLength = length;
    }
    return table;
}

// The waveform kernels write the block's samples of every FFT input channel;
// the padding up to the FFT length must read zero. It is cleared only where
// an earlier block of the same layout wrote, or wholly after a change of layout.
void PowerModule::PowerModuleImpl::clearFftPadding(unsigned length, unsigned fftLength, CUstream_st* stream) {
    const unsigned written = fftInputLayout == fftLength ? fftInputWritten : fftLength;
    if (written > length)
        buffers.fftInputBuffer.asyncMemsetSlotRangesToZeroOnDevice(fftLength, length, written, stream);
    fftInputLayout = fftLength;
    fftInputWritten = length;
}

void PowerModule::PowerModuleImpl::enqueueWaveformKernels(const PowerResultsQueueItem& item, size_t row, int start,
                                                          float fftScale, const double* window) {
    const PowerGridConfig grid = config.getGridConfig();
    const int n = static_cast<int>(item.getLength()), ring = static_cast<int>(buffers.getBufferLength());
    const int fftLength = static_cast<int>(item.getFftInputLength());
    const unsigned g = launchWidth(item.getLength()), phases = grid.phasesCount;
    CUstream_st* stream = item.getCudaStream();
    auto& samples = buffers.samplesBuffer;
    auto& fftInput = buffers.fftInputBuffer;
    float* fftU = fftInput.getDeviceBufferAt(0, fftLength, slots::kVoltages);
    float* fftUL = fftInput.getDeviceBufferAt(0, fftLength, slots::kLineToLine);
    const bool lineToLine = config.lineToLineResultsEnabled;
    if (grid.starVoltages) {
        const bool writeLineToLine = config.waveformsEnabled && phases > 1;
        launch(kernelWaveformsUStar{n, start, ring, fftLength, static_cast<int>(phases), fftScale, writeLineToLine,
                                    lineToLine, samples.getDeviceBuffer(slots::kVoltages),
                                    samples.getDeviceBuffer(slots::kLineToLine), fftU, fftUL, window},
               g, 32, phases, stream);
    } else {
        launch(kernelWaveformsUDelta{grid.voltagesCount, n, start, ring, fftLength, static_cast<int>(phases), fftScale,
                                     lineToLine, samples.getDeviceBuffer(slots::kVoltages),
                                     samples.getDeviceBuffer(slots::kLineToLine), fftU, fftUL, window},
               g, 32, phases, stream);
    }
    float* u = samples.getDeviceBuffer(slots::kVoltages);
    PowerResultsGeneral* record = buffers.generalResultsBuffer.getDeviceBufferAt(row, 1, 0);
    if (config.currentEnabled) {
        float* i = samples.getDeviceBuffer(slots::kCurrents);
        float* fftI = fftInput.getDeviceBufferAt(0, fftLength, slots::kCurrents);
        launch(kernelWaveformsI{n, start, ring, fftLength, fftScale, i, fftI, window}, g, 32, grid.currentsCount,
               stream);
        if (grid.missingCurrent)
            launch(kernelWaveformsI3{n, start, ring, fftLength, fftScale, i, fftI, window}, g, 32, 1, stream);
        launch(kernelRmsUI{n, start, ring, u, i, record}, g, 32, phases, stream);
    } else {
        launch(makeKernelRmsU(n, start, ring, u, record), g, 32, phases, stream);
    }
    if (lineToLine && grid.lineToLineCount > 0)
        launch(makeKernelRmsUL(n, start, ring, samples.getDeviceBuffer(slots::kLineToLine), record), g, 32,
               grid.lineToLineCount, stream);
}

void PowerModule::PowerModuleImpl::enqueueTransformWaveforms(const PowerResultsQueueItem& item, int start, size_t row) {
    const int n = static_cast<int>(item.getLength()), ring = static_cast<int>(buffers.getBufferLength());
    const unsigned g = launchWidth(item.getLength());
    CUstream_st* stream = item.getCudaStream();
    auto& samples = buffers.samplesBuffer;
    auto& transformed = buffers.clarkeParkBuffer;
    if (config.areClarkeWaveformsRequired()) {
        const bool voltages = config.areClarkeVoltagesEnabled();
        const unsigned short first = voltages ? slots::kVoltages : slots::kCurrents;
        const unsigned rows = (voltages ? 1u : 0u) + (config.areClarkeCurrentsEnabled() ? 1u : 0u);
        launch(
            kernelWaveformsClarke{n, start, ring, samples.getDeviceBuffer(first), transformed.getDeviceBuffer(first)},
            g, 32, rows, stream);
    }
    if ((config.areParkVoltagesEnabled() || config.areParkCurrentsEnabled()) && config.mechanicalAngleUsed) {
        const bool voltages = config.areParkVoltagesEnabled();
        const unsigned short first = voltages ? slots::kVoltages : slots::kCurrents;
        const unsigned rows = (voltages ? 1u : 0u) + (config.areParkCurrentsEnabled() ? 1u : 0u);
        float* park = config.areParkWaveformsRequired()
                          ? transformed.getDeviceBuffer(voltages ? slots::kParkU : slots::kParkI)
                          : nullptr;
        launch(kernelWaveformsPark{n, start, ring, config.polePairs, config.mechAngleOffset,
                                   samples.getDeviceBuffer(first), samples.getDeviceBuffer(slots::kMechanicalAngle),
                                   park, buffers.parkBuffer.getDeviceBufferAt(row, 1, first)},
               g, 32, rows, stream);
    }
}

void PowerModule::PowerModuleImpl::enqueueThreePhaseValues(const PowerResultsQueueItem& item, size_t row) {
    CUstream_st* stream = item.getCudaStream();
    const int bins = static_cast<int>(item.getFftOutputLength());
    const int harmonicsCount = static_cast<int>(item.getHarmonicLength());
    const unsigned groups = config.currentEnabled ? 2 : 1;
    const float* magnitudes =
        buffers.harmonicsBuffer.getDeviceBufferAt(item.getFirstHarmonicSampleIndex(), harmonicsCount, slots::kVoltages);
    const float* angles =
        buffers.harmonicsBuffer.getDeviceBufferAt(item.getFirstHarmonicSampleIndex(), harmonicsCount, slots::kAnglesU);
    if (config.areSymmetricalComponentsEnabled()) {
        const unsigned width = static_cast<unsigned>(std::min(bins - 1, 256));
        const float2* spectra =
            buffers.fftOutputBuffer.getDeviceBufferAt(item.getFirstFftOutputSampleIndex(), bins, slots::kVoltages);
        launch(kernelSymmetricalComponents{bins, spectra,
                                           buffers.symmetricalComponentsBuffer.getDeviceBufferAt(row, 1, 0)},
               (static_cast<unsigned>(bins) - 2 + width) / width, width, groups, stream);
        launch(kernelSymmetricalComponentsH1{harmonicsCount, magnitudes, angles,
                                             buffers.symmetricalComponentsH1Buffer.getDeviceBufferAt(row, 1, 0)},
               1, 1, groups, stream);
    }
    const bool parkFromPhasors = config.parkTransformEnabled && !config.mechanicalAngleUsed;
    if (config.getPhasesCount() == 3 && (config.clarkeTransformEnabled || parkFromPhasors))
        launch(kernelClarkeH1AndParkAve{harmonicsCount, magnitudes, angles, config.clarkeTransformEnabled,
                                        parkFromPhasors, buffers.clarkeH1Buffer.getDeviceBufferAt(row, 1, 0),
                                        buffers.parkBuffer.getDeviceBufferAt(row, 1, 0)},
               1, 1, groups, stream);
}

void PowerModule::PowerModuleImpl::enqueueSpectralKernels(const PowerResultsQueueItem& item, size_t row) {
    const PowerGridConfig grid = config.getGridConfig();
    CUstream_st* stream = item.getCudaStream();
    const int bins = static_cast<int>(item.getFftOutputLength());
    const unsigned harmonicsCount = item.getHarmonicLength(), phases = grid.phasesCount;
    auto& spectra = buffers.fftOutputBuffer;
    auto& harmonics = buffers.harmonicsBuffer;
    const size_t spectraRow = item.getFirstFftOutputSampleIndex(), harmonicsRow = item.getFirstHarmonicSampleIndex();
    float2* spectraU = spectra.getDeviceBufferAt(spectraRow, bins, slots::kVoltages);
    auto harmonicSlot = [&](unsigned short slot) {
        return harmonics.getDeviceBufferAt(harmonicsRow, harmonicsCount, slot);
    };
    PowerResultsGeneral* record = buffers.generalResultsBuffer.getDeviceBufferAt(row, 1, 0);

    launch(makeKernelFreqRms(bins, static_cast<int>(phases), config.getLineToLineCount(), spectraU,
                             spectra.getDeviceBufferAt(spectraRow, bins, slots::kCurrents),
                             spectra.getDeviceBufferAt(spectraRow, bins, slots::kLineToLine), record),
           launchWidth(static_cast<unsigned long long>(bins)), 32, phases, stream);

    const double frequency = item.getFrequency(), dFrequency = item.getDFrequency();
    const double windowRatio = static_cast<double>(item.getLength()) / item.getFftInputLength();
    launch(kernelReferenceAngle{frequency, dFrequency, windowRatio, spectraU, &record->referenceAngle}, 1, 1, 1,
           stream);

    const int halfWidth = static_cast<int>(std::round(0.3 * frequency / dFrequency));
    const unsigned harmonicBlocks = (harmonicsCount + 31) / 32;
    const unsigned channels = static_cast<unsigned>(buffers.fftInputBuffer.getDeviceItemsCount());
    launch(kernelHarmonics{bins, static_cast<int>(harmonicsCount), halfWidth, config.interHarmonicsEnabled, frequency,
                           dFrequency, windowRatio, &record->referenceAngle, spectraU, harmonicSlot(slots::kVoltages),
                           harmonicSlot(slots::kInterharmonicsU), harmonicSlot(slots::kAnglesU)},
           harmonicBlocks, 32, channels, stream);
    if (config.currentEnabled)
        launch(kernelPQSZ{static_cast<int>(phases), static_cast<int>(harmonicsCount), harmonicSlot(slots::kVoltages),
                          harmonicSlot(slots::kAnglesU), harmonicSlot(slots::kActivePowers),
                          harmonicSlot(slots::kImpedances)},
               harmonicBlocks, 32, phases, stream);
    if (config.thdEnabled) {
        const int arrays = static_cast<int>(buffers.thdBuffer.getDeviceItemsCount());
        const int highest =
            static_cast<int>(std::min<unsigned>(static_cast<unsigned>(config.thdHighestHarmonic), harmonicsCount));
        launch(
            kernelSumOfHarmonicsSquared{arrays, highest, static_cast<int>(harmonicsCount),
                                        harmonicSlot(slots::kVoltages), buffers.thdBuffer.getDeviceBufferAt(row, 1, 0)},
            1, static_cast<unsigned>(arrays), 1, stream);
    }
}

void PowerModule::PowerModuleImpl::enqueueBlockCopies(const PowerResultsQueueItem& item, size_t row,
                                                      unsigned long long start) {
    CUstream_st* stream = item.getCudaStream();
    buffers.generalResultsBuffer.copyFromDeviceToHost(row, 1, stream);
    if ((config.waveformsEnabled && config.getPhasesCount() > 1) || config.areAnyPeriodValuesEnabled())
        buffers.samplesBuffer.copySegmentFromDeviceToHost(start, item.getLength(), stream);
    if (config.areClarkeWaveformsRequired() || config.areParkWaveformsRequired())
        buffers.clarkeParkBuffer.copySegmentFromDeviceToHost(start, item.getLength(), stream);
    if (getFullFftEnabled())
        buffers.fftOutputBuffer.copyFromDeviceToHost(item.getFirstFftOutputSampleIndex(), item.getFftOutputLength(),
                                                     stream);
    buffers.harmonicsBuffer.copyFromDeviceToHost(item.getFirstHarmonicSampleIndex(), item.getHarmonicLength(), stream);
    if (config.thdEnabled) buffers.thdBuffer.copyFromDeviceToHost(row, 1, stream);
    if (config.areSymmetricalComponentsEnabled()) {
        buffers.symmetricalComponentsBuffer.copyFromDeviceToHost(row, 1, stream);
        buffers.symmetricalComponentsH1Buffer.copyFromDeviceToHost(row, 1, stream);
    }
    if (config.clarkeTransformEnabled) buffers.clarkeH1Buffer.copyFromDeviceToHost(row, 1, stream);
    if (config.parkTransformEnabled) buffers.parkBuffer.copyFromDeviceToHost(row, 1, stream);
}

std::shared_ptr<PowerResultsQueueItem> PowerModule::PowerModuleImpl::getNextQueueItem() const {
    const PowerResultsQueueItem& c = *currentQueueItem;
    unsigned long long spectraRow = 0;
    if (getFullFftEnabled()) {
        spectraRow = static_cast<unsigned long long>(c.getFirstFftOutputSampleIndex()) + c.getFftOutputLength();
        if (spectraRow >= buffers.fftOutputBuffer.getLength()) spectraRow = 0;
    }
    unsigned long long harmonicsRow =
        static_cast<unsigned long long>(c.getFirstHarmonicSampleIndex()) + c.getHarmonicLength();
    if (harmonicsRow + config.getRequiredHarmonicsCount() > buffers.harmonicsBuffer.getLength()) harmonicsRow = 0;
    const auto streamId = static_cast<unsigned char>((c.getCudaStreamId() + 1) % 3);
    return std::make_shared<PowerResultsQueueItem>(
        backend, config.sampleRate, c.getIndex() + 1, c.getNextSampleIndex(), static_cast<unsigned>(spectraRow),
        static_cast<unsigned>(harmonicsRow), streamId, cudaStreams[streamId]);
}

void PowerModule::PowerModuleImpl::scheduleForCalculation(unsigned long long firstSampleIndex, unsigned int length,
                                                          double frequency) {
    std::lock_guard<std::mutex> lock(schedulingMutex);
    requireBuilt("scheduleForCalculation");
    if (currentQueueItem == nullptr) refuse("call reset before scheduling calculations");
    // A frequency above the configured range still gets the shortest planned length.
    const unsigned long long fftLength =
        std::max<unsigned long long>(getFftLength(length, frequency), buffers.getMinFftLength());
    validateBlockRequest(firstSampleIndex, length, frequency, fftLength);
    refuseOverwritingUncollected(fftLength, frequency);
    if (config.parkTransformEnabled && config.mechanicalAngleUsed && config.getPhasesCount() == 3 &&
        buffers.samplesBuffer.getDeviceBuffer(slots::kMechanicalAngle) == nullptr)
        throw std::logic_error(
            "scheduleForCalculation: the mechanical angle is used but the module was built without its ring; "
            "rebuild the module after setMechanicalAngleUsed(true)");

    const unsigned long long ring = buffers.getBufferLength();
    const int start = static_cast<int>(firstSampleIndex % ring);
    std::shared_ptr<PowerResultsQueueItem> item = currentQueueItem;
    item->setCalculation(firstSampleIndex, length, config.sampleRate / frequency, config.periodCount,
                         static_cast<unsigned>(fftLength), static_cast<unsigned>(buffers.fftOutputBuffer.getLength()),
                         static_cast<unsigned>(config.getRequiredHarmonicsCount()), frequency);
    scheduledSampleIndex = item->getNextSampleIndex();
    {
        std::lock_guard<std::mutex> resultsLock(resultsMutex);
        currentQueueItem = getNextQueueItem();
        resultsQueue.push_back(currentQueueItem);
    }
    CUstream_st* stream = item->getCudaStream();
    if (item->getIndex() != 0) TARNEL_CUDA_CALL(backend->streamWaitEvent(stream, item->getEventResultsCalculated()));
    const size_t row = item->getIndex() % buffers.getGeneralResultsBufferLength();
    const unsigned plan =
        config.variableFrequency
            ? static_cast<unsigned>(std::ceil(std::log2(static_cast<double>(fftLength) / buffers.getMinFftLength())))
            : 0;

    buffers.generalResultsBuffer.asyncMemsetToZeroOnDevice(row, 1, stream);
    clearFftPadding(length, static_cast<unsigned>(fftLength), stream);
    buffers.harmonicsBuffer.asyncMemsetToZeroOnDevice(item->getFirstHarmonicSampleIndex(), item->getHarmonicLength(),
                                                      stream);
    if (config.thdEnabled) buffers.thdBuffer.asyncMemsetToZeroOnDevice(row, 1, stream);
    if (config.areSymmetricalComponentsEnabled()) {
        buffers.symmetricalComponentsBuffer.asyncMemsetToZeroOnDevice(row, 1, stream);
        buffers.symmetricalComponentsH1Buffer.asyncMemsetToZeroOnDevice(row, 1, stream);
    }
    if (config.parkTransformEnabled && config.mechanicalAngleUsed)
        buffers.parkBuffer.asyncMemsetToZeroOnDevice(row, 1, stream);

    const auto fftScale = static_cast<float>(
        kBlackmanRmsReciprocal / std::sqrt(0.5 * static_cast<double>(length) * static_cast<double>(fftLength)));
    enqueueWaveformKernels(*item, row, start, fftScale, prepareWindow(static_cast<int>(length), stream));
    enqueueTransformWaveforms(*item, start, row);
    CUFFT_CALL(fftPlans.at(plan)->execute(
        buffers.fftInputBuffer.getDeviceBufferAt(0, fftLength, slots::kVoltages),
        buffers.fftOutputBuffer.getDeviceBufferAt(item->getFirstFftOutputSampleIndex(), item->getFftOutputLength(),
                                                  slots::kVoltages),
        stream));
    enqueueSpectralKernels(*item, row);
    enqueueThreePhaseValues(*item, row);
    currentQueueItem->callEventResultsCalculated(stream);
    enqueueBlockCopies(*item, row, firstSampleIndex);
    item->callEventResultsTransferred();
}

}  // namespace tarnel
