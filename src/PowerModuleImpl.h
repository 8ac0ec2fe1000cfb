// The host side of a module: settings, life cycle, sample ingestion, block
// scheduling, result collection and period values.
#pragma once

#include <array>
#include <atomic>
#include <complex>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "PowerBuffers.h"
#include "PowerPeriodQueueItems.h"
#include "PowerResultsQueueItem.h"
#include "SettingsRules.h"
#include "device/Backend.h"
#include "tarnel/DipSwellMultiPhaseCalculation.h"
#include "tarnel/PowerConfig.h"
#include "tarnel/PowerModule.h"
#include "tarnel/RvcMultiPhaseCalculation.h"

namespace tarnel {

// Hidden, although nested in an exported class: not part of the public API.
class __attribute__((visibility("hidden"))) PowerModule::PowerModuleImpl {
  public:
    PowerModuleImpl(PowerModule& owner, const BackendOptions& options);
    ~PowerModuleImpl();
    PowerModuleImpl(const PowerModuleImpl&) = delete;
    PowerModuleImpl& operator=(const PowerModuleImpl&) = delete;

    // Settings. A change is one step: it is applied whole (and, outside an
    // update, built when it affects buffers, plans or detectors) or refused
    // with every setting, getter and buffer left as it was.
    using Settings = tarnel::ModuleSettingsState;
    // The settings callers see: those of the open update, else those in effect.
    const PowerConfig& getConfig() const { return pendingSettings ? pendingSettings->config : config; }
    // `call` names the setter and its value in the message of a refusal.
    void changeSettings(const std::string& call, const std::function<void(Settings&)>& change, bool rebuilds = true);
    void setSampleRate(double sampleRate, int sampleRateDivider);
    void setBufferLength(unsigned long long length);
    void setStaticFrequency(double frequency, double tolerance);
    void setVariableFrequency(double minFrequency, double maxFrequency);
    unsigned long long getBufferLength() const {
        return pendingSettings ? pendingSettings->bufferLength : buffers.getBufferLength();
    }
    unsigned short getPeriodCount() const { return config.periodCount; }
    PowerGridConfigType getGridConfigType() const { return config.gridConfigType; }
    PowerGridConfig getGridConfig() const { return config.getGridConfig(); }
    bool getFullFftEnabled() const { return config.fullFftEnabled && !config.variableFrequency; }
    bool getAnyPeriodValuesEnabled() const {
        return config.periodValuesEnabled || config.fundamentalPeriodValuesEnabled;
    }
    unsigned long long getFftLength(unsigned long long length, double frequency) const;
    unsigned char getHarmonicOutputsCount() const;
    unsigned long long getMaxHarmonicsCount() const;
    BackendKind getBackendKind() const { return backend->kind(); }

    // Life cycle.
    void beginUpdate();
    void endUpdate();
    void reset(unsigned long long firstSampleIndex);
    void syncCuda();
    void deinit();

    // Samples.
    void copyAddedSamplesToGpu(unsigned int count);
    void skipSamples(unsigned int count);
    void getWaveformBufferUInput(unsigned char index, float** buffer) const;
    void getWaveformBufferUStar(unsigned char index, float** buffer) const;
    void getWaveformBufferUDelta(unsigned char index, float** buffer) const;
    void getWaveformBufferI(unsigned char index, float** buffer) const;
    void getWaveformBufferClarkeU(unsigned char index, float** buffer) const;
    void getWaveformBufferClarkeI(unsigned char index, float** buffer) const;
    void getWaveformBufferParkU(unsigned char index, float** buffer) const;
    void getWaveformBufferParkI(unsigned char index, float** buffer) const;
    void getWaveformBufferMechAngles(float** buffer) const;

    // Block calculations.
    void scheduleForCalculation(unsigned long long firstSampleIndex, unsigned int length, double frequency);
    std::vector<PowerResultsGeneral> getResults(unsigned int maxCount);
    bool isAnyResultReady();
    void calculateThd(PowerResultsThd& result, double fundamental, double rms, unsigned short slot,
                      unsigned long long row);
    static double rad2deg(double radians);

