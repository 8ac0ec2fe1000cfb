// Builds a module from the installed headers and library; exits 0 when the
// module reports the default single-phase grid.
#include "tarnel/PowerModule.h"

int main() {
    PowerModule module(BackendKind::Cpu);
    return module.getPhasesCount() == 1 ? 0 : 1;
}
