// Reads a WAV recording: PCM with 16, 24 or 32 bits, or 32/64-bit float, in
// plain or extensible format. A WAV file has no units: every channel comes
// out as a fraction of full scale times RecordingOptions::wavFullScale, of
// kind Other, so the channels must be named in the mapping options.
#pragma once

#include <cstdint>
#include <fstream>
#include <string>
#include <vector>

#include "recordings/RecordingReader.h"

namespace tarnel::recordings {

class WavReader : public RecordingReader {
  public:
    WavReader(const std::string& path, const RecordingOptions& options);
    const RecordingMetadata& metadata() const override { return meta; }
    size_t readChunk(float* out, size_t maxSamples) override;

  private:
    void findChunks();
    void parseFormat(const std::vector<unsigned char>& chunk);
    void startData(uint64_t declaredSize, uint64_t offset);
    void describe(double fullScale);
    double sampleValue(const unsigned char* bytes) const;

    std::ifstream in;
    RecordingMetadata meta;
    bool isFloat = false;
    unsigned bits = 0;
    size_t channelCount = 0;
    size_t frameSize = 0;
    double sampleRate = 0.0;
    uint64_t framesLeft = 0;
    std::vector<unsigned char> buffer;
};

}  // namespace tarnel::recordings
