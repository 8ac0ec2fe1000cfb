// Reads a COMTRADE recording (1991, 1999, 2013; ASCII, BINARY, BINARY32,
// FLOAT32; .cfg + .dat or one .cff). Analog values come out as a * x + b,
// converted to volts and amperes and to the primary side (or, on request, the
// secondary side) with the channel's transformer ratio. Files without ratios
// (1991) are taken as they are recorded.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "recordings/ComtradeConfig.h"
#include "recordings/ComtradeDataDecoder.h"
#include "recordings/ComtradeFiles.h"
#include "recordings/RecordingReader.h"

namespace tarnel::recordings {

class ComtradeReader : public RecordingReader {
  public:
    // `path` names the .cfg, the .dat or the .cff. Throws RecordingError.
    ComtradeReader(const std::string& path, const RecordingOptions& options);
    const RecordingMetadata& metadata() const override { return meta; }
    size_t readChunk(float* out, size_t maxSamples) override;
    const ComtradeConfig& configuration() const { return config; }

  private:
    void checkContents() const;
    void describeChannels(bool secondary);
    void describeSections(const RecordingOptions& options);
    void selectSection(size_t section);
    double rateFromTimestamps() const;
    size_t decode(std::unique_ptr<ComtradeDataDecoder>& from, size_t count, uint64_t alreadyDecoded) const;
    void skip(uint64_t count);

    ComtradeSource source;
    ComtradeConfig config;
    RecordingMetadata meta;
    std::unique_ptr<ComtradeDataDecoder> decoder;
    uint64_t decoded = 0;    // records taken from the data so far
    uint64_t endRecord = 0;  // the record after the last one delivered
    size_t chunkRecords = 0;
    mutable std::vector<double> values, times;
};

}  // namespace tarnel::recordings
