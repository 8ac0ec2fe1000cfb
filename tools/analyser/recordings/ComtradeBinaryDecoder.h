// Samples of a binary data file: fixed-size little-endian records of
// sample number (uint32), time (uint32), the analog values (int16, int32 or
// float32 by data type) and the status bits packed in 16-bit words.
#pragma once

#include <cstdint>
#include <fstream>
#include <string>
#include <vector>

#include "recordings/ComtradeDataDecoder.h"

namespace tarnel::recordings {

class ComtradeBinaryDecoder : public ComtradeDataDecoder {
  public:
    ComtradeBinaryDecoder(std::ifstream input, const ComtradeConfig& config, const ComtradeSource& source);
    size_t decode(double* values, double* times, size_t maxRecords) override;
    std::optional<uint64_t> recordCapacity() const override { return capacity; }

  private:
    double analogValue(const unsigned char* bytes) const;

    std::ifstream in;
    ComtradeDataType type;
    size_t analogCount;
    size_t valueSize;
    size_t recordSize;
    uint64_t capacity;
    uint64_t recordsLeft;
    std::vector<unsigned char> buffer;
};

}  // namespace tarnel::recordings
