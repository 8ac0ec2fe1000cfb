#include "backends/cpu/CpuStream.h"

#include <algorithm>

namespace tarnel {

uint64_t CpuEvent::beginRecord() {
    std::lock_guard<std::mutex> lock(mutex);
    return ++recorded;
}

void CpuEvent::complete(uint64_t generation) {
    std::lock_guard<std::mutex> lock(mutex);
    if (generation > completed) completed = generation;
}

bool CpuEvent::isComplete() {
    std::lock_guard<std::mutex> lock(mutex);
    return completed >= recorded;
}

uint64_t CpuEvent::recordedGeneration() {
    std::lock_guard<std::mutex> lock(mutex);
    return recorded;
}

bool CpuEvent::hasCompleted(uint64_t generation) {
    std::lock_guard<std::mutex> lock(mutex);
    return completed >= generation;
}

void CpuStream::enqueue(std::function<void()> work) { workers.add(*this, Entry{std::move(work), nullptr, 0}); }

void CpuStream::enqueueWait(std::shared_ptr<CpuEvent> event, uint64_t generation) {
    workers.add(*this, Entry{{}, std::move(event), generation});
}

CpuStreamWorkers::~CpuStreamWorkers() {
    {
        std::lock_guard<std::mutex> lock(mutex);
        stopping = true;
    }
    ready.notify_all();
    for (auto& thread : threads) thread.join();
}

std::shared_ptr<CpuStream> CpuStreamWorkers::createStream() {
    auto stream = std::make_shared<CpuStream>(*this);
    std::lock_guard<std::mutex> lock(mutex);
    streams.push_back(stream);
    threads.emplace_back([this] { serve(); });
    return stream;
}

void CpuStreamWorkers::retire(const std::shared_ptr<CpuStream>& stream) {
    std::unique_lock<std::mutex> lock(mutex);
    ++idleWaiters;
    changed.wait(lock, [&] { return stream->queue.empty() && !stream->running; });
    --idleWaiters;
    streams.erase(std::remove(streams.begin(), streams.end(), stream), streams.end());
}

void CpuStreamWorkers::waitAllIdle() {
    std::unique_lock<std::mutex> lock(mutex);
    ++idleWaiters;
    // A stream may wait on an event of another; waiting until all are idle at
    // once covers that, since every wait ends when its event's stream runs.
    changed.wait(lock, [&] {
        return std::all_of(streams.begin(), streams.end(),
                           [](const auto& s) { return s->queue.empty() && !s->running; });
    });
    --idleWaiters;
}

void CpuStreamWorkers::add(CpuStream& stream, CpuStream::Entry entry) {
    bool wake = false;
    {
        std::lock_guard<std::mutex> lock(mutex);
        stream.queue.push_back(std::move(entry));
        wake = stream.queue.size() == 1 && isReady(stream);
    }
    if (wake) ready.notify_one();
}

bool CpuStreamWorkers::isReady(const CpuStream& stream) const {
    if (stream.running || stream.queue.empty()) return false;
    const CpuStream::Entry& first = stream.queue.front();
    return first.event == nullptr || first.event->hasCompleted(first.generation);
}

CpuStream* CpuStreamWorkers::takeReadyStream() {
    for (size_t k = 0; k < streams.size(); ++k) {
        const size_t index = (nextStream + k) % streams.size();
        CpuStream& stream = *streams[index];
        // Waits whose event has completed end here, without a worker's turn.
        while (isReady(stream) && stream.queue.front().event != nullptr) stream.queue.pop_front();
        if (isReady(stream)) {
            nextStream = index + 1;
            return &stream;
        }
    }
    return nullptr;
}

// A worker runs one entry at a time and then looks for the next ready stream,
// starting after the stream it served: after completing an event it finds
// the stream that waited for it before its own stream's next work. When
// another stream is ready too, it wakes a further worker for it.
void CpuStreamWorkers::serve() {
    std::unique_lock<std::mutex> lock(mutex);
    for (;;) {
        CpuStream* stream = takeReadyStream();
        if (stream == nullptr) {
            if (idleWaiters > 0) changed.notify_all();
            if (stopping) return;
            ready.wait(lock);
            continue;
        }
        std::function<void()> work = std::move(stream->queue.front().work);
        stream->queue.pop_front();
        stream->running = true;
        const bool othersReady =
            std::any_of(streams.begin(), streams.end(), [this](const auto& s) { return isReady(*s); });
        lock.unlock();
        if (othersReady) ready.notify_one();
        work();
        lock.lock();
        stream->running = false;
        if (idleWaiters > 0 && stream->queue.empty()) changed.notify_all();
    }
}

}  // namespace tarnel
