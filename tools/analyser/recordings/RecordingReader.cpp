#include "recordings/RecordingReader.h"

#include <algorithm>
#include <cstdio>

#include "recordings/RecordingError.h"

namespace tarnel::recordings {

double RecordingMetadata::uniformSampleRate() const {
    if (sections.size() == 1) return sections.front().sampleRate;
    if (sections.empty()) throw RecordingError(fileName, "no sample rate");
    double lowest = sections.front().sampleRate, highest = lowest;
    for (const SampleSection& s : sections) {
        lowest = std::min(lowest, s.sampleRate);
        highest = std::max(highest, s.sampleRate);
    }
    char range[96];
    std::snprintf(range, sizeof range, "%zu sample-rate sections (%.6g to %.6g Hz)", sections.size(), lowest, highest);
    throw RecordingError(fileName, std::string(range) + "; analyse one section at a time");
}

}  // namespace tarnel::recordings
