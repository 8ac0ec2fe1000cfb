// Puts a recording taken at several sample rates (one rate per section, as
// frequency-tracking recorders write them) onto one uniform rate.
#pragma once

#include <cstddef>
#include <vector>

#include "recordings/RecordingReader.h"

namespace tarnel::analyser {

// The uniform rate used: the highest section rate, so that no section loses
// bandwidth.
double uniformRateFor(const std::vector<tarnel::recordings::SampleSection>& sections);

// Resamples interleaved samples (`channels` per sample) whose timing follows
// `sections` (each section's samples 1 / rate apart, sections back to back)
// onto `rate`, starting at the first sample's time. Band-limited: a
// Kaiser-windowed sinc on the sample axis, which is uniform inside each
// section; at the stretch's ends the kernel is renormalised.
std::vector<float> resampleSections(const std::vector<float>& interleaved, size_t channels,
                                    const std::vector<tarnel::recordings::SampleSection>& sections, double rate);

}  // namespace tarnel::analyser
