// The reference configuration of the benchmarks: three phase voltages, three
// currents and the line-to-line voltages at 51.2 kHz and 50 Hz, harmonics to
// 50 with interharmonics and THD, and a ring filled with a distorted
// three-phase signal that continues across the ring's end.
#pragma once

#include <cmath>

#include "tarnel/PowerModule.h"

namespace tarnel::bench {

constexpr double kReferenceSampleRate = 51200.0;
constexpr double kReferenceFrequency = 50.0;

// The settings of the reference block; call between beginUpdate and endUpdate.
inline void configureReferenceModule(PowerModule& module, unsigned long long ring) {
    module.setGridConfigType(ThreePhaseStarThreeCurrents);
    module.setLineToLineResultsEnabled(true);
    module.setInterHarmonicsEnabled(true);
    module.setThdEnabled(true);
    module.setSampleRate(kReferenceSampleRate, 1);
    module.setStaticFrequency(kReferenceFrequency, 0.1);
    module.setHighestRequestedHarmonic(50);
    module.setBufferLength(ring);
}

// 230 V phase voltages with 5 % third harmonic and 10 A currents lagging 30°.
// `ring` must hold a whole number of periods, so the signal continues across its end.
inline void fillReferenceRing(PowerModule& module, unsigned long long ring) {
    for (unsigned char p = 0; p < 3; ++p) {
        float* u = nullptr;
        float* i = nullptr;
        module.getWaveformBufferUInput(p, &u);
        module.getWaveformBufferI(p, &i);
        for (unsigned long long n = 0; n < ring; ++n) {
            const double a =
                2.0 * M_PI * kReferenceFrequency * static_cast<double>(n) / kReferenceSampleRate - p * 2.0 * M_PI / 3.0;
            u[n] = static_cast<float>(230.0 * std::sqrt(2.0) * (std::sin(a) + 0.05 * std::sin(3.0 * a)));
            i[n] = static_cast<float>(10.0 * std::sqrt(2.0) * std::sin(a - M_PI / 6.0));
        }
    }
}

}  // namespace tarnel::bench
