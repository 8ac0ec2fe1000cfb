#include "backends/cpu/CpuStream.h"

#include <algorithm>

#include "backends/cpu/CpuWorkerPool.h"

namespace tarnel {

uint64_t CpuEvent::beginRecord() {
    std::lock_guard<std::mutex> lock(mutex);
    return ++recorded;
}

std::vector<CpuStream*> CpuEvent::complete(uint64_t generation) {
    std::vector<CpuStream*> released;
    {
        std::lock_guard<std::mutex> lock(mutex);
        if (generation > completed) completed = generation;
        auto waiting = std::stable_partition(waiters.begin(), waiters.end(),
                                             [this](const auto& w) { return w.second > completed; });
        for (auto w = waiting; w != waiters.end(); ++w) released.push_back(w->first);
        waiters.erase(waiting, waiters.end());
    }
    completion.notify_all();
    return released;
}

bool CpuEvent::isComplete() {
    std::lock_guard<std::mutex> lock(mutex);
    return completed >= recorded;
}

uint64_t CpuEvent::recordedGeneration() {
    std::lock_guard<std::mutex> lock(mutex);
    return recorded;
}

bool CpuEvent::hasCompletedOrKeep(uint64_t generation, CpuStream* waiter) {
    std::lock_guard<std::mutex> lock(mutex);
    if (completed >= generation) return true;
    waiters.emplace_back(waiter, generation);
    return false;
}

void CpuEvent::awaitCompletion(uint64_t generation) {
    std::unique_lock<std::mutex> lock(mutex);
    completion.wait(lock, [&] { return completed >= generation; });
}

void CpuStream::enqueue(std::function<void()> work) {
    CpuWorkerPool::instance().add(*this, Entry{Kind::Work, std::move(work), nullptr, 0});
}

void CpuStream::enqueueWait(std::shared_ptr<CpuEvent> event, uint64_t generation) {
    CpuWorkerPool::instance().add(*this, Entry{Kind::Wait, {}, std::move(event), generation});
}

void CpuStream::enqueueRecord(std::shared_ptr<CpuEvent> event, uint64_t generation) {
    CpuWorkerPool::instance().add(*this, Entry{Kind::Record, {}, std::move(event), generation});
}

}  // namespace tarnel
