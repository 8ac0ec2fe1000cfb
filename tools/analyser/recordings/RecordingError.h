// The one exception the readers throw for anything wrong with a recording.
#pragma once

#include <cstddef>
#include <stdexcept>
#include <string>

namespace tarnel::recordings {

// what() is a single line, "FILE: PROBLEM" or "FILE:LINE: PROBLEM", so the
// analyser can print it as it is and the user knows where to look.
class RecordingError : public std::runtime_error {
  public:
    RecordingError(const std::string& file, const std::string& problem) : std::runtime_error(file + ": " + problem) {}
    RecordingError(const std::string& file, size_t line, const std::string& problem)
        : std::runtime_error(file + ":" + std::to_string(line) + ": " + problem) {}
};

}  // namespace tarnel::recordings
