// Reads the bytes of one fuzz input as a stream of small decisions. Past the
// end every read gives zeros, so any input, even an empty one, decodes.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

namespace tarnel::fuzz {

class FuzzInput {
  public:
    FuzzInput(const uint8_t* data, size_t size) : bytes(data), left(size) {}

    bool empty() const { return left == 0; }

    uint8_t byte() {
        if (left == 0) return 0;
        --left;
        return *bytes++;
    }

    bool flag() { return (byte() & 1) != 0; }

    uint64_t u64() {
        uint64_t value = 0;
        for (int i = 0; i < 8; ++i) value = value << 8 | byte();
        return value;
    }

    // Any double, NaN and infinities included.
    double anyDouble() {
        const uint64_t bits = u64();
        double value;
        std::memcpy(&value, &bits, sizeof value);
        return value;
    }

    // One entry of a fixed table of interesting values.
    template <typename T, size_t N>
    T pick(const T (&table)[N]) {
        return table[byte() % N];
    }

  private:
    const uint8_t* bytes;
    size_t left;
};

}  // namespace tarnel::fuzz