    // Period values.
    void scheduleForPeriodCalculation(int count, unsigned long long* firstSamples, int* lengths, double* frequencies,
                                      bool* valid);
    void scheduleForPeriodCalculationFromZeroCrossing(const std::vector<ZeroCrossingInterval>& intervals);
    void getPeriodResults(int* count, bool* more, PowerResultsPeriod** results);

    // The text of the last failed call through the C interface.
    void setLastErrorMessage(const std::string& message);
    std::string getLastErrorMessage();

    // Introspection for tests and tools.
    const PowerBuffers& getBuffers() const { return buffers; }
    size_t getFftPlansCount() const { return fftPlans.size(); }
    size_t getQueuedCalculationsCount();
    unsigned long long getWrittenSampleIndex() const { return writtenSampleIndex; }
    unsigned long long getScheduledSampleIndex() const { return scheduledSampleIndex; }
    unsigned long long getProcessedSampleIndex() const { return processedSampleIndex.load(); }
    unsigned long long getRebuildCount() const { return rebuildCount; }
    std::shared_ptr<PowerResultsQueueItem> getCurrentQueueItem() const { return currentQueueItem; }

  private:
    void initialize();
    Settings effectiveSettings() const;
    void installSettings(const Settings& settings);
    void commitSettings(const Settings& next, bool rebuilds);
    void recoverFromFailedRebuild();
    void dropMeasurement();
    void initFftPlans(unsigned long long minFftLength, unsigned long long maxFftLength);
    void configureDetectors();
    void requireBuilt(const char* operation) const;
    std::shared_ptr<PowerResultsQueueItem> getNextQueueItem() const;
    void getSampleSlot(unsigned short slot, float** buffer) const;
    void getClarkeParkSlot(unsigned short slot, float** buffer) const;

    // Steps of one block calculation.
    void validateBlockRequest(unsigned long long firstSampleIndex, unsigned int length, double frequency,
                              unsigned long long fftLength) const;
    void refuseOverwritingUncollected(unsigned long long fftLength, double frequency);
    const double* prepareWindow(int length, CUstream_st* stream);
    void clearFftPadding(unsigned length, unsigned fftLength, CUstream_st* stream);
    void enqueueWaveformKernels(const PowerResultsQueueItem& item, size_t row, int start, float fftScale,
                                const double* window);
    void enqueueSpectralKernels(const PowerResultsQueueItem& item, size_t row);
    void enqueueTransformWaveforms(const PowerResultsQueueItem& item, int start, size_t row);
    void enqueueThreePhaseValues(const PowerResultsQueueItem& item, size_t row);
    void enqueueBlockCopies(const PowerResultsQueueItem& item, size_t row, unsigned long long start);
    template <typename Kernel>
    void launch(const Kernel& kernel, unsigned gridX, unsigned blockX, unsigned blockY, CUstream_st* stream);

    // Steps of result collection.
    PowerResultsGeneral collectResult(const PowerResultsQueueItem& item);
    void fillPhase(PowerResultsGeneral& record, const PowerResultsGeneral& sums, const PowerResultsQueueItem& item,
                   unsigned p, size_t row);
    void addToTotals(PowerResultsPhase& totals, const PowerResultsPhase& phase, unsigned index, unsigned phases);
    void completeTotals(PowerResultsPhase& totals);
    void fillSymmetricalComponents(PowerResultsGeneral& record, size_t row);
    void fillClarkePark(PowerResultsGeneral& record, size_t row);

