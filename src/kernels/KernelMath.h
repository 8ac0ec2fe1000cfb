// Numeric helpers shared by the kernels, identical on the GPU and the CPU.
#pragma once

#include <math.h>
#include <string.h>

#include "kernels/KernelSupport.h"

namespace tarnel {

constexpr double kPi = 3.141592653589793;
constexpr double kDegreesPerRadian = 57.29577951308232;
constexpr double kSqrt3 = 1.7320508075688772;
constexpr double kSqrt2 = 1.4142135623730951;
// 1 / sqrt(0.3046): the reciprocal RMS value of the Blackman window, as a float.
constexpr double kBlackmanRmsReciprocal = 1.811903476715088;

// The periodic Blackman window over a block of n samples at sample i. The
// angles are formed in float (2*pi and 4*pi rounded to float), the window in double.
TARNEL_HD double blackmanWindow(int i, int n) {
    const float a1 = (static_cast<float>(i) * 6.2831855f) / static_cast<float>(n);
    const float a2 = (static_cast<float>(i) * 12.566371f) / static_cast<float>(n);
    const float c1 = cosf(a1);
    const float c2 = cosf(a2);
    return fma(static_cast<double>(c2), 0.08, fma(static_cast<double>(c1), -0.5, 0.42));
}

// A sample windowed and scaled for the FFT.
TARNEL_HD float windowed(float x, double window, float fftScale) {
    return static_cast<float>(static_cast<double>(fftScale) * (static_cast<double>(x) * window));
}

// The bits of a float, and the float of given bits.
TARNEL_HD unsigned floatBits(float x) {
#if defined(__CUDA_ARCH__)
    return __float_as_uint(x);
#else
    unsigned bits;
    memcpy(&bits, &x, sizeof bits);
    return bits;
#endif
}
TARNEL_HD float floatOfBits(unsigned bits) {
#if defined(__CUDA_ARCH__)
    return __uint_as_float(bits);
#else
    float x;
    memcpy(&x, &bits, sizeof x);
    return x;
#endif
}

// 2^e for -126 <= e <= 127: a normal float, built from its exponent bits.
TARNEL_HD float powerOfTwo(int e) { return floatOfBits(static_cast<unsigned>(e + 127) << 23); }

// The exponent frexpf gives a finite non-zero float (x = m 2^e, 0.5 <= |m| < 1),
// read from the bits of a normal float.
TARNEL_HD int binaryExponent(float x) {
    const unsigned biased = (floatBits(x) >> 23) & 0xffu;
    if (biased != 0) return static_cast<int>(biased) - 126;
    int exponent = 0;
    frexpf(x, &exponent);  // subnormal
    return exponent;
}

// Euclidean norm of `count` floats, scaled by a power of two from the largest
// magnitude so that no square overflows or underflows.
TARNEL_HD float scaledNorm(const float* values, int count) {
    float largest = 0.0f;
    for (int k = 0; k < count; ++k) {
        const float magnitude = fabsf(values[k]);
        largest = magnitude > largest ? magnitude : largest;  // fmaxf, NaN skipped alike
    }
    if (largest == 0.0f) return 0.0f;
    if (isinf(largest)) return largest;
    const int exponent = binaryExponent(largest);
    float sum = 0.0f;
    if (exponent >= -126 && exponent <= 126) {
        // 2^-exponent and 2^exponent are normal floats: the products round as ldexpf does.
        const float scale = powerOfTwo(-exponent);
        for (int k = 0; k < count; ++k) {
            const float scaled = values[k] * scale;
            sum += scaled * scaled;
        }
        return sqrtf(sum) * powerOfTwo(exponent);
    }
    for (int k = 0; k < count; ++k) {
        const float scaled = ldexpf(values[k], -exponent);
        sum += scaled * scaled;
    }
    return ldexpf(sqrtf(sum), exponent);
}

// Norm of the complex bins first..last (inclusive).
TARNEL_HD float binsNorm(const float2* bins, int first, int last) {
    return scaledNorm(reinterpret_cast<const float*>(bins + first), 2 * (last - first + 1));
}

// Maps an angle in degrees into (-180, 180].
TARNEL_HD double wrapDegrees(double x) { return isnan(x) ? x : x - 360.0 * ceil(x / 360.0 - 0.5); }

// Phase angle of a bin in degrees, corrected by the bin offset of the true
// frequency and relative to `subtract` degrees.
TARNEL_HD double calculateAngleDeg(float2 bin, double binOffset, double windowRatio, double subtract) {
    const float theta = atan2f(-bin.x, -bin.y);
    return wrapDegrees(static_cast<double>(theta) * kDegreesPerRadian + binOffset * 180.0 * windowRatio - subtract);
}

// sin(pi x) and cos(pi x), exact at multiples of one half.
TARNEL_HD void sinCosPi(double x, double* s, double* c) {
#if defined(__CUDA_ARCH__)
    sincospi(x, s, c);
#else
    double r = fmod(x, 2.0);
    if (r > 1.0) r -= 2.0;
    if (r <= -1.0) r += 2.0;
    if (r == 0.0) {
        *s = 0.0 * x;
        *c = 1.0;
    } else if (r == 0.5 || r == -0.5) {
        *s = r * 2.0;
        *c = 0.0;
    } else if (r == 1.0) {
        *s = 0.0;
        *c = -1.0;
    } else {
        *s = sin(kPi * r);
        *c = cos(kPi * r);
    }
#endif
}

// The phasor of a magnitude and an angle in degrees, in the convention of the
// harmonic angles: magnitude * (cos(angle), -sin(angle)).
TARNEL_HD double2 phasorFromDegrees(double magnitude, double degrees) {
    double s = 0.0, c = 0.0;
    sinCosPi(degrees / -180.0, &s, &c);
    double2 p;
    p.x = magnitude * c;
    p.y = magnitude * s;
    return p;
}

}  // namespace tarnel
