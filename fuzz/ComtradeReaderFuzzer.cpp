// Feeds the COMTRADE reader. An input that starts with "---" is a combined
// .cff; any other is a .cfg (the text before the first NUL byte) and its
// .dat (the bytes after it, none without a NUL). The input's length picks the
// reading options, so that secondary values, section selection and a given
// sample rate are reached too.
#include <cstdint>
#include <cstring>
#include <string>

#include "RecordingFuzzSupport.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    tarnel::recordings::RecordingOptions options;
    options.secondary = (size & 1) != 0;
    if (const size_t section = (size >> 1) % 4) options.section = section;
    if ((size >> 3) % 2) options.sampleRate = 4800.0;

    if (size >= 3 && std::memcmp(data, "---", 3) == 0) {
        tarnel::fuzz::readRecording(tarnel::fuzz::writeScratchFile("rec.cff", data, size), options);
        return 0;
    }
    const auto* nul = static_cast<const uint8_t*>(std::memchr(data, 0, size));
    const size_t configSize = nul == nullptr ? size : static_cast<size_t>(nul - data);
    const size_t dataOffset = nul == nullptr ? size : configSize + 1;
    const std::string config = tarnel::fuzz::writeScratchFile("rec.cfg", data, configSize);
    const std::string samples = tarnel::fuzz::writeScratchFile("rec.dat", data + dataOffset, size - dataOffset);
    // The recording opens from either file of the pair.
    tarnel::fuzz::readRecording((size >> 4) % 2 ? samples : config, options);
    return 0;
}
