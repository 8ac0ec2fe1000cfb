// The analyser's whole run (readers, block and period scheduling, event
// rules, report) on a file or on arrays, with every result kept for Python.
#pragma once

#include <nanobind/nanobind.h>

#include <string>

#include "StreamingModule.h"

namespace tarnel::bindings {

// `options`: backend, grid, voltages, currents, delta, nominal_voltage,
// nominal_frequency, sample_rate, secondary, section (each optional).
nanobind::dict analyseFile(const std::string& path, const nanobind::dict& options);

// Channels in phase order; `options` as above, sample_rate required.
nanobind::dict analyseArrays(SampleArray<float> voltages, SampleArray<float> currents, const nanobind::dict& options);

// The recording's start time as written in it; empty when it has none.
std::string recordingStartTime(const std::string& path);

}  // namespace tarnel::bindings
