#include "recordings/ComtradeBinaryDecoder.h"

#include <algorithm>
#include <cmath>
#include <cstring>

namespace tarnel::recordings {

namespace {

// A time field of all ones marks a missing time stamp.
constexpr uint32_t kMissingTime = 0xFFFFFFFFu;

uint32_t readUint32(const unsigned char* b) {
    return static_cast<uint32_t>(b[0]) | static_cast<uint32_t>(b[1]) << 8 | static_cast<uint32_t>(b[2]) << 16 |
           static_cast<uint32_t>(b[3]) << 24;
}

size_t valueSizeOf(ComtradeDataType type) { return type == ComtradeDataType::Binary ? 2 : 4; }

}  // namespace

ComtradeBinaryDecoder::ComtradeBinaryDecoder(std::ifstream input, const ComtradeConfig& config,
                                             const ComtradeSource& source)
    : in(std::move(input)),
      type(config.dataType),
      analogCount(config.analogs.size()),
      valueSize(valueSizeOf(config.dataType)),
      recordSize(8 + analogCount * valueSize + 2 * ((config.digitalCount + 15) / 16)),
      capacity(source.dataSize / recordSize),
      recordsLeft(capacity) {}

size_t ComtradeBinaryDecoder::decode(double* values, double* times, size_t maxRecords) {
    const size_t count = static_cast<size_t>(std::min<uint64_t>(maxRecords, recordsLeft));
    buffer.resize(count * recordSize);
    if (!in.read(reinterpret_cast<char*>(buffer.data()), static_cast<std::streamsize>(buffer.size())))
        return 0;  // the file shrank under us: the caller reports the missing samples
    recordsLeft -= count;
    for (size_t k = 0; k < count; ++k) {
        const unsigned char* record = buffer.data() + k * recordSize;
        const uint32_t stamp = readUint32(record + 4);
        times[k] = stamp == kMissingTime ? NAN : static_cast<double>(stamp);
        for (size_t c = 0; c < analogCount; ++c) values[k * analogCount + c] = analogValue(record + 8 + c * valueSize);
    }
    return count;
}

double ComtradeBinaryDecoder::analogValue(const unsigned char* bytes) const {
    switch (type) {
        case ComtradeDataType::Binary:
            return static_cast<int16_t>(static_cast<uint16_t>(bytes[0] | bytes[1] << 8));
        case ComtradeDataType::Binary32:
            return static_cast<int32_t>(readUint32(bytes));
        default: {
            const uint32_t bits = readUint32(bytes);
            float value;
            std::memcpy(&value, &bits, sizeof value);
            return value;
        }
    }
}

}  // namespace tarnel::recordings
