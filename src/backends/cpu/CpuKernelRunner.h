// Runs a kernel of the kernel list on the CPU: the same per-index code the GPU
// runs per thread, in loops over the launch's channel rows and the kernel's
// extent. Large launches are cut into chunks, contiguous ranges of the
// extent, which the calling stream thread and the pool's helpers share.
#pragma once

#include <algorithm>
#include <functional>
#include <type_traits>
#include <vector>

#include "VectorLoops.h"
#include "backends/cpu/CpuKernelPool.h"
#include "kernels/KernelSupport.h"

namespace tarnel {

// Launches with less work than this run on the stream thread alone: waking a
// helper costs more than it saves on them (the waveform and time-domain
// kernels of a 10-period block at 51.2 kHz). Larger ones are cut into chunks
// of about kCpuChunkWork, at most kCpuMaxChunks. The work of a launch is its
// (row, index) pairs, weighed by the kernel's `workPerIndex` where it
// declares one (the work of one index relative to one sample of a waveform
// kernel).
constexpr long kCpuSharedLaunchWork = 40960;
constexpr long kCpuChunkWork = 4096;
constexpr int kCpuMaxChunks = 16;

template <typename Kernel, typename = void>
struct WorkPerIndex : std::integral_constant<int, 1> {};
template <typename Kernel>
struct WorkPerIndex<Kernel, std::void_t<decltype(Kernel::workPerIndex)>>
    : std::integral_constant<int, Kernel::workPerIndex> {};

// Chunks a launch is cut into: 1 for a launch the stream thread runs alone.
// It depends on the launch's size only, so that a reduction adds its partial
// sums in the same order whichever threads run the chunks.
template <typename Kernel>
int chunkCount(int extent, int rows) {
    const long work = static_cast<long>(extent) * rows * WorkPerIndex<Kernel>::value;
    if (work < kCpuSharedLaunchWork) return 1;
    return static_cast<int>(std::min<long>({work / kCpuChunkWork, kCpuMaxChunks, extent}));
}

// Start of chunk c of `chunks` contiguous ranges over [0, extent).
inline int chunkStart(int extent, int c, int chunks) {
    return static_cast<int>(static_cast<long long>(extent) * c / chunks);
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
            // The kernel adds its terms to these: starting from -0.0, whose
            // sum with any x is x, lets the compiler drop that addition.
            KernelSums<fields> term;
            for (int f = 0; f < fields; ++f) term.value[f] = -0.0;
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
    const int chunks = chunkCount<Kernel>(extent, rows);
    // Partial sums per chunk and row, added in chunk order.
    std::vector<KernelSums<fields>> partial(static_cast<size_t>(chunks) * rows, KernelSums<fields>{});
    CpuKernelPool::instance().run(chunks, [&](int c) {
        const int first = chunkStart(extent, c, chunks), last = chunkStart(extent, c + 1, chunks);
        for (int row = 0; row < rows; ++row)
            accumulateRange(kernel, partial[static_cast<size_t>(c) * rows + row], row, first, last);
    });
    for (int row = 0; row < rows; ++row) {
        KernelSums<fields> sums = partial[static_cast<size_t>(row)];
        for (int c = 1; c < chunks; ++c) {
            for (int f = 0; f < fields; ++f) sums.value[f] += partial[static_cast<size_t>(c) * rows + row].value[f];
        }
        for (int f = 0; f < fields; ++f) {
            if (double* target = kernel.target(row, f)) *target += sums.value[f];
        }
    }
}

template <typename Kernel>
void runElementsOnCpu(const Kernel& kernel, int rows) {
    const int extent = kernel.extent();
    const int chunks = chunkCount<Kernel>(extent, rows);
    CpuKernelPool::instance().run(chunks, [&kernel, rows, extent, chunks](int c) {
        const int first = chunkStart(extent, c, chunks), last = chunkStart(extent, c + 1, chunks);
        for (int row = 0; row < rows; ++row) {
            forEachStretch(kernel, first, last,
                           [row](const Kernel& stretch, int begin, int end) { runStretch(stretch, row, begin, end); });
        }
    });
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
