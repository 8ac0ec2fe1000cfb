// Runs a kernel of the kernel list on the CPU: the same per-index code the GPU
// runs per thread, in loops over the launch's channel rows and the kernel's
// extent. Large launches are shared between the calling stream thread and a
// few helper threads, each taking a contiguous range of the extent.
#pragma once

#include <algorithm>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

#include "kernels/KernelSupport.h"

namespace tarnel {

// Helper threads shared by all CPU streams. A launch that finds them busy
// with another stream's kernel runs alone on its own thread.
class CpuKernelPool {
  public:
    static CpuKernelPool& instance() {
        // Never destroyed: stream threads may still run kernels while statics go.
        static CpuKernelPool* pool = new CpuKernelPool;
        return *pool;
    }

    // Parts a shared launch is split into: the helpers and the caller.
    int parts() const { return helperCount + 1; }

    // Runs part(0) .. part(parts() - 1), part 0 on the calling thread, and
    // returns once all have finished; false (nothing run) when the helpers
    // are busy or absent.
    bool run(const std::function<void(int)>& part) {
        std::unique_lock<std::mutex> caller(callerMutex, std::try_to_lock);
        if (!caller.owns_lock() || helperCount == 0) return false;
        {
            std::lock_guard<std::mutex> lock(mutex);
            task = &part;
            pending = helperCount;
            ++generation;
        }
        wake.notify_all();
        part(0);
        std::unique_lock<std::mutex> lock(mutex);
        done.wait(lock, [this] { return pending == 0; });
        task = nullptr;
        return true;
    }

  private:
    CpuKernelPool() {
        const unsigned cores = std::thread::hardware_concurrency();
        helperCount = cores > 1 ? static_cast<int>(std::min(cores, 4u)) - 1 : 0;
        for (int h = 0; h < helperCount; ++h) std::thread([this, h] { serve(h + 1); }).detach();
    }

    void serve(int index) {
        unsigned long long seen = 0;
        std::unique_lock<std::mutex> lock(mutex);
        for (;;) {
            wake.wait(lock, [&] { return generation != seen; });
            seen = generation;
            const std::function<void(int)>* work = task;
            lock.unlock();
            (*work)(index);
            lock.lock();
            if (--pending == 0) done.notify_one();
        }
    }

    int helperCount = 0;
    std::mutex callerMutex;
    std::mutex mutex;
    std::condition_variable wake;
    std::condition_variable done;
    const std::function<void(int)>* task = nullptr;
    int pending = 0;
    unsigned long long generation = 0;
};

// Launches with fewer (row, index) pairs than this run on the stream thread alone.
constexpr long kCpuSharedLaunchWork = 16384;

inline bool shareLaunch(int extent, int rows) {
    return static_cast<long>(extent) * rows >= kCpuSharedLaunchWork && CpuKernelPool::instance().parts() > 1;
}

// Start of part p of `parts` contiguous ranges over [0, extent).
inline int partStart(int extent, int p, int parts) {
    return static_cast<int>(static_cast<long long>(extent) * p / parts);
}

template <typename Kernel>
void runReductionOnCpu(const Kernel& kernel, int rows) {
    constexpr int fields = Kernel::fieldCount;
    const int extent = kernel.extent();
    // Four interleaved partial sums break the chain of dependent additions,
    // so consecutive indices overlap in the pipeline (and may be vectorised).
    auto accumulateRange = [&kernel](KernelSums<fields>& sums, int row, int first, int last) {
        KernelSums<fields> lanes[4] = {};
        int x = first;
        for (; x + 3 < last; x += 4) {
            kernel.accumulate(lanes[0], x, row);
            kernel.accumulate(lanes[1], x + 1, row);
            kernel.accumulate(lanes[2], x + 2, row);
            kernel.accumulate(lanes[3], x + 3, row);
        }
        for (; x < last; ++x) kernel.accumulate(lanes[0], x, row);
        for (int f = 0; f < fields; ++f)
            sums.value[f] += (lanes[0].value[f] + lanes[1].value[f]) + (lanes[2].value[f] + lanes[3].value[f]);
    };
    auto store = [&kernel](const KernelSums<fields>& sums, int row) {
        for (int f = 0; f < fields; ++f) {
            if (double* target = kernel.target(row, f)) *target += sums.value[f];
        }
    };
    if (rows <= kMaxKernelRows && shareLaunch(extent, rows)) {
        CpuKernelPool& pool = CpuKernelPool::instance();
        const int parts = pool.parts();
        // Partial sums per part and row, combined in part order.
        std::vector<KernelSums<fields>> partial(static_cast<size_t>(parts) * rows, KernelSums<fields>{});
        const std::function<void(int)> part = [&](int p) {
            const int first = partStart(extent, p, parts), last = partStart(extent, p + 1, parts);
            for (int row = 0; row < rows; ++row) {
                KernelSums<fields> sums{};
                accumulateRange(sums, row, first, last);
                partial[static_cast<size_t>(p) * rows + row] = sums;
            }
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
        accumulateRange(sums, row, 0, extent);
        store(sums, row);
    }
}

template <typename Kernel>
void runElementsOnCpu(const Kernel& kernel, int rows) {
    const int extent = kernel.extent();
    auto runRange = [&kernel, rows](int first, int last) {
        for (int row = 0; row < rows; ++row) {
            for (int x = first; x < last; ++x) kernel(x, row);
        }
    };
    if (shareLaunch(extent, rows)) {
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
