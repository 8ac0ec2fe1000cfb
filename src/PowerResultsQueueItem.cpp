#include "PowerResultsQueueItem.h"

#include <algorithm>
#include <cmath>

#include "tarnel/CudaErrorHandling.h"

namespace tarnel {

PowerResultsQueueItem::PowerResultsQueueItem(std::shared_ptr<tarnel::Backend> backend_, double sampleRate_,
                                             unsigned long long index_, unsigned long long firstSampleIndex_,
                                             unsigned int firstFftOutputSampleIndex_,
                                             unsigned int firstHarmonicSampleIndex_, unsigned char cudaStreamId_,
                                             CUstream_st* cudaStream_)
    : backend(std::move(backend_)),
      sampleRate(sampleRate_),
      index(index_),
      firstSampleIndex(firstSampleIndex_),
      firstFftOutputSampleIndex(firstFftOutputSampleIndex_),
      firstHarmonicSampleIndex(firstHarmonicSampleIndex_),
      cudaStreamId(cudaStreamId_),
      cudaStream(cudaStream_) {
    try {
        TARNEL_CUDA_CALL(backend->createEvent(&eventResultsCalculated));
        TARNEL_CUDA_CALL(backend->createEvent(&eventResultsTransferred));
        if (index == 0) TARNEL_CUDA_CALL(backend->recordEvent(eventResultsCalculated, cudaStream));
    } catch (...) {
        if (eventResultsCalculated != nullptr) backend->destroyEvent(eventResultsCalculated);
        if (eventResultsTransferred != nullptr) backend->destroyEvent(eventResultsTransferred);
        throw;
    }
}

PowerResultsQueueItem::~PowerResultsQueueItem() {
    backend->destroyEvent(eventResultsCalculated);
    backend->destroyEvent(eventResultsTransferred);
}

void PowerResultsQueueItem::setCalculation(unsigned long long first, unsigned int len, double periodLength,
                                           unsigned int periodCountSetting, unsigned int n,
                                           unsigned int fftOutputBufferLength, unsigned int maxHarmonics, double f) {
    exactPeriodLength = periodLength;
    firstSampleIndex = first;
    length = len;
    const auto periods = static_cast<int32_t>(std::round(len / exactPeriodLength));
    periodCount = std::min(static_cast<unsigned int>(periods), periodCountSetting);
    fftInputLength = n;
    frequency = f;
    fftOutputLength = n / 2 + 1;
    if (fftOutputLength + firstFftOutputSampleIndex > fftOutputBufferLength) firstFftOutputSampleIndex = 0;
    dFrequency = sampleRate / n;
    harmonicLength = harmonicLengthFor(sampleRate, n, f, maxHarmonics);
}

unsigned int PowerResultsQueueItem::harmonicLengthFor(double sampleRate, unsigned int fftLength, double frequency,
                                                      unsigned int maxHarmonics) {
    const double dFrequency = sampleRate / fftLength;
    // Compared in double: a frequency far below the resolution must not overflow the conversion.
    const double nyquistOrder = std::ceil((fftLength / 2) * dFrequency / frequency) + 1.0;
    return nyquistOrder < static_cast<double>(maxHarmonics) ? static_cast<unsigned int>(nyquistOrder) : maxHarmonics;
}

void PowerResultsQueueItem::callEventResultsCalculated(CUstream_st* stream) {
    std::lock_guard<std::mutex> lock(mutex);
    TARNEL_CUDA_CALL(backend->recordEvent(eventResultsCalculated, stream));
}

void PowerResultsQueueItem::callEventResultsTransferred() {
    std::lock_guard<std::mutex> lock(mutex);
    TARNEL_CUDA_CALL(backend->recordEvent(eventResultsTransferred, cudaStream));
    resultsTransferred = true;
}

bool PowerResultsQueueItem::isResultReady() {
    bool transferred = false;
    {
        std::lock_guard<std::mutex> lock(mutex);
        transferred = resultsTransferred;
    }
    return transferred && backend->queryEvent(eventResultsTransferred) == 0;
}

}  // namespace tarnel
