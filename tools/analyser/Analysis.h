// Drives a PowerModule the way an acquisition program does: samples in
// chunks into the rings, 10- or 12-period blocks at the measured frequency,
// period values from the fundamental's zero crossings, results collected
// continuously and handed to the sinks.
#pragma once

#include <deque>
#include <memory>
#include <string>
#include <vector>

#include "SignalSource.h"
#include "tarnel/PowerModule.h"
#include "tarnel/ZeroCrossingDetector.h"

namespace tarnel::analyser {

class ResultSink {
  public:
    virtual ~ResultSink() = default;
    virtual void onBlock(const PowerResultsGeneral& result) = 0;
    // One period value: `records` phases + 1 records, record 0 the combination.
    virtual void onPeriodValue(const PowerResultsPeriod* records, int phases) = 0;
};

struct AnalysisSettings {
    BackendKind backend = BackendKind::Auto;
    bool progress = false;
    size_t chunkSamples = 8192;
};

class Analysis {
  public:
    Analysis(SignalSource& source, const AnalysisSettings& settings, std::vector<ResultSink*> sinks);
    ~Analysis();
    // Reads the whole recording; returns the number of block results.
    size_t run();
    const char* backendName() const;
    unsigned periodsPerBlock() const { return blockPeriods; }
    // "L1-L2-L3" or "L1-L3-L2"; empty while the rotation is not known.
    const std::string& phaseOrder() const { return detectedPhaseOrder; }

  private:
    void configure();
    void writeChunk(const std::vector<std::vector<float>>& voltages, const std::vector<std::vector<float>>& currents,
                    size_t count);
    void waitForRingSpace(size_t count);
    void takeZeroCrossings();
    void scheduleBlocks();
    void scheduleBlock(unsigned long long start, unsigned long long end, double frequency);
    void collect();
    void reportProgress(bool done);

    SignalSource& source;
    AnalysisSettings settings;
    std::vector<ResultSink*> sinks;
    PowerModule module;
    std::unique_ptr<ZeroCrossingDetector> detector;
    std::deque<ZeroCrossingInterval> pendingIntervals;
    std::vector<float*> voltageRings, currentRings;
    unsigned long long ringLength = 0;
    unsigned long long written = 0;
    unsigned long long processed = 0;  // end of the last collected block
    unsigned long long nextBlockStart = 0;
    unsigned long long maxBlockLength = 0;
    unsigned blockPeriods = 10;
    bool periodsStarted = false;
    size_t blocks = 0;     // collected
    size_t scheduled = 0;  // scheduled
    int lastProgress = -1;
    std::string detectedPhaseOrder;
};

}  // namespace tarnel::analyser
