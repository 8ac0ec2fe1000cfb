// What the recording-reader harnesses share: fuzz inputs become files in a
// scratch folder of the process, and a recording is read back the way the
// analyser reads it, with the readers' promise checked on the way.
#pragma once

#include <string>

#include "recordings/RecordingReader.h"

namespace tarnel::fuzz {

// Writes `bytes` to `name` in the scratch folder and returns its path.
std::string writeScratchFile(const std::string& name, const void* bytes, size_t size);

// Opens `path`, reads every sample in bounded chunks and maps the channels.
// A bad recording may only end in one RecordingError whose message is a
// single line naming a file of the recording; anything else aborts. With
// TARNEL_FUZZ_TRACE set in the environment the outcome is printed.
void readRecording(const std::string& path, const recordings::RecordingOptions& options);

}  // namespace tarnel::fuzz
