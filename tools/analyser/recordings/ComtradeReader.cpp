#include "recordings/ComtradeReader.h"

#include <algorithm>
#include <cmath>
#include <sstream>

#include "recordings/ComtradeStartTime.h"
#include "recordings/RecordingError.h"
#include "recordings/Units.h"

namespace tarnel::recordings {

namespace {

// Bounds the decode buffers to about 2 MB whatever the channel count.
constexpr size_t kValuesPerChunk = 1 << 18;

}  // namespace

ComtradeReader::ComtradeReader(const std::string& path, const RecordingOptions& options)
    : source(locateComtrade(path)) {
    std::istringstream text(source.configText);
    config = parseComtradeConfig(text, source.configName, source.configLinesBefore);
    checkContents();
    decoder = makeDataDecoder(config, source);
    const std::optional<uint64_t> capacity = decoder->recordCapacity();
    if (capacity && *capacity < config.totalSamples())
        throw RecordingError(source.dataName, "truncated: holds " + std::to_string(*capacity) +
                                                  " whole samples, the configuration declares " +
                                                  std::to_string(config.totalSamples()));
    chunkRecords = std::max<size_t>(1, kValuesPerChunk / config.analogs.size());
    meta.fileName = path;
    meta.format = "COMTRADE " + std::to_string(config.revision) + " " + dataTypeName(config.dataType);
    meta.startTime = config.startTime;
    if (const auto start = comtradeStartTime(config.startTime, config.revision, config.timeCode)) {
        meta.startUtcNanoseconds = start->utcNanoseconds;
        meta.startTimeZoneStated = start->zoneStated;
    }
    meta.nominalFrequency = config.lineFrequency;
    describeChannels(options.secondary);
    describeSections(options);
}

void ComtradeReader::checkContents() const {
    if (config.analogs.empty()) throw RecordingError(source.configName, "no analog channels");
    if (config.totalSamples() == 0) throw RecordingError(source.configName, "the recording holds no samples");
}

void ComtradeReader::describeChannels(bool secondary) {
    for (const ComtradeAnalogChannel& analog : config.analogs) {
        const UnitConversion unit = convertUnit(analog.unit);
        double side = 1.0;
        if (!secondary && analog.secondarySide) side = analog.primary / analog.secondary;
        if (secondary && !analog.secondarySide) side = analog.secondary / analog.primary;
        ChannelInfo channel;
        channel.name = analog.name;
        channel.phase = analog.phase;
        channel.unit = unit.unit;
        channel.kind = unit.kind;
        channel.scale = analog.a * unit.factor * side;
        channel.offset = analog.b * unit.factor * side;
        meta.channels.push_back(channel);
    }
}

void ComtradeReader::describeSections(const RecordingOptions& options) {
    uint64_t first = 0;
    for (const ComtradeRate& rate : config.rates) {
        double sampleRate = rate.sampleRate;
        // A rate of 0 leaves the timing to the time stamps; the parser allows it only for a single rate.
        if (sampleRate == 0.0) sampleRate = options.sampleRate ? *options.sampleRate : rateFromTimestamps();
        if (!(sampleRate > 0.0)) throw RecordingError(meta.fileName, "the sample rate must be positive");
        meta.sections.push_back({sampleRate, first, rate.lastSample - first});
        first = rate.lastSample;
    }
    meta.totalSamples = config.totalSamples();
    endRecord = meta.totalSamples;
    if (options.section) selectSection(*options.section);
}

void ComtradeReader::selectSection(size_t section) {
    if (section < 1 || section > meta.sections.size())
        throw RecordingError(meta.fileName, "no sample-rate section " + std::to_string(section) + " (it has " +
                                                std::to_string(meta.sections.size()) + ")");
    SampleSection chosen = meta.sections[section - 1];
    meta.format += ", section " + std::to_string(section) + " of " + std::to_string(meta.sections.size());
    skip(chosen.firstSample);
    endRecord = chosen.firstSample + chosen.sampleCount;
    chosen.firstSample = 0;
    meta.sections = {chosen};
    meta.totalSamples = chosen.sampleCount;
}

// The rate from the first and last time stamps: the mean step is exact
// even when single stamps are rounded to whole microseconds.
double ComtradeReader::rateFromTimestamps() const {
    std::unique_ptr<ComtradeDataDecoder> scan = makeDataDecoder(config, source);
    const uint64_t total = config.totalSamples();
    double firstTime = NAN, lastTime = NAN;
    for (uint64_t done = 0; done < total;) {
        const size_t count = decode(scan, static_cast<size_t>(std::min<uint64_t>(chunkRecords, total - done)), done);
        if (done == 0) firstTime = times[0];
        lastTime = times[count - 1];
        done += count;
    }
    const double span = (lastTime - firstTime) * config.timestampUnit;
    if (total < 2 || !(span > 0.0))
        throw RecordingError(source.configName,
                             "no sample rate in the configuration and no usable time stamps in the data; "
                             "give the sample rate");
    return static_cast<double>(total - 1) / span;
}

// Decodes `count` records into the buffers; fewer means the data ends early.
size_t ComtradeReader::decode(std::unique_ptr<ComtradeDataDecoder>& from, size_t count, uint64_t alreadyDecoded) const {
    values.resize(count * config.analogs.size());
    times.resize(count);
    const size_t got = from->decode(values.data(), times.data(), count);
    if (got < count)
        throw RecordingError(source.dataName, "truncated: ends after " + std::to_string(alreadyDecoded + got) +
                                                  " of the " + std::to_string(config.totalSamples()) +
                                                  " samples the configuration declares");
    return got;
}

void ComtradeReader::skip(uint64_t count) {
    for (uint64_t left = count; left > 0;) {
        const size_t piece = static_cast<size_t>(std::min<uint64_t>(chunkRecords, left));
        decode(decoder, piece, decoded);
        decoded += piece;
        left -= piece;
    }
}

size_t ComtradeReader::readChunk(float* out, size_t maxSamples) {
    const size_t channels = meta.channels.size();
    const size_t wanted = static_cast<size_t>(std::min<uint64_t>(maxSamples, endRecord - decoded));
    for (size_t done = 0; done < wanted;) {
        const size_t piece = decode(decoder, std::min(chunkRecords, wanted - done), decoded);
        for (size_t k = 0; k < piece; ++k)
            for (size_t c = 0; c < channels; ++c) {
                const ChannelInfo& channel = meta.channels[c];
                out[(done + k) * channels + c] =
                    static_cast<float>(channel.scale * values[k * channels + c] + channel.offset);
            }
        decoded += piece;
        done += piece;
    }
    return wanted;
}

}  // namespace tarnel::recordings
