// Fortescue decomposition of a three-phase set into zero, positive and negative
// sequence components, and the quantities derived from them.
#pragma once

#include <complex>
#include <vector>

#include "tarnel/Export.h"
#include "tarnel/PowerResults.h"

namespace tarnel {

// Stateless helpers shared by block results and period values. Components are
// always ordered zero, positive, negative (index 0, 1, 2). All functions are
// reentrant; the only shared data is the read-only table of powers of the
// sequence operator a = e^(j120deg), built when the library loads.
class TARNEL_API PowerSymmetricalComponents {
  public:
    PowerSymmetricalComponents() = delete;

    // Zero, positive and negative sequence components of v[0], v[1], v[2]
    // (phase order L1, L2, L3). Elements beyond the third are ignored.
    // Throws std::invalid_argument for fewer than three elements.
    static std::vector<std::complex<double>> transform(const std::vector<std::complex<double>>& v);

    // Rotates every element by -arg(reference), so that angles are measured
    // from the reference phasor. Magnitudes are unchanged.
    static void subtractReference(std::vector<std::complex<double>>& v, std::complex<double> reference);

    // Fills the magnitudes, the line-to-line phasor, the sequence powers
    // (3 V I*), the active/reactive currents and the power factor from
    // `voltage` and `current`. With currents disabled the current-derived fields
    // are zero and `current` is left as it is.
    static void calculate(PowerResultsSymmetricalComponent& r, bool currentEnabled);

    // Fills the ratio fields (in percent of the positive sequence) of the three
    // records r[0] (zero), r[1] (positive), r[2] (negative). The current ratios
    // are written only when currents are enabled.
    static void calculateRatios(PowerResultsSymmetricalComponent* r, bool currentEnabled);
};

}  // namespace tarnel

// Global aliases for code written against unqualified names (see README).
#if defined(TARNEL_GLOBAL_NAMES)
using tarnel::PowerSymmetricalComponents;
#endif
