// Opening recording files with messages that say why one cannot be read.
#pragma once

#include <cstdint>
#include <fstream>
#include <string>

namespace tarnel::recordings {

// Opens `path` for binary reading; throws RecordingError when it is missing,
// not a regular file or unreadable.
std::ifstream openInput(const std::string& path);
uint64_t fileSize(const std::string& path);
// The extension of `path` in lower case, with its dot: ".cfg".
std::string lowerExtension(const std::string& path);

}  // namespace tarnel::recordings
