// Code written against unqualified names opts in to the global aliases.
#define TARNEL_GLOBAL_NAMES
#include "tarnel/PowerModule.h"

int phasesThroughGlobalNames() {
    PowerModule module(BackendKind::Cpu);
    module.setGridConfigType(ThreePhaseStarThreeCurrents);
    const PowerGridConfig grid = PowerGridConfig::forType(SinglePhase);
    return module.getPhasesCount() == 3 ? grid.phasesCount : 0;
}
