#include "RecordingSource.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <stdexcept>

#include "SectionResampler.h"
#include "SignalEstimates.h"
#include "recordings/ChannelMapping.h"
#include "recordings/OpenRecording.h"

namespace tarnel::analyser {

namespace {

using namespace tarnel::recordings;

constexpr size_t kChunk = 8192;
// The nominal values are estimated from this much of the recording's start.
constexpr double kEstimationSeconds = 2.0;

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
        if (meta.sections.size() > 1) {
            readResampled(meta);
        } else {
            info_.sampleRate = meta.uniformSampleRate();
            info_.totalSamples = meta.totalSamples;
            const auto estimationSamples = static_cast<size_t>(std::ceil(kEstimationSeconds * info_.sampleRate));
            readInterleaved(std::max(kChunk, estimationSamples));
        }
        if (buffered == 0) throw std::runtime_error(options.input + ": the recording holds no samples");
        chooseNominalFrequency(meta, options);
        chooseNominalVoltage(options);
    }

    const SourceInfo& info() const override { return info_; }

    size_t read(std::vector<std::vector<float>>& voltages, std::vector<std::vector<float>>& currents,
                size_t count) override {
        const size_t n = buffered > 0 ? std::min(buffered, count) : readInterleaved(std::min(count, kChunk));
        voltages.resize(map.voltages.size());
        currents.resize(map.currents.size());
        split(voltages, map.voltages, offset, n);
        split(currents, map.currents, offset, n);
        offset += n;
        buffered -= n;
        return n;
    }

  private:
    void fillInfo(const RecordingMetadata& meta) {
        info_.description = meta.fileName + " (" + meta.format + ")";
        info_.sourceFile = meta.fileName;
        info_.format = meta.format;
        info_.startUtcNanoseconds = meta.startUtcNanoseconds;
        info_.startTimeZoneStated = meta.startTimeZoneStated;
        info_.gridType = map.gridType;
        for (size_t c : map.voltages) info_.voltages.push_back({meta.channels[c].name, "V"});
        for (size_t c : map.currents) info_.currents.push_back({meta.channels[c].name, "A"});
    }

    // A recording with several rates is read whole and put onto the highest of them.
    void readResampled(const RecordingMetadata& meta) {
        const size_t channels = meta.channels.size();
        std::vector<float> all(meta.totalSamples * channels);
        size_t read = 0;
        while (read < meta.totalSamples) {
            const size_t n =
                reader->readChunk(all.data() + read * channels, std::min<size_t>(kChunk, meta.totalSamples - read));
            if (n == 0) break;
            read += n;
        }
        all.resize(read * channels);
        const double rate = uniformRateFor(meta.sections);
        interleaved = resampleSections(all, channels, meta.sections, rate);
        offset = 0;
        buffered = interleaved.size() / channels;
        info_.sampleRate = rate;
        info_.totalSamples = buffered;
        double lowest = rate;
        for (const SampleSection& s : meta.sections) lowest = std::min(lowest, s.sampleRate);
        char text[320];
        std::snprintf(text, sizeof text,
                      "%zu sample-rate sections (%.6g to %.6g Hz) resampled onto %.6g Hz by band-limited "
                      "interpolation, timed by the sections of the configuration",
                      meta.sections.size(), lowest, rate, rate);
        info_.resampling = text;
    }

    void chooseNominalFrequency(const RecordingMetadata& meta, const AnalyserOptions& options) {
        const size_t channels = reader->metadata().channels.size();
        info_.measuredFrequency = estimateFundamentalFrequency(interleaved.data() + offset * channels + map.voltages[0],
                                                               buffered, channels, info_.sampleRate);
        if (options.nominalFrequency) {
            info_.nominalFrequency = *options.nominalFrequency;
            info_.nominalFrequencySource = NominalSource::Given;
            return;
        }
        const double stated = meta.nominalFrequency;
        const double estimated = info_.measuredFrequency > 0.0 ? nominalFrequencyFor(info_.measuredFrequency) : 0.0;
        // A recording's stated frequency stands unless its samples clearly say otherwise.
        if (stated > 0.0 && (estimated == 0.0 || std::fabs(estimated - stated) <= 0.1 * stated)) {
            info_.nominalFrequency = stated;
            info_.nominalFrequencySource = NominalSource::Recording;
        } else if (estimated > 0.0) {
            info_.nominalFrequency = estimated;
            info_.nominalFrequencySource = NominalSource::Estimated;
        } else {
            info_.nominalFrequency = 50.0;
            info_.nominalFrequencySource = NominalSource::Assumed;
        }
    }

    // Without a stated nominal voltage the level of the cycles before the
    // first disturbance stands in: the detectors then measure dips and swells
    // against the voltage the system had before the event.
    void chooseNominalVoltage(const AnalyserOptions& options) {
        if (options.nominalVoltage) {
            info_.nominalVoltage = *options.nominalVoltage;
            info_.nominalVoltageSource = NominalSource::Given;
            return;
        }
        std::vector<std::vector<float>> voltages(map.voltages.size());
        split(voltages, map.voltages, offset, buffered);
        const double frequency = info_.measuredFrequency > 0.0 ? info_.measuredFrequency : info_.nominalFrequency;
        double level = preDisturbanceLevel(cycleRms(voltages, info_.sampleRate / frequency));
        if (map.delta) level /= std::sqrt(3.0);
        info_.nominalVoltage = level > 0.0 ? level : 230.0;
        info_.nominalVoltageSource = level > 0.0 ? NominalSource::Estimated : NominalSource::Assumed;
    }

    void split(std::vector<std::vector<float>>& out, const std::vector<size_t>& indices, size_t from, size_t n) const {
        const size_t channels = reader->metadata().channels.size();
        for (size_t c = 0; c < indices.size(); ++c) {
            out[c].resize(n);
            for (size_t k = 0; k < n; ++k) out[c][k] = interleaved[(from + k) * channels + indices[c]];
        }
    }

    // Reads up to `count` samples, fewer only at the end of the recording.
    size_t readInterleaved(size_t count) {
        const size_t channels = reader->metadata().channels.size();
        interleaved.resize(count * channels);
        offset = 0;
        buffered = 0;
        while (buffered < count) {
            const size_t n = reader->readChunk(interleaved.data() + buffered * channels, count - buffered);
            if (n == 0) break;
            buffered += n;
        }
        return buffered;
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
