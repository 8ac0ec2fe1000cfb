#include "backends/cpu/CpuKernelPool.h"

#include <thread>

#include "backends/cpu/CpuWorkerPool.h"

namespace tarnel {

CpuKernelPool& CpuKernelPool::instance() {
    static CpuKernelPool* pool = new CpuKernelPool;
    return *pool;
}

bool CpuKernelPool::hasHelpers() const { return CpuWorkerPool::instance().threadCount() > 1; }

void CpuKernelPool::run(int count, const std::function<void(int)>& chunk) {
    std::unique_lock<std::mutex> caller(callerMutex, std::try_to_lock);
    if (!caller.owns_lock() || count < 2) {
        for (int c = 0; c < count; ++c) chunk(c);
        return;
    }
    Launch launch{&chunk, count};
    current.store(&launch, std::memory_order_seq_cst);
    generation_.fetch_add(1, std::memory_order_seq_cst);
    CpuWorkerPool::instance().wakeForLaunch();
    launch.takeChunks();
    // Workers that arrive from now on find no launch; those already in it
    // may still be running a chunk.
    current.store(nullptr, std::memory_order_seq_cst);
    awaitActiveHelpers();
}

// A helper announces itself before it looks for the launch, and the caller
// withdraws the launch before it counts the helpers: a helper that finds the
// launch is therefore waited for, and one that comes later finds none.
bool CpuKernelPool::help(unsigned long long& seen) {
    const unsigned long long now = generation_.load(std::memory_order_seq_cst);
    if (now == seen) return false;
    seen = now;
    active.fetch_add(1, std::memory_order_seq_cst);
    if (Launch* launch = current.load(std::memory_order_seq_cst)) launch->takeChunks();
    active.fetch_sub(1, std::memory_order_seq_cst);
    return true;
}

// A helper inside a launch is at most one chunk from its end: spin, yielding
// now and then so that a helper sharing the core can finish.
void CpuKernelPool::awaitActiveHelpers() {
    for (unsigned spins = 1; active.load(std::memory_order_seq_cst) != 0; ++spins) {
        if (spins % 64 == 0) {
            std::this_thread::yield();
        } else {
            cpuPause();
        }
    }
}

}  // namespace tarnel
