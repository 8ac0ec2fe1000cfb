// Drives a PowerModule the way an acquisition program does: samples in
// chunks into the rings, 10- or 12-period blocks at the measured frequency,
// period values from the fundamental's zero crossings, results collected
// continuously and handed to the sinks.
//
// A recording is covered whole: the zero-crossing detector is pre-rolled with
// the fundamental fitted to the first cycles (its filter is settled when the
// first sample arrives) and flushed at the end with the fundamental of the
// last cycles continued, so that period values run from the first whole cycle
// to the last; a final, shorter block reaches the last sample.
#pragma once

#include <deque>
#include <memory>
#include <string>
#include <vector>

#include "SignalSource.h"
#include "tarnel/PowerModule.h"
#include "tarnel/ZeroCrossingDetector.h"

namespace tarnel::analyser {

// One power-quality event as an engineer reads it: one entry per disturbance
// of the polyphase system.
struct PowerQualityEvent {
    std::string kind;               // "dip", "swell", "interruption" or "rvc"
    std::string phases;             // channels involved, in phase order, e.g. "VB VC"
    std::vector<int> phaseNumbers;  // the same as 1-based phase numbers
    double start = 0.0;             // seconds: first channel in
    double duration = 0.0;          // seconds: until the last channel is out (so far, when ongoing)
    double voltage = 0.0;           // residual = lowest (dip, interruption), highest (swell), steady change (rvc)
    double depth = 0.0;             // % of nominal: depth (dip, interruption), rise (swell), largest change (rvc)
    bool ongoing = false;           // still in progress at the end of the recording
};

// What the analysis covered and decided, beside the measured values.
struct AnalysisSummary {
    double recordingSeconds = 0.0;
    double firstPeriodStart = 0.0;  // seconds: start of the first period value
    double lastPeriodEnd = 0.0;     // seconds: end of the last period value
    double blocksEnd = 0.0;         // seconds: end of the last block
    size_t periodValues = 0;
    size_t validPeriodValues = 0;
    size_t blocks = 0;
    double nominalVoltage = 0.0;
    NominalSource nominalVoltageSource = NominalSource::Given;
    double nominalFrequency = 0.0;
    NominalSource nominalFrequencySource = NominalSource::Given;
    double measuredFrequency = 0.0;  // mean over the valid period values; 0 when none was valid
    PhaseRotation rotation = PhaseRotation::Unknown;
    bool rotationGiven = false;  // set by --phase-order rather than detected
    // Voltage unbalance over the blocks, % of the rotating (positive for the
    // actual rotation) component; 0 unless three phases.
    double unbalanceU2Mean = 0.0, unbalanceU2Max = 0.0, unbalanceU0Mean = 0.0, unbalanceU0Max = 0.0;
    std::string resampling;  // empty unless the recording was resampled
};

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
    double dipThreshold = 90.0;     // % of nominal
    double swellThreshold = 110.0;  // % of nominal
};

class Analysis {
  public:
    Analysis(SignalSource& source, const AnalysisSettings& settings, std::vector<ResultSink*> sinks);
    ~Analysis();
    // Reads the whole recording; returns the number of block results.
    size_t run();
    const char* backendName() const;
    unsigned periodsPerBlock() const { return blockPeriods; }

  private:
    void configure();
    void writeChunk(const std::vector<std::vector<float>>& voltages, const std::vector<std::vector<float>>& currents,
                    size_t count);
    void waitForRingSpace(size_t count);
    void preRollDetector(const std::vector<float>& firstSamples);
    void flushDetector();
    void keepLastCycles(const std::vector<float>& samples);
    double startFrequency() const;
    void takeZeroCrossings();
    void scheduleBlocks(bool endOfInput);
    void scheduleBlock(unsigned long long start, unsigned long long end, double frequency);
    void collect();
    void reportProgress(bool done);

    SignalSource& source;
    AnalysisSettings settings;
    std::vector<ResultSink*> sinks;
    PowerModule module;
    std::unique_ptr<ZeroCrossingDetector> detector;
    std::deque<ZeroCrossingInterval> pendingIntervals;
    uint64_t preRollSamples = 0;    // detector samples ahead of the recording's first
    std::vector<float> lastCycles;  // the newest samples of the detector's channel
    std::vector<float*> voltageRings, currentRings;
    unsigned long long ringLength = 0;
    unsigned long long written = 0;
    unsigned long long processed = 0;  // end of the last collected block
    unsigned long long nextBlockStart = 0;
    unsigned long long maxBlockLength = 0;
    unsigned blockPeriods = 10;
    size_t blocks = 0;     // collected
    size_t scheduled = 0;  // scheduled
    int lastProgress = -1;
};

}  // namespace tarnel::analyser
