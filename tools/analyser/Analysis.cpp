#include "Analysis.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <stdexcept>
#include <thread>

#include "SignalEstimates.h"
#include "tarnel/PowerConfig.h"

namespace tarnel::analyser {

namespace {

constexpr double kRingSeconds = 4.0;
constexpr double kHighestHarmonic = 50;
// Cycles fitted to continue the signal before its start and after its end.
constexpr double kFittedCycles = 2.0;

}  // namespace

Analysis::Analysis(SignalSource& source_, const AnalysisSettings& settings_, std::vector<ResultSink*> sinks_)
    : source(source_), settings(settings_), sinks(std::move(sinks_)), module(settings_.backend) {
    configure();
}

Analysis::~Analysis() = default;

const char* Analysis::backendName() const { return tarnel::backendName(module.getBackendKind()); }

void Analysis::configure() {
    const SourceInfo& info = source.info();
    const double fs = info.sampleRate, f = info.nominalFrequency;
    blockPeriods = f > 55.0 ? 12 : 10;
    ringLength = static_cast<unsigned long long>(std::ceil(kRingSeconds * fs));
    // Chunks stay well inside the ring so that blocks in flight keep their samples.
    settings.chunkSamples = std::max<size_t>(1, std::min<size_t>(settings.chunkSamples, ringLength / 4));
    const unsigned phases = PowerGridConfig::forType(static_cast<PowerGridConfigType>(info.gridType)).phasesCount;
    const bool threePhase = phases == 3;
    module.beginUpdate();
    module.setGridConfigType(static_cast<PowerGridConfigType>(info.gridType));
    module.setSampleRate(fs, 1);
    module.setBufferLength(ringLength);
    module.setStaticFrequency(f, 0.1);
    module.setPeriodCount(static_cast<unsigned short>(blockPeriods));
    module.setCurrentEnabled(!info.currents.empty());
    module.setLineToLineResultsEnabled(phases > 1);
    module.setInterHarmonicsEnabled(true);
    module.setThdEnabled(true);
    module.setHighestRequestedHarmonic(static_cast<int>(kHighestHarmonic));
    module.setSymmetricalComponentsEnabled(threePhase);
    module.setPeriodValuesEnabled(true);
    module.setFundamentalPeriodValuesEnabled(true);
    module.setPeriodSymmetricalComponentsEnabled(threePhase);
    module.setDipSwellEnabled(true);
    module.setDipThreshold(settings.dipThreshold);
    module.setSwellThreshold(settings.swellThreshold);
    module.setRvcEnabled(true);
    module.setNominalVoltage(info.nominalVoltage);
    module.setNominalLineToLineVoltage(info.nominalVoltage * std::sqrt(3.0));
    module.endUpdate();
    module.reset(0);
    maxBlockLength = PowerConfig::getPow2Length(blockPeriods * fs / (0.9 * f));
    for (unsigned char c = 0; c < info.voltages.size(); ++c) {
        float* ring = nullptr;
        module.getWaveformBufferUInput(c, &ring);
        voltageRings.push_back(ring);
    }
    for (unsigned char c = 0; c < info.currents.size(); ++c) {
        float* ring = nullptr;
        module.getWaveformBufferI(c, &ring);
        currentRings.push_back(ring);
    }
    ZeroCrossingDetector::Settings zc;
    zc.minimumAmplitude = 0.1 * info.nominalVoltage * std::sqrt(2.0);
    detector = std::make_unique<ZeroCrossingDetector>(fs, f, 0, zc);
    // The pre-roll fills the filter, and a little more, before the first sample.
    preRollSamples = 2 * detector->latency() + static_cast<uint64_t>(std::ceil(kFittedCycles * fs / f));
}

size_t Analysis::run() {
    std::vector<std::vector<float>> voltages, currents;
    for (;;) {
        const size_t n = source.read(voltages, currents, settings.chunkSamples);
        if (n == 0) break;
        waitForRingSpace(n);
        writeChunk(voltages, currents, n);
        if (written == n) preRollDetector(voltages[0]);
        detector->addSamples(voltages[0].data(), n);
        keepLastCycles(voltages[0]);
        takeZeroCrossings();
        scheduleBlocks(false);
        collect();
        reportProgress(false);
    }
    if (written > 0) {
        flushDetector();
        takeZeroCrossings();
        scheduleBlocks(true);
    }
    module.sync();
    collect();
    reportProgress(true);
    return blocks;
}

void Analysis::waitForRingSpace(size_t count) {
    // Samples still to be calculated, and the period in progress, must not be
    // overwritten: when the ring is that full, collect results as they finish
    // (without draining the device) until enough of it is free.
    const double samplesPerPeriod = source.info().sampleRate / source.info().nominalFrequency;
    const auto margin = static_cast<unsigned long long>(4.0 * samplesPerPeriod);
    auto fits = [&] { return written + count + margin <= processed + ringLength; };
    while (!fits()) {
        if (scheduled == blocks)
            throw std::runtime_error(source.info().description +
                                     ": the analysis fell behind the sample ring (no blocks could be formed)");
        if (module.isAnyResultReady()) {
            collect();
        } else {
            std::this_thread::sleep_for(std::chrono::microseconds(50));
        }
    }
}

void Analysis::writeChunk(const std::vector<std::vector<float>>& voltages,
                          const std::vector<std::vector<float>>& currents, size_t count) {
    // One or two pieces, as the chunk may cross the end of the ring.
    const size_t position = static_cast<size_t>(written % ringLength);
    const size_t first = std::min<size_t>(count, static_cast<size_t>(ringLength) - position);
    auto copy = [&](float* ring, const std::vector<float>& samples) {
        std::copy(samples.begin(), samples.begin() + static_cast<long>(first), ring + position);
        std::copy(samples.begin() + static_cast<long>(first), samples.begin() + static_cast<long>(count), ring);
    };
    for (size_t c = 0; c < voltageRings.size(); ++c) copy(voltageRings[c], voltages[c]);
    for (size_t c = 0; c < currentRings.size(); ++c) copy(currentRings[c], currents[c]);
    module.writeSamples(static_cast<unsigned>(count));
    written += count;
}

void Analysis::preRollDetector(const std::vector<float>& firstSamples) {
    const double samplesPerCycle = source.info().sampleRate / startFrequency();
    const size_t fitted =
        std::min(firstSamples.size(), static_cast<size_t>(std::ceil(kFittedCycles * samplesPerCycle)));
    const FundamentalFit fit = fitFundamental(firstSamples.data(), fitted, samplesPerCycle);
    std::vector<float> preRoll(preRollSamples);
    for (uint64_t j = 0; j < preRollSamples; ++j)
        preRoll[j] = static_cast<float>(fit.at(static_cast<double>(j) - static_cast<double>(preRollSamples)));
    detector->addSamples(preRoll.data(), preRoll.size());
}

double Analysis::startFrequency() const {
    const SourceInfo& info = source.info();
    return info.measuredFrequency > 0.0 ? info.measuredFrequency : info.nominalFrequency;
}

void Analysis::keepLastCycles(const std::vector<float>& samples) {
    const auto keep = static_cast<size_t>(std::ceil(kFittedCycles * source.info().sampleRate / startFrequency()));
    lastCycles.insert(lastCycles.end(), samples.begin(), samples.end());
    if (lastCycles.size() > keep) lastCycles.erase(lastCycles.begin(), lastCycles.end() - static_cast<long>(keep));
}

void Analysis::flushDetector() {
    // The last cycles continue for as long as the detector needs to settle
    // every crossing of the recording.
    const double samplesPerCycle = source.info().sampleRate / detector->latestFrequency();
    const FundamentalFit fit = fitFundamental(lastCycles.data(), lastCycles.size(), samplesPerCycle);
    std::vector<float> postRoll(preRollSamples);
    for (uint64_t j = 0; j < preRollSamples; ++j)
        postRoll[j] = static_cast<float>(fit.at(static_cast<double>(lastCycles.size() + j)));
    detector->addSamples(postRoll.data(), postRoll.size());
}

void Analysis::takeZeroCrossings() {
    // Detector positions run ahead of the recording's by the pre-roll. Periods
    // that start before the first sample are the pre-roll's. The period that
    // reaches past the last sample goes to the module only: its start closes
    // the recording's last whole period, which the module completes when the
    // next boundary is known.
    std::vector<ZeroCrossingInterval> intervals;
    bool pastTheEnd = false;
    for (ZeroCrossingInterval z : detector->takeIntervals()) {
        if (z.start.index < preRollSamples) continue;
        z.start.index -= preRollSamples;
        z.end.index -= preRollSamples;
        pastTheEnd = z.end.round() >= written;
        intervals.push_back(z);
        if (pastTheEnd) break;
    }
    if (intervals.empty()) return;
    pendingIntervals.insert(pendingIntervals.end(), intervals.begin(), intervals.end() - (pastTheEnd ? 1 : 0));
    module.scheduleForPeriodCalculationFromZeroCrossing(intervals);
}

void Analysis::scheduleBlocks(bool endOfInput) {
    const double fs = source.info().sampleRate, nominal = source.info().nominalFrequency;
    while (pendingIntervals.size() >= blockPeriods || (endOfInput && !pendingIntervals.empty())) {
        size_t periods = std::min<size_t>(blockPeriods, pendingIntervals.size());
        // At the end the last block reaches the last sample, taking a period
        // or so more rather than leaving a sliver behind.
        const bool last =
            endOfInput && pendingIntervals.size() - periods < 2 && written - nextBlockStart <= maxBlockLength;
        if (last) periods = pendingIntervals.size();
        const ZeroCrossingInterval& first = pendingIntervals.front();
        const ZeroCrossingInterval& final = pendingIntervals[periods - 1];
        const unsigned long long end = last ? written : final.end.round();
        const double seconds = final.end.subtract(first.start) / fs;
        bool valid = true;
        for (size_t k = 0; k < periods; ++k) valid = valid && pendingIntervals[k].valid;
        // Without a fundamental throughout, the block's periods are not measured;
        // the latest measured frequency stands in.
        double frequency = valid ? static_cast<double>(periods) / seconds : detector->latestFrequency();
        if (!(frequency > 0.5 * nominal && frequency < 2.0 * nominal)) frequency = nominal;
        pendingIntervals.erase(pendingIntervals.begin(), pendingIntervals.begin() + static_cast<long>(periods));
        if (end <= nextBlockStart) continue;
        scheduleBlock(nextBlockStart, end, frequency);
    }
    if (endOfInput && nextBlockStart < written) scheduleBlock(nextBlockStart, written, detector->latestFrequency());
}

void Analysis::scheduleBlock(unsigned long long start, unsigned long long end, double frequency) {
    // Stretches without a usable fundamental are cut into blocks the FFT can take.
    while (end - start > maxBlockLength) {
        const unsigned long long length = maxBlockLength / 2;
        module.scheduleForCalculation(start, static_cast<int>(length), source.info().nominalFrequency);
        start += length;
        ++scheduled;
    }
    module.scheduleForCalculation(start, static_cast<int>(end - start), frequency);
    nextBlockStart = end;
    ++scheduled;
}

void Analysis::collect() {
    while (module.isAnyResultReady()) {
        for (const PowerResultsGeneral& r : module.getResults(0)) {
            ++blocks;
            processed = r.firstSampleIndex + r.length;
            for (ResultSink* sink : sinks) sink->onBlock(r);
        }
    }
    const int phases = module.getPhasesCount();
    bool more = true;
    while (more) {
        int count = 0;
        PowerResultsPeriod* records = nullptr;
        module.getPeriodResults(&count, &more, &records);
        for (int v = 0; v < count; ++v)
            for (ResultSink* sink : sinks) sink->onPeriodValue(records + static_cast<size_t>(v) * (phases + 1), phases);
    }
}

void Analysis::reportProgress(bool done) {
    const uint64_t total = source.info().totalSamples;
    if (!settings.progress || total == 0) return;
    const int percent =
        done ? 100 : static_cast<int>(100.0 * static_cast<double>(written) / static_cast<double>(total));
    if (percent == lastProgress) return;
    lastProgress = percent;
    const int width = 40, filled = percent * width / 100;
    std::fprintf(stderr, "\r[%.*s%*s] %3d%%", filled, "########################################", width - filled, "",
                 percent);
    if (done) std::fputc('\n', stderr);
    std::fflush(stderr);
}

}  // namespace tarnel::analyser
