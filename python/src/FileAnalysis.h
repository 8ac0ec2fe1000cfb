// The analyser's whole run (readers, block and period scheduling, event
// rules, report) on a file or on arrays, with every result kept for Python in
// the columns of the analyser's output files.
#pragma once

#include <nanobind/nanobind.h>

#include <string>

#include "StreamingModule.h"

namespace tarnel::bindings {

// `options` (each optional): backend, grid, voltages, currents, delta,
// nominal_voltage, nominal_frequency, sample_rate, secondary, section,
// dip_threshold, swell_threshold, interruption_threshold, phase_order
// (0 detected, 1 L1-L2-L3, 2 L1-L3-L2); for arrays also start_utc_ns.
nanobind::dict analyseFile(const std::string& path, const nanobind::dict& options);

// Channels in phase order; `options` as above, sample_rate and grid required.
nanobind::dict analyseArrays(SampleArray<float> voltages, SampleArray<float> currents, const nanobind::dict& options);

}  // namespace tarnel::bindings
