// Runs a kernel of the kernel list on the CPU: the same per-index code the GPU
// runs per thread, in loops over the launch's channel rows and the kernel's
// extent. Large launches are shared between the calling stream thread and a
// few helper threads, each taking a contiguous range of the extent.
#pragma once

#include <algorithm>
#include <functional>
#include <type_traits>
#include <vector>

#include "backends/cpu/CpuKernelPool.h"
#include "kernels/KernelSupport.h"

namespace tarnel {

// Launches with less work than this run on the stream thread alone. The work
// of a launch is its (row, index) pairs, weighed by the kernel's
// `workPerIndex` where it declares one (the work of one index relative to
// one sample of a waveform kernel).
constexpr long kCpuSharedLaunchWork = 16384;

template <typename Kernel, typename = void>
struct WorkPerIndex : std::integral_constant<int, 1> {};
template <typename Kernel>
struct WorkPerIndex<Kernel, std::void_t<decltype(Kernel::workPerIndex)>>
    : std::integral_constant<int, Kernel::workPerIndex> {};

template <typename Kernel>
bool shareLaunch(int extent, int rows) {
    return static_cast<long>(extent) * rows * WorkPerIndex<Kernel>::value >= kCpuSharedLaunchWork &&
           CpuKernelPool::instance().parts() > 1;
}

// Start of part p of `parts` contiguous ranges over [0, extent).
inline int partStart(int extent, int p, int parts) {
    return static_cast<int>(static_cast<long long>(extent) * p / parts);
}

// Whether a kernel reads the block's samples from the ring.
template <typename Kernel, typename = void>
struct ReadsRing : std::false_type {};
template <typename Kernel>
struct ReadsRing<Kernel, std::void_t<decltype(Kernel::readsRing)>> : std::bool_constant<Kernel::readsRing> {};

// Calls body(kernel, first, last) for the stretches of [first, last) that do
// not cross the end of the sample ring: once for most launches, twice for a
// block that wraps, the second time with a copy whose start is shifted back
// by the ring's length. Inside a stretch a ring kernel runs with LinearRing.
template <typename Kernel, typename Body>
void forEachStretch(const Kernel& kernel, int first, int last, Body&& body) {
    if constexpr (ReadsRing<Kernel>::value) {
        const int wrap = kernel.bufferLength - kernel.start;  // first index past the ring's end
        if (first < wrap) body(kernel, first, std::min(last, wrap));
        if (last > wrap) {
            Kernel shifted = kernel;
            shifted.start -= kernel.bufferLength;
            body(shifted, std::max(first, wrap), last);
        }
    } else {
        body(kernel, first, last);
    }
}

template <typename Kernel>
inline void runElementAt(const Kernel& kernel, int x, int row) {
    if constexpr (ReadsRing<Kernel>::value) {
        kernel.template operator()<LinearRing>(x, row);
    } else {
        kernel(x, row);
    }
}

template <typename Kernel>
inline void accumulateAt(const Kernel& kernel, KernelSums<Kernel::fieldCount>& sums, int x, int row) {
    if constexpr (ReadsRing<Kernel>::value) {
        kernel.template accumulate<LinearRing>(sums, x, row);
    } else {
        kernel.accumulate(sums, x, row);
    }
}

// The loops over a stretch are compiled twice where the toolchain can pick
// at load time: for x86-64-v3 processors (AVX2) and for the baseline. Both
// add in the same order, and the backend is built without contraction into
// fused multiply-adds, so the results do not depend on the processor.
#if defined(__GNUC__) && !defined(__clang__) && defined(__x86_64__) && defined(__linux__)
#define TARNEL_CPU_LOOP __attribute__((target_clones("arch=x86-64-v3", "default")))
#else
#define TARNEL_CPU_LOOP
#endif

// Partial sums kept per lane: consecutive indices go to consecutive lanes, so
// the compiler runs the lanes in vector registers and the additions of one
// lane do not wait on each other's.
constexpr int kReductionLanes = 8;

// Adds the row's terms of indices [begin, end) of one stretch to `sums`, in a fixed order.
template <typename Kernel>
TARNEL_CPU_LOOP void accumulateStretch(const Kernel& stretch, KernelSums<Kernel::fieldCount>& sums, int row, int begin,
                                       int end) {
    constexpr int fields = Kernel::fieldCount;
    const Kernel k = stretch;  // a local copy: its members stay in registers
    double lanes[fields][kReductionLanes] = {};
    int x = begin;
    for (; x + kReductionLanes <= end; x += kReductionLanes) {
#pragma omp simd
        for (int lane = 0; lane < kReductionLanes; ++lane) {
            KernelSums<fields> term{};
            accumulateAt(k, term, x + lane, row);
#pragma GCC unroll 8
            for (int f = 0; f < fields; ++f) lanes[f][lane] += term.value[f];
        }
    }
    KernelSums<fields> tail{};
    for (; x < end; ++x) accumulateAt(k, tail, x, row);
    for (int f = 0; f < fields; ++f) {
        for (int width = kReductionLanes / 2; width > 0; width /= 2) {
            for (int lane = 0; lane < width; ++lane) lanes[f][lane] += lanes[f][lane + width];
        }
        sums.value[f] += lanes[f][0] + tail.value[f];
    }
}

// Runs the row's indices [begin, end) of one stretch.
template <typename Kernel>
TARNEL_CPU_LOOP void runStretch(const Kernel& stretch, int row, int begin, int end) {
    const Kernel k = stretch;  // a local copy: its members stay in registers
#pragma omp simd
    for (int x = begin; x < end; ++x) runElementAt(k, x, row);
}

// Adds the row's terms of indices [first, last) to `sums`.
template <typename Kernel>
void accumulateRange(const Kernel& kernel, KernelSums<Kernel::fieldCount>& sums, int row, int first, int last) {
    forEachStretch(kernel, first, last, [&sums, row](const Kernel& stretch, int begin, int end) {
        accumulateStretch(stretch, sums, row, begin, end);
    });
}

template <typename Kernel>
void runReductionOnCpu(const Kernel& kernel, int rows) {
    constexpr int fields = Kernel::fieldCount;
    const int extent = kernel.extent();
    auto store = [&kernel](const KernelSums<fields>& sums, int row) {
        for (int f = 0; f < fields; ++f) {
            if (double* target = kernel.target(row, f)) *target += sums.value[f];
        }
    };
    if (rows <= kMaxKernelRows && shareLaunch<Kernel>(extent, rows)) {
        CpuKernelPool& pool = CpuKernelPool::instance();
        const int parts = pool.parts();
        // Partial sums per part and row, combined in part order.
        std::vector<KernelSums<fields>> partial(static_cast<size_t>(parts) * rows, KernelSums<fields>{});
        const std::function<void(int)> part = [&](int p) {
            const int first = partStart(extent, p, parts), last = partStart(extent, p + 1, parts);
            for (int row = 0; row < rows; ++row)
                accumulateRange(kernel, partial[static_cast<size_t>(p) * rows + row], row, first, last);
        };
        if (pool.run(part)) {
            for (int row = 0; row < rows; ++row) {
                KernelSums<fields> sums = partial[static_cast<size_t>(row)];
                for (int p = 1; p < parts; ++p) {
                    for (int f = 0; f < fields; ++f)
                        sums.value[f] += partial[static_cast<size_t>(p) * rows + row].value[f];
                }
                store(sums, row);
            }
            return;
        }
    }
    for (int row = 0; row < rows; ++row) {
        KernelSums<fields> sums{};
        accumulateRange(kernel, sums, row, 0, extent);
        store(sums, row);
    }
}

template <typename Kernel>
void runElementsOnCpu(const Kernel& kernel, int rows) {
    const int extent = kernel.extent();
    auto runRange = [&kernel, rows](int first, int last) {
        for (int row = 0; row < rows; ++row) {
            forEachStretch(kernel, first, last,
                           [row](const Kernel& stretch, int begin, int end) { runStretch(stretch, row, begin, end); });
        }
    };
    if (shareLaunch<Kernel>(extent, rows)) {
        CpuKernelPool& pool = CpuKernelPool::instance();
        const int parts = pool.parts();
        const std::function<void(int)> part = [&](int p) {
            runRange(partStart(extent, p, parts), partStart(extent, p + 1, parts));
        };
        if (pool.run(part)) return;
    }
    runRange(0, extent);
}

template <typename Kernel>
void runKernelOnCpu(const Kernel& kernel, int rows) {
    if constexpr (Kernel::isReduction) {
        runReductionOnCpu(kernel, rows);
    } else {
        runElementsOnCpu(kernel, rows);
    }
}

}  // namespace tarnel
