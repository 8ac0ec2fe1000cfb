// Opens a recording file as a signal source for the analyser.
#pragma once

#include <memory>

#include "AnalyserOptions.h"
#include "SignalSource.h"

namespace tarnel::analyser {

// Throws std::runtime_error with one line naming the file and the problem.
std::unique_ptr<SignalSource> openRecordingSource(const AnalyserOptions& options);

}  // namespace tarnel::analyser
