// Feeds the CSV reader, with and without a sample rate given by the caller
// (chosen by the input's length).
#include <cstdint>

#include "RecordingFuzzSupport.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    tarnel::recordings::RecordingOptions options;
    if (size % 2) options.sampleRate = 1000.0;
    tarnel::fuzz::readRecording(tarnel::fuzz::writeScratchFile("rec.csv", data, size), options);
    return 0;
}
