// Sequence components of a block: the fundamental's zero, positive and
// negative sequence phasors, and the squared magnitude of each sequence
// component summed over every spectrum bin.
#pragma once

#include "kernels/KernelMath.h"

namespace tarnel {

// Zero, positive and negative sequence of three phasors (a = e^(j 120 deg)).
TARNEL_HD void sequenceComponents(double2 a, double2 b, double2 c, double2* out) {
    const double d = a.x - 0.5 * (b.x + c.x), e = (b.y - c.y) * 0.8660254037844386;
    const double g = a.y - 0.5 * (b.y + c.y), h = (b.x - c.x) * 0.8660254037844386;
    out[0].x = (a.x + b.x + c.x) / 3.0;
    out[0].y = (a.y + b.y + c.y) / 3.0;
    out[1].x = (d - e) / 3.0;
    out[1].y = (g + h) / 3.0;
    out[2].x = (d + e) / 3.0;
    out[2].y = (g - h) / 3.0;
}

TARNEL_HD double2 widen(float2 v) {
    double2 w;
    w.x = v.x;
    w.y = v.y;
    return w;
}

// Sums over bins 0..n-2 of |sequence component k|^2, per group (row 0
// voltages, row 1 currents).
struct kernelSymmetricalComponents {
    static constexpr bool isReduction = true;
    static constexpr int fieldCount = 3;
    // Three spectra and some twenty operations per bin: about three times the
    // work of one sample of a waveform kernel, which a CPU launch weighs.
    static constexpr int workPerIndex = 3;
    int n;
    const float2* spectrum;
    double* sums;

    TARNEL_HD int extent() const { return n - 1; }
    TARNEL_HD void accumulate(KernelSums<3>& s, int bin, int row) const {
        const float2* group = spectrum + static_cast<long>(3 * row) * n + bin;
        const double2 a = widen(group[0]), b = widen(group[n]), c = widen(group[2 * n]);
        // Three times each component; the squares are scaled by 1/9 instead of
        // dividing every part by 3 (the same values within rounding, far fewer divisions).
        const double d = a.x - 0.5 * (b.x + c.x), e = (b.y - c.y) * 0.8660254037844386;
        const double g = a.y - 0.5 * (b.y + c.y), h = (b.x - c.x) * 0.8660254037844386;
        const double zeroX = a.x + b.x + c.x, zeroY = a.y + b.y + c.y;
        constexpr double kNinth = 1.0 / 9.0;
        s.value[0] += mulAdd(zeroX, zeroX, zeroY * zeroY) * kNinth;
        s.value[1] += mulAdd(d - e, d - e, (g + h) * (g + h)) * kNinth;
        s.value[2] += mulAdd(d + e, d + e, (g - h) * (g - h)) * kNinth;
    }
    TARNEL_HD double* target(int row, int field) const { return sums + 3 * row + field; }
};

// Sequence phasors of the fundamental from the harmonic magnitudes and angles.
struct kernelSymmetricalComponentsH1 {
    static constexpr bool isReduction = false;
    int harmonicsCount;
    const float* magnitudes;
    const float* angles;
    double2* phasors;

    TARNEL_HD int extent() const { return 1; }
    TARNEL_HD void operator()(int, int row) const {
        double2 p[3];
        for (int j = 0; j < 3; ++j) {
            const int index = (3 * row + j) * harmonicsCount + 1;
            p[j] = phasorFromDegrees(magnitudes[index], angles[index]);
        }
        sequenceComponents(p[0], p[1], p[2], phasors + 3 * row);
    }
};

}  // namespace tarnel
