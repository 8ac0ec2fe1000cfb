// Kernels that open every block calculation: they derive the waveforms the
// configuration lacks into the device sample ring and write the windowed,
// scaled FFT input, channel after channel at stride N.
#pragma once

#include "kernels/KernelMath.h"

namespace tarnel {

// The window of the block: a precomputed table when the backend keeps one,
// otherwise computed per sample.
TARNEL_HD double blockWindow(const double* table, int i, int n) {
    return table != nullptr ? table[i] : blackmanWindow(i, n);
}

// The phase after phase y of `phases`, cyclically: (y + 1) % phases, by a
// comparison rather than a division, which keeps per-sample loops vectorisable.
TARNEL_HD int nextPhase(int y, int phases) { return y + 1 - (y + 1 == phases ? phases : 0); }

// Fills a table with the window of an n-sample block.
struct kernelBlackmanWindow {
    static constexpr bool isReduction = false;
    int length;
    double* window;
    TARNEL_HD int extent() const { return length; }
    TARNEL_HD void operator()(int i, int) const { window[i] = blackmanWindow(i, length); }
};

// Star-connected input: phase voltages measured; line-to-line voltages derived.
struct kernelWaveformsUStar {
    static constexpr bool readsRing = true;
    static constexpr bool isReduction = false;
    int length, start, bufferLength, fftLength, phases;
    float fftScale;
    bool writeLineToLine, lineToLineFft;
    const float* samplesU;
    float* samplesUL;
    float* fftInputU;
    float* fftInputUL;
    const double* window;

    TARNEL_HD int extent() const { return length; }
    template <typename Ring = WrappingRing>
    TARNEL_HD void operator()(int i, int y) const {
        const int k = Ring::index(i, start, bufferLength);
        const double w = blockWindow(window, i, length);
        const float u = samplesU[k + y * bufferLength];
        fftInputU[i + y * fftLength] = windowed(u, w, fftScale);
        const int lineToLineCount = (phases - 1) * phases / 2;
        if (y >= lineToLineCount || !(writeLineToLine || lineToLineFft)) return;
        const float v = samplesU[k + nextPhase(y, phases) * bufferLength];
        const float d = u - v;
        samplesUL[k + y * bufferLength] = d;
        if (lineToLineFft) fftInputUL[i + y * fftLength] = windowed(d, w, fftScale);
    }
};

// Delta-connected input: line-to-line voltages measured (two or three); phase
// voltages derived as (2 a + b) / 3, exact for a three-wire system.
struct kernelWaveformsUDelta {
    static constexpr bool readsRing = true;
    static constexpr bool isReduction = false;
    int measuredCount, length, start, bufferLength, fftLength, phases;
    float fftScale;
    bool lineToLineFft;
    float* samplesU;
    float* samplesUL;
    float* fftInputU;
    float* fftInputUL;
    const double* window;

    TARNEL_HD int extent() const { return length; }
    template <typename Ring = WrappingRing>
    TARNEL_HD void operator()(int i, int y) const {
        const int k = Ring::index(i, start, bufferLength);
        const double w = blockWindow(window, i, length);
        float a, b;
        if (phases == measuredCount) {
            a = samplesUL[k + y * bufferLength];
            b = samplesUL[k + nextPhase(y, phases) * bufferLength];
        } else {
            float d[3];
            d[0] = samplesUL[k];
            d[1] = samplesUL[k + bufferLength];
            d[2] = -(d[0] + d[1]);
            samplesUL[k + 2 * bufferLength] = d[2];
            a = d[y];
            b = d[nextPhase(y, phases)];
        }
        const float u = fmaf(a, 2.0f, b) / 3.0f;
        samplesU[k + y * bufferLength] = u;
        fftInputU[i + y * fftLength] = windowed(u, w, fftScale);
        if (lineToLineFft) fftInputUL[i + y * fftLength] = windowed(a, w, fftScale);
    }
};

// Measured currents into the FFT input.
struct kernelWaveformsI {
    static constexpr bool readsRing = true;
    static constexpr bool isReduction = false;
    int length, start, bufferLength, fftLength;
    float fftScale;
    float* samplesI;
    float* fftInputI;
    const double* window;

    TARNEL_HD int extent() const { return length; }
    template <typename Ring = WrappingRing>
    TARNEL_HD void operator()(int i, int c) const {
        const int k = Ring::index(i, start, bufferLength);
        fftInputI[i + c * fftLength] =
            windowed(samplesI[k + c * bufferLength], blockWindow(window, i, length), fftScale);
    }
};

// The third current of a three-wire system with two measured currents.
struct kernelWaveformsI3 {
    static constexpr bool readsRing = true;
    static constexpr bool isReduction = false;
    int length, start, bufferLength, fftLength;
    float fftScale;
    float* samplesI;
    float* fftInputI;
    const double* window;

    TARNEL_HD int extent() const { return length; }
    template <typename Ring = WrappingRing>
    TARNEL_HD void operator()(int i, int) const {
        const int k = Ring::index(i, start, bufferLength);
        const float c = (-samplesI[k]) - samplesI[k + bufferLength];
        samplesI[k + 2 * bufferLength] = c;
        fftInputI[i + 2 * fftLength] = windowed(c, blockWindow(window, i, length), fftScale);
    }
};

}  // namespace tarnel
