// Feeds the WAV reader.
#include <cstdint>

#include "RecordingFuzzSupport.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    tarnel::recordings::RecordingOptions options;
    options.wavFullScale = size % 2 ? 400.0 : 1.0;
    tarnel::fuzz::readRecording(tarnel::fuzz::writeScratchFile("rec.wav", data, size), options);
    return 0;
}
