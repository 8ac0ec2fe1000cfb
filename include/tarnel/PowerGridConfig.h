// The wiring of the analysed system: phases, supplied channels, star or delta.
#pragma once

#include <cstdint>

#include "tarnel/Export.h"

namespace tarnel {

enum PowerGridConfigType : int32_t {
    SinglePhase = 0,
    ThreePhaseStarThreeCurrents = 1,
    ThreePhaseStarTwoCurrents = 2,
    ThreePhaseDeltaThreeCurrents = 3,
    ThreePhaseDeltaTwoCurrents = 4,
    TwoPhaseStarTwoCurrents = 5,
    ThreePhaseTwoDeltaVoltagesTwoCurrents = 6,
    SinglePhaseAlternative = 7,
};

struct TARNEL_API PowerGridConfig {
    PowerGridConfigType type;
    unsigned char phasesCount;
    unsigned char voltagesCount;
    unsigned char currentsCount;
    unsigned char lineToLineCount;
    bool starVoltages;
    bool deltaVoltages;
    bool missingCurrent;

    PowerGridConfig();
    PowerGridConfig(PowerGridConfigType type, unsigned char phasesCount, unsigned char voltagesCount,
                    unsigned char currentsCount, bool deltaVoltages);

    // The row of the grid table for `type`; unknown types give the default row.
    static PowerGridConfig forType(PowerGridConfigType type);
};

}  // namespace tarnel

// Global aliases for code written against unqualified names (see README).
#if defined(TARNEL_GLOBAL_NAMES)
using tarnel::PowerGridConfig;
using tarnel::PowerGridConfigType;
using tarnel::SinglePhase;
using tarnel::SinglePhaseAlternative;
using tarnel::ThreePhaseDeltaThreeCurrents;
using tarnel::ThreePhaseDeltaTwoCurrents;
using tarnel::ThreePhaseStarThreeCurrents;
using tarnel::ThreePhaseStarTwoCurrents;
using tarnel::ThreePhaseTwoDeltaVoltagesTwoCurrents;
using tarnel::TwoPhaseStarTwoCurrents;
#endif
