// Harmonic analysis of a block's spectra: the reference angle of the first
// voltage's fundamental, then per channel and order the harmonic group value
// (RMS of the bins within +-0.3 f of h f), the interharmonic group between two
// orders, and the phase angle relative to the reference.
#pragma once

#include "kernels/KernelMath.h"
#include "tarnel/PowerResults.h"

namespace tarnel {

// Bin positions of the harmonic orders of one block.
struct HarmonicBins {
    int n;          // bins per channel
    int halfWidth;  // bins on each side of a harmonic's centre
    double ratio;   // fundamental position in bins, f / dF

    TARNEL_HD int centre(int h) const { return static_cast<int>(round(h * ratio)); }
    TARNEL_HD double offset(int h) const { return h * ratio - centre(h); }
    TARNEL_HD int low(int h) const { return imax(0, centre(h) - halfWidth); }
    TARNEL_HD int high(int h) const { return imin(n - 1, centre(h) + halfWidth); }
    TARNEL_HD int interLow(int h) const { return high(h) + 1; }
    TARNEL_HD int interHigh(int h) const { return imin(n - 1, centre(h + 1) - halfWidth - 1); }
};

// Phase of the fundamental of voltage channel 0 (one thread).
struct kernelReferenceAngle {
    static constexpr bool isReduction = false;
    double frequency, dFrequency, windowRatio;
    const float2* spectra;
    double* referenceAngle;

    TARNEL_HD int extent() const { return 1; }
    TARNEL_HD void operator()(int, int) const {
        const double r = frequency / dFrequency;
        const int k = static_cast<int>(round(r));
        *referenceAngle = calculateAngleDeg(spectra[k], r - k, windowRatio, 0.0);
    }
};

// Group values and angles, one (order, channel) per index.
struct kernelHarmonics {
    static constexpr bool isReduction = false;
    // Each index reads a few dozen bins and takes an arc tangent: about a
    // hundred times the work of one sample of a waveform kernel, which a CPU
    // launch weighs.
    static constexpr int workPerIndex = 128;
    int n, harmonicsCount, halfWidth;
    bool interharmonics;
    double frequency, dFrequency, windowRatio;
    const double* referenceAngle;
    const float2* spectra;
    float* harmonics;
    float* interharmonicValues;
    float* angles;

    TARNEL_HD int extent() const { return harmonicsCount; }
    TARNEL_HD void operator()(int h, int c) const {
        const HarmonicBins bins{n, halfWidth, frequency / dFrequency};
        const float2* x = spectra + static_cast<long>(c) * n;
        const int out = c * harmonicsCount + h;
        if (h == 0) {
            double v = 0.5 * static_cast<double>(x[0].x * x[0].x + x[0].y * x[0].y);
            if (bins.high(0) >= 1) {
                const double rest = binsNorm(x, 1, bins.high(0));
                v += rest * rest;
            }
            harmonics[out] = static_cast<float>(sqrt(v));
            angles[out] = 0.0f;
        } else {
            if (bins.high(h) >= bins.low(h)) harmonics[out] = binsNorm(x, bins.low(h), bins.high(h));
            if (bins.centre(h) <= n - 1)
                angles[out] = static_cast<float>(
                    calculateAngleDeg(x[bins.centre(h)], bins.offset(h), windowRatio, h * *referenceAngle));
        }
        if (interharmonics && interharmonicValues != nullptr && bins.interHigh(h) >= bins.interLow(h))
            interharmonicValues[out] = binsNorm(x, bins.interLow(h), bins.interHigh(h));
    }
};

// Active, reactive and apparent power and impedance per phase and order.
struct kernelPQSZ {
    static constexpr bool isReduction = false;
    int phases, harmonicsCount;
    const float* harmonics;
    const float* angles;
    float* pqs;
    float* impedances;

    TARNEL_HD int extent() const { return harmonicsCount; }
    TARNEL_HD void operator()(int h, int p) const {
        const int i = p * harmonicsCount + h;
        const int j = i + phases * harmonicsCount;
        const float u = harmonics[i];
        const float current = harmonics[j];
        const float phi = ((angles[j] - angles[i]) * 3.1415927f) / 180.0f;
        const float ui = u * current;
        pqs[i] = ui * cosf(phi);
        pqs[j] = ui * sinf(phi);
        pqs[i + 2 * phases * harmonicsCount] = ui;
        impedances[i] = static_cast<double>(current) > 0.001 ? u / current : 0.0f;
    }
};

// Sums of squared group values of orders 2..highest for every array of the
// harmonics block, split into even, odd triplen and odd non-triplen orders.
struct kernelSumOfHarmonicsSquared {
    static constexpr bool isReduction = false;
    int arrays, highestOrder, harmonicsCount;
    const float* harmonics;
    PowerResultsThd* thd;

    TARNEL_HD int extent() const { return arrays; }
    TARNEL_HD void operator()(int t, int) const {
        const float* a = harmonics + static_cast<long>(t) * harmonicsCount;
        PowerResultsThd& r = thd[t];
        for (int h = 2; h <= highestOrder && h <= harmonicsCount - 1; ++h) {
            const double s = static_cast<double>(a[h] * a[h]);
            if (h % 2 == 0) {
                r.thdEven += s;
            } else if (h % 3 == 0) {
                r.thdOddTriplen += s;
            } else {
                r.thdOddNonTriplen += s;
            }
        }
        r.thdOdd = r.thdOddTriplen + r.thdOddNonTriplen;
        r.thd = r.thdOdd + r.thdEven;
    }
};

}  // namespace tarnel
