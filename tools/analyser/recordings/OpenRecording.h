// Opens a recording with the reader its extension calls for.
#pragma once

#include <memory>
#include <string>

#include "recordings/RecordingReader.h"

namespace tarnel::recordings {

// .cfg, .cff, .dat: COMTRADE; .csv: CSV; .wav: WAV (in any letter case).
// Throws RecordingError for other extensions and for unreadable recordings.
std::unique_ptr<RecordingReader> openRecording(const std::string& path, const RecordingOptions& options = {});

}  // namespace tarnel::recordings
