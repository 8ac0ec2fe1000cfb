// Construction, settings, rebuild, reset, synchronisation and sample ingestion.
#include "PowerModuleImpl.h"

#include <cmath>
#include <stdexcept>
#include <string>

#include "tarnel/CudaErrorHandling.h"

namespace tarnel {

PowerModule::PowerModuleImpl::PowerModuleImpl(PowerModule& owner_, const BackendOptions& options)
    : owner(owner_),
      backend(tarnel::createBackend(options)),
      buffers(config, backend),
      windowBuffer(1, false, backend) {
    for (auto& stream : cudaStreams) {
        try {
            TARNEL_CUDA_CALL(backend->createStream(&stream));
        } catch (...) {
            for (auto* created : cudaStreams)
                if (created != nullptr) backend->destroyStream(created);
            throw;
        }
    }
}

PowerModule::PowerModuleImpl::~PowerModuleImpl() {
    // Calculations still in flight use the plans, events and buffers freed below.
    backend->synchronizeDevice();
    if (rebuildEvent != nullptr) backend->destroyEvent(rebuildEvent);
    try {
        deinit();
    } catch (const GpuException&) {
        // A plan that cannot be destroyed cannot be reported from here; freeing the rest matters more.
    }
    // Queue items hold events of the streams' device; drop them before the streams.
    resultsQueue.clear();
    currentQueueItem.reset();
    for (auto* stream : cudaStreams) backend->destroyStream(stream);
}

void PowerModule::PowerModuleImpl::initialize() {
    syncCuda();
    std::lock_guard<std::mutex> lock(schedulingMutex);
    // Until the rate and the ring length are known there is nothing to size the
    // buffers by: the settings are kept and the buffers come with the first
    // complete rebuild.
    if (effectiveSettings().isBuildable()) {
        rebuildTouchedDevice = true;
        buffers.initialize();
        initFftPlans(buffers.getMinFftLength(), buffers.getMaxFftLength());
        windowBuffer.clearItems();
        if (backend->prefersWindowTable()) windowBuffer.addItems(0, 1, GpuBufferItems::DeviceOnly);
        windowBuffer.resize(buffers.getMaxFftLength());
        windowLength = 0;
        fftInputLayout = 0;
        // The unwritten third slot of each Park group reads as zero. Work on the
        // other streams is ordered after the clearing instead of waiting for it.
        buffers.clarkeParkBuffer.asyncMemsetToZeroOnDevice(buffers.getBufferLength(), cudaStreams[0]);
        if (rebuildEvent == nullptr) TARNEL_CUDA_CALL(backend->createEvent(&rebuildEvent));
        TARNEL_CUDA_CALL(backend->recordEvent(rebuildEvent, cudaStreams[0]));
        for (size_t k = 1; k < cudaStreams.size(); ++k)
            TARNEL_CUDA_CALL(backend->streamWaitEvent(cudaStreams[k], rebuildEvent));
    }
    configureDetectors();
    rebuildTouchedDevice = false;
    rebuildFailed = false;
    rebuildCount += 1;
}

void PowerModule::PowerModuleImpl::initFftPlans(unsigned long long minFftLength, unsigned long long maxFftLength) {
    deinit();
    const int batch = static_cast<int>(buffers.fftInputBuffer.getDeviceItemsCount());
    for (unsigned long long length = minFftLength; length > 0 && length <= maxFftLength; length *= 2) {
        std::unique_ptr<tarnel::FftPlan> plan;
        CUFFT_CALL(backend->createFftPlan(&plan, static_cast<int>(length), batch));
        fftPlans.push_back(std::move(plan));
    }
}

void PowerModule::PowerModuleImpl::deinit() {
    while (!fftPlans.empty()) {
        CUFFT_CALL(fftPlans.front()->destroy());
        fftPlans.erase(fftPlans.begin());
    }
}

void PowerModule::PowerModuleImpl::configureDetectors() {
    const PowerGridConfig grid = config.getGridConfig();
    const std::pair<RvcMultiPhaseCalculation*, unsigned> rvcSets[] = {
        {&rvcCalculation, grid.phasesCount}, {&rvcLineToLineCalculation, grid.lineToLineCount}};
    for (const auto& [set, count] : rvcSets) {
        set->setNumberOfPhases(count);
        for (unsigned p = 0; p < count; ++p) {
            (*set)[p].setSteadyStateLength(static_cast<uint64_t>(config.rvcSteadyStateLength));
            (*set)[p].setSteadyStateThreshold(config.rvcThreshold);
            (*set)[p].setThresholdHysteresis(config.rvcThresholdHysteresis);
        }
        set->initialize();
    }
    const std::tuple<DipSwellMultiPhaseCalculation*, unsigned, double> dipSets[] = {
        {&dipSwellCalculation, grid.phasesCount, config.nominalVoltage},
        {&dipSwellLineToLineCalculation, grid.lineToLineCount, config.nominalLineToLineVoltage}};
    for (const auto& [set, count, reference] : dipSets) {
        set->setNumberOfPhases(count);
        for (unsigned p = 0; p < count; ++p) {
            (*set)[p].setDipHysteresis(config.dipHysteresis);
            (*set)[p].setSwellHysteresis(config.swellHysteresis);
            (*set)[p].setDipThreshold(config.dipThreshold);
            (*set)[p].setSwellThreshold(config.swellThreshold);
            (*set)[p].setDipSwellReferenceVoltage(reference);
        }
        set->initialize();
    }
}

unsigned long long PowerModule::PowerModuleImpl::getFftLength(unsigned long long, double frequency) const {
    if (!config.variableFrequency) return buffers.getMaxFftLength();
    return config.getFftLengthX(std::max(config.minFrequency, frequency));
}

unsigned char PowerModule::PowerModuleImpl::getHarmonicOutputsCount() const {
    const int perPhase =
        (config.currentEnabled ? 6 : 1) + (config.interHarmonicsEnabled ? (config.currentEnabled ? 2 : 1) : 0);
    return static_cast<unsigned char>(perPhase * config.getPhasesCount());
}

unsigned long long PowerModule::PowerModuleImpl::getMaxHarmonicsCount() const {
    return static_cast<unsigned long long>(std::ceil(config.sampleRate / (2.0 * config.minFrequency)));
}

void PowerModule::PowerModuleImpl::requireBuilt(const char* operation) const {
    if (updateCount.load() > 0)
        throw std::logic_error(std::string(operation) + ": an update is open; call endUpdate first");
    if (rebuildFailed)
        throw std::logic_error(std::string(operation) +
                               ": the last rebuild failed; change a setting so that the module can be rebuilt");
    if (!buffers.isBuilt())
        throw std::logic_error(std::string(operation) +
                               ": the module has no sample buffers yet; set the buffer length and sample rate first");
}

void PowerModule::PowerModuleImpl::syncCuda() { TARNEL_CUDA_CALL(backend->synchronizeDevice()); }

void PowerModule::PowerModuleImpl::reset(unsigned long long firstSampleIndex) {
    requireBuilt("reset");
    TARNEL_CUDA_CALL(backend->synchronizeDevice());
    previousFrequency = 0.0;
    periodPhase = 0.0;
    previousValid = 1.0;
    writtenSampleIndex = scheduledSampleIndex = processedSampleIndex = firstSampleIndex;
    lastResetSampleIndex = firstSampleIndex;
    periodValueCounter = 0;
    std::lock_guard<std::mutex> lock(resultsMutex);
    resultsQueue.clear();
    currentQueueItem = std::make_shared<PowerResultsQueueItem>(backend, config.sampleRate, 0, firstSampleIndex, 0, 0, 0,
                                                               cudaStreams[0]);
    resultsQueue.push_back(currentQueueItem);
    periodStartQueue.clear();
    periodResultsQueue.clear();
    periodResultsQueue2.clear();
    currentPeriodStart.reset();
    if (config.areAnyPeriodValuesEnabled()) {
        currentPeriodItem = std::make_shared<PowerPeriodResultsQueueItem>(
            0, firstSampleIndex, 1.0, config.getPeriodCountForPeriodValues(), config.getPeriodCountAdvanceBy());
    } else {
        currentPeriodItem.reset();
    }
    lastPeriodItem2.reset();
    buffers.periodReferenceBuffer.memsetToZeroOnHost();
}

void PowerModule::PowerModuleImpl::copyAddedSamplesToGpu(unsigned int count) {
    std::lock_guard<std::mutex> lock(schedulingMutex);
    requireBuilt("writeSamples");
    if (currentQueueItem == nullptr) throw std::logic_error("writeSamples: call reset before writing samples");
    if (count > buffers.getBufferLength())
        throw std::invalid_argument("writeSamples: " + std::to_string(count) +
                                    " samples do not fit the sample ring of " +
                                    std::to_string(buffers.getBufferLength()));
    CUstream_st* stream = currentQueueItem->getCudaStream();
    // Past sample index 2^64 the caller's ring positions start again at 0, so a
    // stretch across it is copied in two pieces.
    const unsigned long long beforeWrap = 0ULL - writtenSampleIndex;
    if (beforeWrap != 0 && beforeWrap < count) {
        buffers.samplesBuffer.copySegmentFromHostToDevice(writtenSampleIndex, beforeWrap, stream);
        buffers.samplesBuffer.copySegmentFromHostToDevice(0, count - beforeWrap, stream);
    } else {
        buffers.samplesBuffer.copySegmentFromHostToDevice(writtenSampleIndex, count, stream);
    }
    writtenSampleIndex += count;
}

void PowerModule::PowerModuleImpl::skipSamples(unsigned int count) {
    requireBuilt("skipSamples");
    if (currentQueueItem == nullptr) throw std::logic_error("skipSamples: call reset before skipping samples");
    writtenSampleIndex += count;
    scheduledSampleIndex = processedSampleIndex = writtenSampleIndex;
    currentQueueItem->reset(writtenSampleIndex);
}

void PowerModule::PowerModuleImpl::setLastErrorMessage(const std::string& message) {
    std::lock_guard<std::mutex> lock(lastErrorMutex);
    lastErrorMessage = message;
}

std::string PowerModule::PowerModuleImpl::getLastErrorMessage() {
    std::lock_guard<std::mutex> lock(lastErrorMutex);
    return lastErrorMessage;
}

size_t PowerModule::PowerModuleImpl::getQueuedCalculationsCount() {
    std::lock_guard<std::mutex> lock(resultsMutex);
    return resultsQueue.size();
}

void PowerModule::PowerModuleImpl::getSampleSlot(unsigned short slot, float** buffer) const {
    *buffer = slot < 10 ? buffers.samplesBuffer.getHostBuffer(slot) : nullptr;
}

void PowerModule::PowerModuleImpl::getClarkeParkSlot(unsigned short slot, float** buffer) const {
    *buffer = slot < 12 ? buffers.clarkeParkBuffer.getHostBuffer(slot) : nullptr;
}

void PowerModule::PowerModuleImpl::getWaveformBufferUInput(unsigned char index, float** buffer) const {
    const unsigned short first = config.getGridConfig().starVoltages ? slots::kVoltages : slots::kLineToLine;
    getSampleSlot(index < 3 ? static_cast<unsigned short>(first + index) : 10, buffer);
}

void PowerModule::PowerModuleImpl::getWaveformBufferUStar(unsigned char index, float** buffer) const {
    getSampleSlot(index < 3 ? index : 10, buffer);
}

void PowerModule::PowerModuleImpl::getWaveformBufferUDelta(unsigned char index, float** buffer) const {
    getSampleSlot(index < 3 ? static_cast<unsigned short>(slots::kLineToLine + index) : 10, buffer);
}

void PowerModule::PowerModuleImpl::getWaveformBufferI(unsigned char index, float** buffer) const {
    getSampleSlot(index < 3 ? static_cast<unsigned short>(slots::kCurrents + index) : 10, buffer);
}

void PowerModule::PowerModuleImpl::getWaveformBufferMechAngles(float** buffer) const {
    getSampleSlot(slots::kMechanicalAngle, buffer);
}

void PowerModule::PowerModuleImpl::getWaveformBufferClarkeU(unsigned char index, float** buffer) const {
    getClarkeParkSlot(index < 3 ? static_cast<unsigned short>(slots::kClarkeU + index) : 12, buffer);
}

void PowerModule::PowerModuleImpl::getWaveformBufferClarkeI(unsigned char index, float** buffer) const {
    getClarkeParkSlot(index < 3 ? static_cast<unsigned short>(slots::kClarkeI + index) : 12, buffer);
}

void PowerModule::PowerModuleImpl::getWaveformBufferParkU(unsigned char index, float** buffer) const {
    getClarkeParkSlot(index < 3 ? static_cast<unsigned short>(slots::kParkU + index) : 12, buffer);
}

void PowerModule::PowerModuleImpl::getWaveformBufferParkI(unsigned char index, float** buffer) const {
    getClarkeParkSlot(index < 3 ? static_cast<unsigned short>(slots::kParkI + index) : 12, buffer);
}

}  // namespace tarnel
