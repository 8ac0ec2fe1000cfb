// Helper threads shared by all CPU streams, which take chunks of one large
// launch beside the stream thread that issued it.
//
// The chunks of a launch are handed out one at a time from a counter: the
// calling thread starts on them at once, and a helper takes the next free
// chunk as soon as it is awake. Waking a sleeping thread takes tens of
// microseconds on a virtual machine, often as long as a whole small launch;
// a caller that waited for the helpers' shares would lose that time on every
// launch, whereas here it only waits for chunks a helper has already begun.
//
// Between launches a helper polls for the next one for a short while (the
// spectral launches of a block follow each other within microseconds), then
// sleeps: a helper that kept polling would take a core from the application's
// own threads (reading recordings, period values), and a hypervisor
// deschedules virtual processors that spin.
#pragma once

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <thread>

#if defined(__x86_64__) || defined(__i386__)
#include <immintrin.h>
#endif

namespace tarnel {

// How long a helper polls for the next launch before it sleeps.
constexpr std::chrono::microseconds kHelperPollTime{20};

class CpuKernelPool {
  public:
    static CpuKernelPool& instance() {
        // Never destroyed: stream threads may still run kernels while statics go.
        static CpuKernelPool* pool = new CpuKernelPool;
        return *pool;
    }

    // Whether there are helpers to share launches with.
    bool hasHelpers() const { return helperCount > 0; }

    // Runs chunk(0) .. chunk(count - 1), each exactly once, on the calling
    // thread and on whichever helpers join in, and returns once all have
    // finished. When the helpers serve another stream's launch the caller
    // runs every chunk itself.
    void run(int count, const std::function<void(int)>& chunk) {
        std::unique_lock<std::mutex> caller(callerMutex, std::try_to_lock);
        if (!caller.owns_lock() || helperCount == 0 || count < 2) {
            for (int c = 0; c < count; ++c) chunk(c);
            return;
        }
        Launch launch{&chunk, count};
        current.store(&launch, std::memory_order_seq_cst);
        generation.fetch_add(1, std::memory_order_seq_cst);
        // Paired with a helper's sleeping count and check of the generation, in
        // the opposite order: either the helper sees the new generation or we see it asleep.
        if (sleeping.load(std::memory_order_seq_cst) > 0) {
            std::lock_guard<std::mutex> lock(mutex);
            wake.notify_all();
        }
        launch.takeChunks();
        // Helpers that arrive from now on find no launch; those already in it
        // may still be running a chunk.
        current.store(nullptr, std::memory_order_seq_cst);
        awaitActiveHelpers();
    }

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

    CpuKernelPool() {
        const unsigned cores = std::thread::hardware_concurrency();
        helperCount = cores > 1 ? static_cast<int>(std::min(cores, 4u)) - 1 : 0;
        for (int h = 0; h < helperCount; ++h) std::thread([this] { serve(); }).detach();
    }

    static void pause() {
#if defined(__x86_64__) || defined(__i386__)
        _mm_pause();
#endif
    }

    // A helper inside a launch is at most one chunk from its end: spin,
    // yielding now and then so that a helper sharing the core can finish.
    void awaitActiveHelpers() {
        for (unsigned spins = 1; active.load(std::memory_order_seq_cst) != 0; ++spins) {
            if (spins % 64 == 0) {
                std::this_thread::yield();
            } else {
                pause();
            }
        }
    }

    // Waits until the generation moves past `seen`: polls for up to
    // kHelperPollTime, then sleeps.
    unsigned long long awaitGeneration(unsigned long long seen) {
        const auto pollUntil = std::chrono::steady_clock::now() + kHelperPollTime;
        for (unsigned spins = 1;; ++spins) {
            const unsigned long long now = generation.load(std::memory_order_acquire);
            if (now != seen) return now;
            pause();
            if (spins % 16 == 0 && std::chrono::steady_clock::now() > pollUntil) break;
        }
        std::unique_lock<std::mutex> lock(mutex);
        sleeping.fetch_add(1, std::memory_order_seq_cst);
        wake.wait(lock, [&] { return generation.load(std::memory_order_seq_cst) != seen; });
        sleeping.fetch_sub(1, std::memory_order_relaxed);
        return generation.load(std::memory_order_acquire);
    }

    // A helper announces itself before it looks for the launch, and the caller
    // withdraws the launch before it counts the helpers: a helper that finds
    // the launch is therefore waited for, and one that comes later finds none.
    void serve() {
        unsigned long long seen = 0;
        for (;;) {
            seen = awaitGeneration(seen);
            active.fetch_add(1, std::memory_order_seq_cst);
            if (Launch* launch = current.load(std::memory_order_seq_cst)) launch->takeChunks();
            active.fetch_sub(1, std::memory_order_seq_cst);
        }
    }

    int helperCount = 0;
    std::mutex callerMutex;  // one shared launch at a time
    std::mutex mutex;        // guards sleeping helpers' wake-up
    std::condition_variable wake;
    std::atomic<Launch*> current{nullptr};
    std::atomic<int> active{0};
    std::atomic<int> sleeping{0};
    std::atomic<unsigned long long> generation{0};
};

}  // namespace tarnel
