#include "backends/cpu/CpuStream.h"

namespace tarnel {

CpuStream::CpuStream() : worker([this] { run(); }) {}

CpuStream::~CpuStream() {
    {
        std::lock_guard<std::mutex> lock(mutex);
        stopping = true;
    }
    changed.notify_all();
    worker.join();
}

void CpuStream::enqueue(std::function<void()> work) {
    {
        std::lock_guard<std::mutex> lock(mutex);
        queue.push_back(std::move(work));
    }
    changed.notify_all();
}

void CpuStream::waitIdle() {
    std::unique_lock<std::mutex> lock(mutex);
    changed.wait(lock, [this] { return queue.empty() && !busy; });
}

void CpuStream::run() {
    std::unique_lock<std::mutex> lock(mutex);
    for (;;) {
        changed.wait(lock, [this] { return stopping || !queue.empty(); });
        if (queue.empty()) return;  // stopping, and all work done
        auto work = std::move(queue.front());
        queue.pop_front();
        busy = true;
        lock.unlock();
        work();
        lock.lock();
        busy = false;
        changed.notify_all();
    }
}

uint64_t CpuEvent::beginRecord() {
    std::lock_guard<std::mutex> lock(mutex);
    return ++recorded;
}

void CpuEvent::complete(uint64_t generation) {
    {
        std::lock_guard<std::mutex> lock(mutex);
        if (generation > completed) completed = generation;
    }
    changed.notify_all();
}

bool CpuEvent::isComplete() {
    std::lock_guard<std::mutex> lock(mutex);
    return completed >= recorded;
}

uint64_t CpuEvent::recordedGeneration() {
    std::lock_guard<std::mutex> lock(mutex);
    return recorded;
}

void CpuEvent::waitFor(uint64_t generation) {
    std::unique_lock<std::mutex> lock(mutex);
    changed.wait(lock, [&] { return completed >= generation; });
}

}  // namespace tarnel
