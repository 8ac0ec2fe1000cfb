// Chooses which channels of a recording are the voltages and currents of the
// analysed system, in phase order, and the grid type that fits them.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

#include "recordings/RecordingReader.h"

namespace tarnel::recordings {

// What the user may decide instead of the recording's names and units.
struct MappingOptions {
    std::optional<int> gridType;               // 0..7
    std::vector<std::string> voltageChannels;  // names or 1-based numbers, in phase order
    std::vector<std::string> currentChannels;
    std::optional<bool> delta;  // the voltages are line-to-line
    std::optional<double> nominalVoltage;
    std::optional<double> nominalFrequency;
};

struct ChannelMap {
    // 0 one phase; 1 three phases, star voltages, three currents; 2 star, two
    // currents; 3 delta, three currents; 4 delta, two currents; 5 two phases,
    // star, two currents; 6 three phases, two delta voltages, two currents;
    // 7 one phase (alternative).
    int gridType = 0;
    bool delta = false;
    std::vector<size_t> voltages;            // indices into the metadata's channels, in phase order
    std::vector<size_t> currents;            // empty: no currents to analyse
    std::optional<double> nominalVoltage;    // only when given: a recording does not state it
    std::optional<double> nominalFrequency;  // given, or the recording's
};

// Throws RecordingError (naming the recording) when the channels cannot form
// the system asked for, or no voltage channel is recognised.
ChannelMap mapChannels(const RecordingMetadata& metadata, const MappingOptions& options);

}  // namespace tarnel::recordings
