#include "RecordingSource.h"

#include <algorithm>
#include <cmath>
#include <stdexcept>

#include "recordings/ChannelMapping.h"
#include "recordings/OpenRecording.h"

namespace tarnel::analyser {

namespace {

using namespace tarnel::recordings;

constexpr size_t kChunk = 8192;

// Common nominal phase voltages; a recording's level is matched to the
// nearest within 15 %, otherwise its own RMS stands as the reference.
double nominalFromLevel(double rms) {
    const double standard[] = {57.7,  63.5,  100.0, 110.0, 115.0,  120.0,   127.0,   220.0,   230.0,
                               240.0, 277.0, 400.0, 690.0, 6350.0, 11547.0, 63509.0, 132791.0};
    double best = rms, bestError = 0.15;
    for (double v : standard) {
        const double error = std::fabs(rms - v) / v;
        if (error < bestError) best = v, bestError = error;
    }
    return best;
}

class RecordingSource final : public SignalSource {
  public:
    explicit RecordingSource(const AnalyserOptions& options) {
        RecordingOptions readOptions;
        readOptions.secondary = options.secondary;
        if (options.section) readOptions.section = static_cast<size_t>(*options.section);
        readOptions.sampleRate = options.sampleRate;
        reader = openRecording(options.input, readOptions);
        const RecordingMetadata& meta = reader->metadata();
        MappingOptions mapping{options.gridType, options.voltageColumns, options.currentColumns,
                               options.delta,    options.nominalVoltage, options.nominalFrequency};
        map = mapChannels(meta, mapping);
        fillInfo(meta);
        // The first chunk is read now: without a stated nominal voltage the
        // recording's own level sets the reference of the dip and swell detectors.
        buffered = readInterleaved(kChunk);
        if (buffered == 0) throw std::runtime_error(options.input + ": the recording holds no samples");
        info_.nominalVoltage = map.nominalVoltage.value_or(nominalFromLevel(firstChunkRms()));
        info_.nominalVoltageEstimated = !map.nominalVoltage;
    }

    const SourceInfo& info() const override { return info_; }

    size_t read(std::vector<std::vector<float>>& voltages, std::vector<std::vector<float>>& currents,
                size_t count) override {
        const size_t n = buffered > 0 ? std::min(buffered, count) : readInterleaved(std::min(count, kChunk));
        voltages.resize(map.voltages.size());
        currents.resize(map.currents.size());
        const size_t channels = reader->metadata().channels.size();
        auto split = [&](std::vector<std::vector<float>>& out, const std::vector<size_t>& indices) {
            for (size_t c = 0; c < indices.size(); ++c) {
                out[c].resize(n);
                for (size_t k = 0; k < n; ++k) out[c][k] = interleaved[(offset + k) * channels + indices[c]];
            }
        };
        split(voltages, map.voltages);
        split(currents, map.currents);
        consume(n);
        return n;
    }

  private:
    void fillInfo(const RecordingMetadata& meta) {
        info_.description = meta.fileName + " (" + meta.format + ")";
        info_.sourceFile = meta.fileName;
        info_.format = meta.format;
        info_.startUtcNanoseconds = meta.startUtcNanoseconds;
        info_.startTimeZoneStated = meta.startTimeZoneStated;
        info_.sampleRate = meta.uniformSampleRate();
        info_.totalSamples = meta.totalSamples;
        info_.gridType = map.gridType;
        info_.nominalFrequency =
            map.nominalFrequency.value_or(meta.nominalFrequency > 0.0 ? meta.nominalFrequency : 50.0);
        info_.nominalFrequencyEstimated = !map.nominalFrequency && !(meta.nominalFrequency > 0.0);
        for (size_t c : map.voltages) info_.voltages.push_back({meta.channels[c].name, "V"});
        for (size_t c : map.currents) info_.currents.push_back({meta.channels[c].name, "A"});
    }

    size_t readInterleaved(size_t count) {
        interleaved.resize(count * reader->metadata().channels.size());
        offset = 0;
        buffered = reader->readChunk(interleaved.data(), count);
        return buffered;
    }

    void consume(size_t n) {
        offset += n;
        buffered -= n;
    }

    // RMS of the first voltage channel over the first chunk, as a phase voltage.
    double firstChunkRms() const {
        const size_t channels = reader->metadata().channels.size();
        double sum = 0.0;
        for (size_t k = 0; k < buffered; ++k) {
            const double v = interleaved[k * channels + map.voltages[0]];
            sum += v * v;
        }
        const double rms = std::sqrt(sum / static_cast<double>(buffered));
        return map.delta ? rms / std::sqrt(3.0) : rms;
    }

    std::unique_ptr<RecordingReader> reader;
    ChannelMap map;
    SourceInfo info_;
    std::vector<float> interleaved;
    size_t buffered = 0, offset = 0;
};

}  // namespace

std::unique_ptr<SignalSource> openRecordingSource(const AnalyserOptions& options) {
    return std::make_unique<RecordingSource>(options);
}

}  // namespace tarnel::analyser
