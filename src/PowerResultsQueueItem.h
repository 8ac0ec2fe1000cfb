// One block calculation in flight: its sample range, its sizes and rows, the
// stream it runs on and the two events that order it and report it done.
#pragma once

#include <cstdint>
#include <memory>
#include <mutex>

#include "device/Backend.h"

namespace tarnel {

class PowerResultsQueueItem {
  public:
    PowerResultsQueueItem(std::shared_ptr<tarnel::Backend> backend, double sampleRate, unsigned long long index,
                          unsigned long long firstSampleIndex, unsigned int firstFftOutputSampleIndex,
                          unsigned int firstHarmonicSampleIndex, unsigned char cudaStreamId, CUstream_st* cudaStream);
    ~PowerResultsQueueItem();
    PowerResultsQueueItem(const PowerResultsQueueItem&) = delete;
    PowerResultsQueueItem& operator=(const PowerResultsQueueItem&) = delete;

    void setCalculation(unsigned long long firstSampleIndex, unsigned int length, double exactPeriodLength,
                        unsigned int periodCount, unsigned int fftInputLength, unsigned int fftOutputBufferLength,
                        unsigned int maxHarmonics, double frequency);
    void reset(unsigned long long first) { firstSampleIndex = first; }
    // Harmonic orders a block gets: up to the Nyquist frequency, at most `maxHarmonics`.
    static unsigned int harmonicLengthFor(double sampleRate, unsigned int fftLength, double frequency,
                                          unsigned int maxHarmonics);
    // Records this item's "predecessor done" event on the predecessor's stream.
    void callEventResultsCalculated(CUstream_st* stream);
    // Records the "copies done" event after this calculation's copies.
    void callEventResultsTransferred();
    bool isResultReady();

    unsigned long long getIndex() const { return index; }
    unsigned long long getFirstSampleIndex() const { return firstSampleIndex; }
    unsigned int getLength() const { return length; }
    unsigned long long getNextSampleIndex() const { return firstSampleIndex + length; }
    unsigned int getFirstFftOutputSampleIndex() const { return firstFftOutputSampleIndex; }
    unsigned int getFirstHarmonicSampleIndex() const { return firstHarmonicSampleIndex; }
    double getExactPeriodLength() const { return exactPeriodLength; }
    double getFrequency() const { return frequency; }
    double getDFrequency() const { return dFrequency; }
    unsigned int getFftInputLength() const { return fftInputLength; }
    unsigned int getFftOutputLength() const { return fftOutputLength; }
    unsigned int getHarmonicLength() const { return harmonicLength; }
    unsigned int getPeriodCount() const { return periodCount; }
    unsigned char getCudaStreamId() const { return cudaStreamId; }
    CUstream_st* getCudaStream() const { return cudaStream; }
    CUevent_st* getEventResultsCalculated() { return eventResultsCalculated; }

  private:
    std::shared_ptr<tarnel::Backend> backend;
    double sampleRate;
    unsigned long long index;
    unsigned long long firstSampleIndex;
    unsigned int length = 4;
    unsigned int firstFftOutputSampleIndex;
    unsigned int firstHarmonicSampleIndex;
    double exactPeriodLength = 1.0;
    double frequency = 50.0;
    double dFrequency = 1.0;
    unsigned int fftInputLength = 4;
    unsigned int fftOutputLength = 3;
    unsigned int harmonicLength = 1;
    unsigned int periodCount = 1;
    unsigned char cudaStreamId;
    CUstream_st* cudaStream;
    CUevent_st* eventResultsCalculated = nullptr;
    CUevent_st* eventResultsTransferred = nullptr;
    bool resultsTransferred = false;
    std::mutex mutex;
};

}  // namespace tarnel
