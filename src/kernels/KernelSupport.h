// What every kernel is built from. A kernel is a small struct holding its
// arguments, with its math in __host__ __device__ member functions, so that
// the CUDA backend runs it per GPU thread and the CPU backend runs the same
// code in loops. This header includes nothing from CUDA.
//
// Two kinds of kernel exist:
//  - element kernels: `int extent() const` and `void operator()(int x, int row) const`,
//    run once for every x in [0, extent) and every channel row of the launch;
//  - reduction kernels (`static constexpr bool isReduction = true`): `fieldCount`
//    double sums per row, `void accumulate(KernelSums<fieldCount>&, int x, int row) const`
//    adds the contribution of index x, and `double* target(int row, int field) const`
//    names where the row's total of a field is added (null: not wanted).
// Kernels that read the block's samples from the ring (`readsRing = true`)
// take the ring indexing as a template parameter of operator() or
// accumulate, and have members `start` and `bufferLength`.
// Reductions are staged per backend (warp shuffles, shared memory and atomic
// adds on the GPU, plain loops on the CPU); the order of additions differs, so
// sums agree to the last few bits, not bit for bit.
#pragma once

#include <cmath>

#include "tarnel/VectorTypes.h"

#if defined(__CUDACC__)
#define TARNEL_HD __host__ __device__ inline
#else
#define TARNEL_HD inline
#endif

namespace tarnel {

template <int N>
struct KernelSums {
    double value[N];
};

// Largest number of channel rows in one launch of a reduction kernel.
constexpr int kMaxKernelRows = 3;

TARNEL_HD int imin(int a, int b) { return a < b ? a : b; }
TARNEL_HD int imax(int a, int b) { return a > b ? a : b; }

// Ring position of sample i of a block that starts at ring position `start`.
// Blocks fit the ring (i and start below bufferLength), so one conditional
// subtraction replaces the division in the common case.
TARNEL_HD int ringIndex(int i, int start, int bufferLength) {
    const int k = i + start;
    if (k < bufferLength) return k;
    return k < 2 * bufferLength ? k - bufferLength : k % bufferLength;
}

// How a kernel that reads the sample ring finds sample i of its block.
// WrappingRing serves any block. LinearRing serves a stretch of a block that
// does not cross the end of the ring, with `start` shifted so that i + start
// is the ring position: the CPU backend splits launches there, so that its
// loops read and write consecutive samples.
struct WrappingRing {
    TARNEL_HD static int index(int i, int start, int bufferLength) { return ringIndex(i, start, bufferLength); }
};
struct LinearRing {
    TARNEL_HD static int index(int i, int start, int) { return i + start; }
};

// a * b + c for the sums of reductions: fused where the target has FMA
// instructions, a multiply and an add elsewhere (a call to the library's fma
// per term would cost more than the rest of the step).
TARNEL_HD double mulAdd(double a, double b, double c) {
#if defined(__CUDA_ARCH__) || defined(__FMA__)
    return fma(a, b, c);
#else
    return a * b + c;
#endif
}

}  // namespace tarnel
