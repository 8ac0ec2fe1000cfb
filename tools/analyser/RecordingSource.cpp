#include "RecordingSource.h"

#include <stdexcept>

namespace tarnel::analyser {

std::unique_ptr<SignalSource> openRecordingSource(const AnalyserOptions& options) {
    throw std::runtime_error(options.input + ": reading recordings is not available yet");
}

}  // namespace tarnel::analyser