    // Steps of period values.
    void requirePeriodValues(const char* operation) const;
    void validatePeriodBlocks(int count, const unsigned long long* firstSamples, const int* lengths,
                              const double* frequencies, const bool* valid) const;
    void validateZeroCrossingIntervals(const std::vector<ZeroCrossingInterval>& intervals) const;
    unsigned long long writeReferenceBlock(unsigned long long firstSample, int length, double frequency, bool valid);
    void writeReferenceInterval(PreciseFraction start, PreciseFraction end, double frequency, bool valid);
    void advancePeriodItems(unsigned long long lastSample);
    void addZeroCrossingInterval(const ZeroCrossingInterval& interval);
    void queueZeroCrossingValue(unsigned short advanceParts);
    void calculatePeriodValues(unsigned long long first, unsigned long long last, double firstFraction,
                               double lastFraction, double totalLength, bool valid, PowerResultsPeriod* out);
    void feedDetectors(unsigned p, double time, PowerResultsPeriod& record);
    void fillPeriodTotals(PowerResultsPeriod* out, double time, double frequency, bool valid);
    void fillPeriodSymmetricalComponents(PowerResultsPeriod* out, const std::vector<std::complex<double>>& u,
                                         const std::vector<std::complex<double>>& i);
    // Caller sample at which the next period block must start; meaningful once a
    // block has been scheduled since the last reset.
    unsigned long long periodBlocksEnd = 0;

    PowerModule& owner;
    std::shared_ptr<tarnel::Backend> backend;
    PowerConfig config;
    PowerBuffers buffers;
    RvcMultiPhaseCalculation rvcCalculation;
    RvcMultiPhaseCalculation rvcLineToLineCalculation;
    DipSwellMultiPhaseCalculation dipSwellCalculation;
    DipSwellMultiPhaseCalculation dipSwellLineToLineCalculation;
    unsigned long long periodValueCounter = 0;
    unsigned long long writtenSampleIndex = 0;
    unsigned long long scheduledSampleIndex = 0;
    // Written by block collection, read by period collection on another thread.
    std::atomic<unsigned long long> processedSampleIndex{0};
    double previousFrequency = 0.0;
    double periodPhase = 0.0;
    double previousValid = 1.0;
    std::mutex schedulingMutex;
    std::mutex resultsMutex;
    std::mutex updateMutex;
    std::atomic<int> updateCount{0};
    // The settings being edited while an update is open.
    std::optional<Settings> pendingSettings;
    bool sampleRateSet = false;
    // A rebuild started changing buffers or plans; undone if it fails.
    bool rebuildTouchedDevice = false;
    // The last rebuild failed and could not be undone: nothing may run until
    // a rebuild succeeds.
    std::atomic<bool> rebuildFailed{false};
    // Orders the module's other streams after work a rebuild leaves on stream 0.
    CUevent_st* rebuildEvent = nullptr;
    std::array<CUstream_st*, 3> cudaStreams{};
    std::vector<std::unique_ptr<tarnel::FftPlan>> fftPlans;
    std::shared_ptr<PowerResultsQueueItem> currentQueueItem;
    std::shared_ptr<PowerPeriodStartQueueItem> currentPeriodStart;
    std::shared_ptr<PowerPeriodResultsQueueItem> currentPeriodItem;
    std::shared_ptr<PowerPeriodResultsQueueItem2> lastPeriodItem2;
    std::deque<std::shared_ptr<PowerResultsQueueItem>> resultsQueue;
    std::deque<std::shared_ptr<PowerPeriodStartQueueItem>> periodStartQueue;
    std::deque<std::shared_ptr<PowerPeriodResultsQueueItem>> periodResultsQueue;
    std::deque<std::shared_ptr<PowerPeriodResultsQueueItem2>> periodResultsQueue2;
    unsigned long long rebuildCount = 0;
    std::mutex lastErrorMutex;
    std::string lastErrorMessage;
    // The window of the last block length, kept on backends that prefer a table.
    GpuBuffer<double> windowBuffer;
    int windowLength = 0;
    // The FFT length the FFT input was last laid out for (0: unknown content)
    // and how many samples of each channel the last block wrote.
    unsigned fftInputLayout = 0;
    unsigned fftInputWritten = 0;
    // The oldest sample the period values may still read from the host rings.
    unsigned long long lastResetSampleIndex = 0;
};

}  // namespace tarnel
