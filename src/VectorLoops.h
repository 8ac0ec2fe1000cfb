// Hot host loops that vectorise are compiled twice where the toolchain can
// pick at load time: for x86-64-v3 processors (AVX2) and for the baseline.
// The loops keep a fixed number of partial-sum lanes and add them in a fixed
// order, and their files are built without contraction into fused
// multiply-adds, so both give the same results bit for bit.
//
// Not under the thread or address sanitizer: the loader picks the clone
// before the sanitizer's runtime has started, and the picking code is
// instrumented.
#pragma once

#if defined(__GNUC__) && !defined(__clang__) && defined(__x86_64__) && defined(__linux__) && \
    !defined(__SANITIZE_THREAD__) && !defined(__SANITIZE_ADDRESS__)
#define TARNEL_CPU_LOOP __attribute__((target_clones("arch=x86-64-v3", "default")))
#else
#define TARNEL_CPU_LOOP
#endif

#include <string.h>

namespace tarnel {

// Four doubles that add and multiply lane by lane: one AVX2 register, or two
// SSE2 registers on the baseline. Loops that keep their partial sums in these
// add them in the same order on every processor. The helpers take and give
// them by reference: passed by value, their calling convention would depend
// on the processor the caller is compiled for.
#if defined(__GNUC__)
typedef double Double4 __attribute__((vector_size(32)));
typedef float Float4 __attribute__((vector_size(16)));
inline void widen(Double4& out, const Float4& x) { out = __builtin_convertvector(x, Double4); }
#else
struct Double4 {
    double v[4];
    Double4& operator+=(const Double4& b) {
        for (int k = 0; k < 4; ++k) v[k] += b.v[k];
        return *this;
    }
    friend Double4 operator*(Double4 a, const Double4& b) {
        for (int k = 0; k < 4; ++k) a.v[k] *= b.v[k];
        return a;
    }
    friend Double4 operator-(Double4 a) {
        for (int k = 0; k < 4; ++k) a.v[k] = -a.v[k];
        return a;
    }
    double operator[](int lane) const { return v[lane]; }
};
struct Float4 {
    float v[4];
};
inline void widen(Double4& out, const Float4& x) {
    for (int k = 0; k < 4; ++k) out.v[k] = x.v[k];
}
#endif

// Four consecutive values from any address.
inline void load4(Double4& out, const double* p) { memcpy(&out, p, sizeof out); }
inline void load4(Double4& out, const float* p) {
    Float4 x;
    memcpy(&x, p, sizeof x);
    widen(out, x);
}

// The lanes' sum, in a fixed order.
inline double sumOfLanes(const Double4& x) { return (x[0] + x[1]) + (x[2] + x[3]); }

}  // namespace tarnel
