// Reductions that fill the raw sums of a block's general record: time-domain
// sums over the block's samples and weighted sums over its spectrum bins.
// The host turns them into RMS values and powers.
#pragma once

#include <stddef.h>

#include "kernels/KernelSupport.h"
#include "tarnel/PowerResults.h"

namespace tarnel {

// Address of a double field of phase block `row` of a device record.
TARNEL_HD double* phaseField(PowerResultsGeneral* result, int row, size_t offset) {
    return reinterpret_cast<double*>(reinterpret_cast<char*>(&result->phases[row]) + offset);
}

// Sums of |x| and x^2 of one kind of voltage (phase or line-to-line).
struct RmsSums {
    static constexpr bool readsRing = true;
    static constexpr bool isReduction = true;
    static constexpr int fieldCount = 2;
    int length, start, bufferLength;
    const float* samples;
    PowerResultsGeneral* result;
    size_t absOffset, squareOffset;

    TARNEL_HD int extent() const { return length; }
    template <typename Ring = WrappingRing>
    TARNEL_HD void accumulate(KernelSums<2>& s, int n, int row) const {
        const float x = samples[Ring::index(n, start, bufferLength) + row * bufferLength];
        s.value[0] += static_cast<double>(fabsf(x));
        s.value[1] += static_cast<double>(x * x);
    }
    TARNEL_HD double* target(int row, int field) const {
        return phaseField(result, row, field == 0 ? absOffset : squareOffset);
    }
};

// Phase voltages without currents.
struct kernelRmsU : RmsSums {};
// Line-to-line voltages.
struct kernelRmsUL : RmsSums {};

inline kernelRmsU makeKernelRmsU(int length, int start, int bufferLength, const float* samples,
                                 PowerResultsGeneral* result) {
    return {{length, start, bufferLength, samples, result, offsetof(PowerResultsPhase, rectifiedMeanU),
             offsetof(PowerResultsPhase, rmsU)}};
}

inline kernelRmsUL makeKernelRmsUL(int length, int start, int bufferLength, const float* samples,
                                   PowerResultsGeneral* result) {
    return {{length, start, bufferLength, samples, result, offsetof(PowerResultsPhase, rectifiedMeanUL),
             offsetof(PowerResultsPhase, rmsUL)}};
}

// Phase voltages with their currents: |u|, |i|, u^2, i^2 and u*i.
struct kernelRmsUI {
    static constexpr bool readsRing = true;
    static constexpr bool isReduction = true;
    static constexpr int fieldCount = 5;
    int length, start, bufferLength;
    const float* u;
    const float* i;
    PowerResultsGeneral* result;

    TARNEL_HD int extent() const { return length; }
    template <typename Ring = WrappingRing>
    TARNEL_HD void accumulate(KernelSums<5>& s, int n, int row) const {
        const int k = Ring::index(n, start, bufferLength) + row * bufferLength;
        const double x = u[k];
        const double y = i[k];
        s.value[0] += fabs(x);
        s.value[1] += fabs(y);
        s.value[2] = mulAdd(x, x, s.value[2]);
        s.value[3] = mulAdd(y, y, s.value[3]);
        s.value[4] = mulAdd(x, y, s.value[4]);
    }
    TARNEL_HD double* target(int row, int field) const {
        const size_t offsets[5] = {offsetof(PowerResultsPhase, rectifiedMeanU),
                                   offsetof(PowerResultsPhase, rectifiedMeanI), offsetof(PowerResultsPhase, rmsU),
                                   offsetof(PowerResultsPhase, rmsI), offsetof(PowerResultsPhase, activePower)};
        return phaseField(result, row, offsets[field]);
    }
};

// Weighted spectral sums of a block: |U|^2, |I|^2, |UL|^2, Re(U conj I) and
// Im(U conj I); the first and last bin count half. The host resolves each
// row's spectra beforehand; a row without a current or line-to-line spectrum
// reads its voltage spectrum there instead, so that every bin runs the same
// straight-line code, and target() discards those sums.
struct kernelFreqRms {
    static constexpr bool isReduction = true;
    static constexpr int fieldCount = 5;
    // Three spectra and five double sums per bin: about twice the work of one
    // sample of a waveform kernel, which a CPU launch weighs.
    static constexpr int workPerIndex = 2;
    int n;
    bool withCurrents;
    int lineToLineRows;  // rows below this have a line-to-line spectrum
    const float2* spectraU[kMaxKernelRows];
    const float2* spectraI[kMaxKernelRows];
    const float2* spectraUL[kMaxKernelRows];
    PowerResultsGeneral* result;

    TARNEL_HD int extent() const { return n; }
    TARNEL_HD void accumulate(KernelSums<5>& s, int k, int row) const {
        // Weighed arithmetically rather than by a branch, which vectorises.
        const double w = 1.0 - 0.5 * static_cast<double>((k == 0) + (k == n - 1));
        const float2 uk = spectraU[row][k], ik = spectraI[row][k], lk = spectraUL[row][k];
        const double a = uk.x, b = uk.y, c = ik.x, d = ik.y, e = lk.x, f = lk.y;
        s.value[0] += w * mulAdd(a, a, b * b);
        s.value[1] += w * mulAdd(c, c, d * d);
        s.value[2] += w * mulAdd(e, e, f * f);
        s.value[3] += w * mulAdd(a, c, b * d);
        s.value[4] += w * (b * c - a * d);
    }
    TARNEL_HD double* target(int row, int field) const {
        if (field == 2 && row >= lineToLineRows) return nullptr;
        if (field != 0 && field != 2 && !withCurrents) return nullptr;
        const size_t offsets[5] = {offsetof(PowerResultsPhase, spectralRmsU), offsetof(PowerResultsPhase, spectralRmsI),
                                   offsetof(PowerResultsPhase, spectralRmsUL),
                                   offsetof(PowerResultsPhase, spectralActivePower),
                                   offsetof(PowerResultsPhase, nonActivePower)};
        return phaseField(result, row, offsets[field]);
    }
};

// The spectral sums of `phases` rows from the voltage, current (null: none)
// and line-to-line (null: none) spectra, each channel `n` bins long.
inline kernelFreqRms makeKernelFreqRms(int n, int phases, int lineToLineRows, const float2* spectraU,
                                       const float2* spectraI, const float2* spectraUL, PowerResultsGeneral* result) {
    kernelFreqRms kernel{n, spectraI != nullptr, spectraUL != nullptr ? lineToLineRows : 0, {}, {}, {}, result};
    for (int row = 0; row < phases && row < kMaxKernelRows; ++row) {
        const float2* u = spectraU + static_cast<long>(row) * n;
        kernel.spectraU[row] = u;
        kernel.spectraI[row] = spectraI != nullptr ? spectraI + static_cast<long>(row) * n : u;
        kernel.spectraUL[row] = row < kernel.lineToLineRows ? spectraUL + static_cast<long>(row) * n : u;
    }
    return kernel;
}

}  // namespace tarnel
