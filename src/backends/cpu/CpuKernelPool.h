// Large launches shared among the CPU worker threads: the worker that issues
// the launch and whichever idle workers join in (CpuWorkerPool.h).
//
// The chunks of a launch are handed out one at a time from a counter: the
// calling thread starts on them at once, and an idle worker takes the next
// free chunk as soon as it is awake. Waking a sleeping thread takes tens of
// microseconds on a virtual machine, often as long as a whole small launch;
// a caller that waited for the helpers' shares would lose that time on every
// launch, whereas here it only waits for chunks a helper has already begun.
// When every worker is busy with streams of its own, nobody joins and the
// caller runs all chunks itself: no thread competes with the workers.
#pragma once

#include <atomic>
#include <functional>
#include <mutex>

#if defined(__x86_64__) || defined(__i386__)
#include <immintrin.h>
#endif

namespace tarnel {

// Tells the processor that this thread spins waiting for another (a pause on x86).
inline void cpuPause() {
#if defined(__x86_64__) || defined(__i386__)
    _mm_pause();
#endif
}

class CpuKernelPool {
  public:
    // Never destroyed: workers may still run kernels while statics go.
    static CpuKernelPool& instance();

    // Whether there are other workers to share launches with.
    bool hasHelpers() const;

    // Runs chunk(0) .. chunk(count - 1), each exactly once, on the calling
    // thread and on whichever idle workers join in, and returns once all have
    // finished. When another launch is being shared the caller runs every
    // chunk itself.
    void run(int count, const std::function<void(int)>& chunk);

    // Launches published so far; a worker that saw `seen` may join the next.
    unsigned long long generation() const { return generation_.load(std::memory_order_seq_cst); }
    // Joins the launch published since `seen`, if any is still open, and
    // updates `seen`; false when nothing new was published.
    bool help(unsigned long long& seen);

  private:
    struct Launch {
        const std::function<void(int)>* chunk;
        int count;
        std::atomic<int> next{0};

        void takeChunks() {
            for (int c = next.fetch_add(1, std::memory_order_relaxed); c < count;
                 c = next.fetch_add(1, std::memory_order_relaxed))
                (*chunk)(c);
        }
    };

    CpuKernelPool() = default;
    void awaitActiveHelpers();

    std::mutex callerMutex;  // one shared launch at a time
    std::atomic<Launch*> current{nullptr};
    std::atomic<int> active{0};
    std::atomic<unsigned long long> generation_{0};
};

}  // namespace tarnel
