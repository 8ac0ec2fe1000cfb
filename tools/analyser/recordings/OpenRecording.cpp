#include "recordings/OpenRecording.h"

#include "recordings/ComtradeReader.h"
#include "recordings/CsvReader.h"
#include "recordings/FileInput.h"
#include "recordings/RecordingError.h"
#include "recordings/WavReader.h"

namespace tarnel::recordings {

std::unique_ptr<RecordingReader> openRecording(const std::string& path, const RecordingOptions& options) {
    const std::string extension = lowerExtension(path);
    if (extension == ".cfg" || extension == ".cff" || extension == ".dat")
        return std::make_unique<ComtradeReader>(path, options);
    if (extension == ".csv") return std::make_unique<CsvReader>(path, options);
    if (extension == ".wav") return std::make_unique<WavReader>(path, options);
    throw RecordingError(path, "unknown recording type '" + extension + "' (expected .cfg, .cff, .dat, .csv or .wav)");
}

}  // namespace tarnel::recordings
