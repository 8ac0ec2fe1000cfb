// Recognises the unit of a channel: whether it is a voltage or a current and
// the factor to volts or amperes.
#pragma once

#include <string>
#include <string_view>

#include "recordings/RecordingReader.h"

namespace tarnel::recordings {

struct UnitConversion {
    ChannelKind kind = ChannelKind::Other;
    std::string unit;     // "V", "A", or the recorded unit unchanged for other quantities
    double factor = 1.0;  // recorded value * factor = value in `unit`
};

// "kV" gives {Voltage, "V", 1000}; "Hz", "none" or "" give {Other, same unit, 1}.
UnitConversion convertUnit(std::string_view recordedUnit);

}  // namespace tarnel::recordings
