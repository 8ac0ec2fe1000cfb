// Reads phase identifiers from channel phase fields and names: "A", "L2",
// "T", "VBC", "UL31", "HV Bus VR" (phase 1 in the R/S/T naming).
#pragma once

#include <optional>
#include <string_view>

#include "recordings/RecordingReader.h"

namespace tarnel::recordings {

// The naming a phase identifier follows; channels of one system share one,
// so the mapping does not mix "VS" (a sync voltage next to VA, VB, VC) into
// the A/B/C set.
enum class PhaseScheme { Abc, Rst, L123, Digits };

struct PhaseId {
    PhaseScheme scheme = PhaseScheme::Abc;
    int phase = 0;            // 1..3; the first phase of a line-to-line pair
    bool lineToLine = false;  // phase to the next one in rotation: 1-2, 2-3, 3-1
};

// A phase field alone: "A", "l2", "BN" (to neutral), "CA", "L1L2", "31".
std::optional<PhaseId> phaseFromField(std::string_view field);
// The channel's phase field when it reads as one, else the first word of its
// name that does, with or without a quantity letter in front (V, U, I).
std::optional<PhaseId> phaseOfChannel(const ChannelInfo& channel);
// Voltage or current from a name alone ("Va", "I2", "U"), for files without units.
ChannelKind kindFromName(std::string_view name);

}  // namespace tarnel::recordings
