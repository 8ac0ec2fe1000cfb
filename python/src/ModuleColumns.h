// The streaming module's block results and period values as the columns of
// the analyser's output tables, so that both APIs name and null alike.
#pragma once

#include <nanobind/nanobind.h>
#include <nanobind/ndarray.h>

#include <cstdint>

namespace tarnel::bindings {

using RawRecords = nanobind::ndarray<const uint8_t, nanobind::c_contig, nanobind::device::cpu>;

// `records`: (blocks, record size) as BlockResults holds them.
nanobind::dict blockColumns(RawRecords records, double sampleRate, int grid, unsigned currents);
// `records`: (values, phases + 1, record size) as PeriodValues holds them.
nanobind::dict periodColumns(RawRecords records, double sampleRate, int grid, unsigned currents);

}  // namespace tarnel::bindings
