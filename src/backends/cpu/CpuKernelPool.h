// Helper threads shared by all CPU streams, which run parts of one large
// launch beside the stream thread that issued it.
//
// Helpers sleep between parts: a helper that kept polling for the next part
// would take a core from the application's own threads (reading recordings,
// period values), which costs more than waking it. The caller, whose part is
// as large as each helper's, polls for the helpers to finish.
#pragma once

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <thread>

#if defined(__x86_64__) || defined(__i386__)
#include <immintrin.h>
#endif

namespace tarnel {

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
    // are busy with another stream's launch or absent.
    bool run(const std::function<void(int)>& part) {
        std::unique_lock<std::mutex> caller(callerMutex, std::try_to_lock);
        if (!caller.owns_lock() || helperCount == 0) return false;
        task.store(&part, std::memory_order_relaxed);
        pending.store(helperCount, std::memory_order_relaxed);
        generation.fetch_add(1, std::memory_order_seq_cst);
        // Paired with a helper's sleeping count and check of the generation, in
        // the opposite order: either the helper sees the new generation or we see it asleep.
        if (sleeping.load(std::memory_order_seq_cst) > 0) {
            std::lock_guard<std::mutex> lock(mutex);
            wake.notify_all();
        }
        part(0);
        awaitHelpers();
        return true;
    }

  private:
    CpuKernelPool() {
        const unsigned cores = std::thread::hardware_concurrency();
        helperCount = getenv("NOHELP") ? 0 : (cores > 1 ? static_cast<int>(std::min(cores, 4u)) - 1 : 0);
        for (int h = 0; h < helperCount; ++h) std::thread([this, h] { serve(h + 1); }).detach();
    }

    static void pause() {
#if defined(__x86_64__) || defined(__i386__)
        _mm_pause();
#endif
    }

    // The caller's parts are as large as the helpers', so the wait is short:
    // spin, yielding now and then so that a helper sharing the core can finish.
    void awaitHelpers() {
        for (unsigned spins = 1; pending.load(std::memory_order_acquire) != 0; ++spins) {
            if (spins % 64 == 0) {
                std::this_thread::yield();
            } else {
                pause();
            }
        }
    }

    // Sleeps until the generation moves past `seen`.
    unsigned long long awaitGeneration(unsigned long long seen) {
        std::unique_lock<std::mutex> lock(mutex);
        sleeping.fetch_add(1, std::memory_order_seq_cst);
        wake.wait(lock, [&] { return generation.load(std::memory_order_seq_cst) != seen; });
        sleeping.fetch_sub(1, std::memory_order_relaxed);
        return generation.load(std::memory_order_acquire);
    }

    void serve(int index) {
        unsigned long long seen = 0;
        for (;;) {
            seen = awaitGeneration(seen);
            (*task.load(std::memory_order_relaxed))(index);
            pending.fetch_sub(1, std::memory_order_acq_rel);
        }
    }

    int helperCount = 0;
    std::mutex callerMutex;  // one shared launch at a time
    std::mutex mutex;        // guards sleeping helpers' wake-up
    std::condition_variable wake;
    std::atomic<const std::function<void(int)>*> task{nullptr};
    std::atomic<int> pending{0};
    std::atomic<int> sleeping{0};
    std::atomic<unsigned long long> generation{0};
};

}  // namespace tarnel
