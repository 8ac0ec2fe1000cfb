// Clarke (alpha, beta, zero) and Park (d, q) transforms of three-phase groups:
// sample by sample into the Clarke/Park rings, block means of d and q from the
// measured mechanical angle, and the transforms of the fundamental phasors.
#pragma once

#include "kernels/KernelMath.h"

namespace tarnel {

struct ClarkeValues {
    float alpha, beta, zero;
};

TARNEL_HD ClarkeValues clarke(float a, float b, float c) {
    ClarkeValues v;
    v.alpha = (((a + a) - b) - c) / 3.0f;
    v.beta = static_cast<float>(static_cast<double>(b - c) / kSqrt3);
    v.zero = ((a + b) + c) / 3.0f;
    return v;
}

// Clarke waveforms; row 0 is the first transformed group, row 1 the currents.
struct kernelWaveformsClarke {
    static constexpr bool readsRing = true;
    static constexpr bool isReduction = false;
    int length, start, bufferLength;
    const float* samples;
    float* clarkeOut;

    TARNEL_HD int extent() const { return length; }
    template <typename Ring = WrappingRing>
    TARNEL_HD void operator()(int i, int y) const {
        const int base = 3 * bufferLength * y + Ring::index(i, start, bufferLength);
        const ClarkeValues v = clarke(samples[base], samples[base + bufferLength], samples[base + 2 * bufferLength]);
        clarkeOut[base] = v.alpha;
        clarkeOut[base + bufferLength] = v.beta;
        clarkeOut[base + 2 * bufferLength] = v.zero;
    }
};

// Park waveforms from the mechanical angle, and the block means of d and q.
struct kernelWaveformsPark {
    static constexpr bool readsRing = true;
    static constexpr bool isReduction = true;
    static constexpr int fieldCount = 2;
    int length, start, bufferLength, polePairs;
    double mechAngleOffset;  // degrees
    const float* samples;
    const float* mechAngle;
    float* park;  // null: means only
    double* parkValues;

    TARNEL_HD int extent() const { return length; }
    template <typename Ring = WrappingRing>
    TARNEL_HD void accumulate(KernelSums<2>& s, int i, int y) const {
        const int k = Ring::index(i, start, bufferLength);
        const int base = 3 * bufferLength * y + k;
        const double delta = (mechAngleOffset * 3.1415927410125732) / 180.0;
        const double theta = static_cast<double>(polePairs) * static_cast<double>(mechAngle[k]) - delta;
        const double sinTheta = sin(theta), cosTheta = cos(theta);
        const ClarkeValues v = clarke(samples[base], samples[base + bufferLength], samples[base + 2 * bufferLength]);
        const double alpha = v.alpha, beta = v.beta;
        const double d = fma(cosTheta, alpha, sinTheta * beta);
        const double q = cosTheta * beta - sinTheta * alpha;
        s.value[0] += d / length;
        s.value[1] += q / length;
        if (park != nullptr) {
            park[base] = static_cast<float>(d);
            park[base + bufferLength] = static_cast<float>(q);
        }
    }
    TARNEL_HD double* target(int y, int field) const { return parkValues + 3 * y + field; }
};

// Clarke of the fundamental phasors and, without a mechanical angle, the Park
// values derived from them; row 0 voltages, row 1 currents.
struct kernelClarkeH1AndParkAve {
    static constexpr bool isReduction = false;
    int harmonicsCount;
    const float* harmonics;
    const float* angles;
    bool clarkeWanted, parkWanted;
    double2* clarkeValues;
    double* parkValues;

    TARNEL_HD int extent() const { return 1; }
    TARNEL_HD void operator()(int, int y) const {
        double2 p[3];
        for (int j = 0; j < 3; ++j) {
            const int index = (3 * y + j) * harmonicsCount + 1;
            p[j] = phasorFromDegrees(harmonics[index], angles[index]);
        }
        double2 alpha, beta, zero;
        alpha.x = (((p[0].x + p[0].x) - p[1].x) - p[2].x) / 3.0;
        alpha.y = (((p[0].y + p[0].y) - p[1].y) - p[2].y) / 3.0;
        beta.x = (p[1].x - p[2].x) / kSqrt3;
        beta.y = (p[1].y - p[2].y) / kSqrt3;
        zero.x = ((p[0].x + p[1].x) + p[2].x) / 3.0;
        zero.y = ((p[0].y + p[1].y) + p[2].y) / 3.0;
        if (clarkeWanted) {
            clarkeValues[3 * y] = alpha;
            clarkeValues[3 * y + 1] = beta;
            clarkeValues[3 * y + 2] = zero;
        }
        if (parkWanted) {
            parkValues[3 * y] = (alpha.y + beta.x) / kSqrt2;
            parkValues[3 * y + 1] = (beta.y - alpha.x) / kSqrt2;
            parkValues[3 * y + 2] = (zero.x + zero.y) / kSqrt2;
        }
    }
};

}  // namespace tarnel
