// Finds the configuration and the data of a COMTRADE recording: a .cfg with
// its .dat beside it, or both inside one .cff.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace tarnel::recordings {

struct ComtradeSource {
    std::string configName;  // the .cfg or .cff, for messages
    std::string configText;
    size_t configLinesBefore = 0;  // lines of a .cff above its configuration
    std::string dataName;          // the .dat or the .cff
    uint64_t dataOffset = 0;       // where the samples start in dataName
    uint64_t dataSize = 0;         // bytes from dataOffset that belong to the samples
    size_t dataLinesBefore = 0;    // lines of a .cff above its samples
};

// `path` may name the .cfg, the .dat or the .cff; throws RecordingError when a
// part is missing.
ComtradeSource locateComtrade(const std::string& path);

}  // namespace tarnel::recordings
