#include "recordings/WavReader.h"

#include <algorithm>
#include <cmath>
#include <cstring>

#include "recordings/FileInput.h"
#include "recordings/RecordingError.h"

namespace tarnel::recordings {

namespace {

constexpr uint16_t kFormatPcm = 1;
constexpr uint16_t kFormatFloat = 3;
constexpr uint16_t kFormatExtensible = 0xFFFE;
// Writers that stream a WAV leave the data size open as all ones (or zero).
constexpr uint32_t kOpenSize = 0xFFFFFFFFu;
constexpr size_t kBytesPerRead = 1 << 20;  // keeps the read buffer small whatever the channel count

uint32_t readLe(const unsigned char* b, size_t bytes) {
    uint32_t value = 0;
    for (size_t i = bytes; i-- > 0;) value = value << 8 | b[i];
    return value;
}

}  // namespace

WavReader::WavReader(const std::string& path, const RecordingOptions& options) : in(openInput(path)) {
    meta.fileName = path;
    findChunks();
    describe(options.wavFullScale);
}

void WavReader::findChunks() {
    unsigned char header[12];
    if (!in.read(reinterpret_cast<char*>(header), sizeof header) || std::memcmp(header, "RIFF", 4) != 0 ||
        std::memcmp(header + 8, "WAVE", 4) != 0)
        throw RecordingError(meta.fileName, "not a WAV file (no RIFF/WAVE header)");
    unsigned char chunk[8];
    while (in.read(reinterpret_cast<char*>(chunk), sizeof chunk)) {
        const uint32_t size = readLe(chunk + 4, 4);
        if (std::memcmp(chunk, "fmt ", 4) == 0) {
            std::vector<unsigned char> format(std::min<uint32_t>(size, 64));
            in.read(reinterpret_cast<char*>(format.data()), static_cast<std::streamsize>(format.size()));
            parseFormat(format);
            in.seekg(static_cast<std::streamoff>(size - format.size() + (size & 1)), std::ios::cur);
        } else if (std::memcmp(chunk, "data", 4) == 0) {
            if (channelCount == 0) throw RecordingError(meta.fileName, "data chunk before the format chunk");
            startData(size, static_cast<uint64_t>(in.tellg()));
            return;
        } else {
            in.seekg(static_cast<std::streamoff>(size) + (size & 1), std::ios::cur);  // chunks are padded to even sizes
        }
    }
    throw RecordingError(meta.fileName, channelCount == 0 ? "no format chunk" : "no data chunk");
}

void WavReader::parseFormat(const std::vector<unsigned char>& chunk) {
    if (chunk.size() < 16) throw RecordingError(meta.fileName, "format chunk too short");
    uint16_t tag = static_cast<uint16_t>(readLe(chunk.data(), 2));
    // Extensible: the real format is the first two bytes of the sub-format GUID.
    if (tag == kFormatExtensible && chunk.size() >= 26) tag = static_cast<uint16_t>(readLe(chunk.data() + 24, 2));
    channelCount = readLe(chunk.data() + 2, 2);
    sampleRate = readLe(chunk.data() + 4, 4);
    frameSize = readLe(chunk.data() + 12, 2);
    bits = readLe(chunk.data() + 14, 2);
    isFloat = tag == kFormatFloat;
    const bool supported =
        (tag == kFormatPcm && (bits == 16 || bits == 24 || bits == 32)) || (isFloat && (bits == 32 || bits == 64));
    if (!supported)
        throw RecordingError(meta.fileName, "unsupported sample format (format tag " + std::to_string(tag) + ", " +
                                                std::to_string(bits) + " bits); expected 16/24/32-bit PCM or float");
    if (channelCount == 0 || sampleRate <= 0.0 || frameSize != channelCount * bits / 8)
        throw RecordingError(meta.fileName, "inconsistent format chunk (" + std::to_string(channelCount) +
                                                " channels, block size " + std::to_string(frameSize) + ")");
    meta.format = "WAV " + std::to_string(bits) + "-bit " + (isFloat ? "float" : "PCM");
}

void WavReader::startData(uint64_t declaredSize, uint64_t offset) {
    const uint64_t available = fileSize(meta.fileName) - std::min(offset, fileSize(meta.fileName));
    uint64_t size = declaredSize;
    if (declaredSize == kOpenSize || declaredSize == 0) size = available;
    if (size > available)
        throw RecordingError(meta.fileName, "truncated: the data chunk declares " + std::to_string(declaredSize) +
                                                " bytes, the file holds " + std::to_string(available));
    framesLeft = size / frameSize;
    if (framesLeft == 0) throw RecordingError(meta.fileName, "the recording holds no samples");
}

void WavReader::describe(double fullScale) {
    // PCM full scale is 2^(bits-1): -32768 maps to exactly -1.
    const double scale = isFloat ? fullScale : fullScale / std::ldexp(1.0, static_cast<int>(bits) - 1);
    for (size_t c = 0; c < channelCount; ++c) {
        ChannelInfo channel;
        channel.name = "channel " + std::to_string(c + 1);
        channel.scale = scale;
        meta.channels.push_back(channel);
    }
    meta.totalSamples = framesLeft;
    meta.sections = {{sampleRate, 0, framesLeft}};
}

double WavReader::sampleValue(const unsigned char* bytes) const {
    if (isFloat && bits == 64) {
        uint64_t raw = static_cast<uint64_t>(readLe(bytes + 4, 4)) << 32 | readLe(bytes, 4);
        double value;
        std::memcpy(&value, &raw, sizeof value);
        return value;
    }
    const uint32_t raw = readLe(bytes, bits / 8);
    if (isFloat) {
        float value;
        std::memcpy(&value, &raw, sizeof value);
        return value;
    }
    // Sign-extend 16 and 24-bit samples from their top bit.
    const uint32_t signBit = 1u << (bits - 1);
    return static_cast<double>(static_cast<int64_t>(raw ^ signBit) - static_cast<int64_t>(signBit));
}

size_t WavReader::readChunk(float* out, size_t maxSamples) {
    const size_t wanted = static_cast<size_t>(std::min<uint64_t>(maxSamples, framesLeft));
    const size_t width = bits / 8;
    const size_t framesPerRead = std::max<size_t>(1, kBytesPerRead / frameSize);
    for (size_t done = 0; done < wanted;) {
        const size_t frames = std::min(framesPerRead, wanted - done);
        buffer.resize(frames * frameSize);
        if (!in.read(reinterpret_cast<char*>(buffer.data()), static_cast<std::streamsize>(buffer.size())))
            throw RecordingError(meta.fileName, "ends early: changed while read");
        for (size_t k = 0; k < frames * channelCount; ++k)
            out[done * channelCount + k] =
                static_cast<float>(meta.channels[k % channelCount].scale * sampleValue(buffer.data() + k * width));
        done += frames;
    }
    framesLeft -= wanted;
    return wanted;
}

}  // namespace tarnel::recordings
