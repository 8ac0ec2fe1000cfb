// CPU streams and events, with CUDA's rules: the work enqueued on a stream
// runs in order and asynchronously to the thread that enqueued it; an event
// completes when its stream reaches the point where it was recorded; a
// stream may wait for an event.
//
// Streams own no threads: the process-wide worker pool (CpuWorkerPool.h) runs
// them. A stream is idle (nothing enqueued), ready (queued for a worker),
// running (a worker has it) or blocked (its next entry is a wait for an event
// that has not completed; the event keeps it on its list of waiters and hands
// it back to the pool when it completes). A blocked stream holds no worker.
// Each stream guards its queue with a mutex of its own, so that enqueueing
// and running entries of different modules do not contend.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <utility>
#include <vector>

namespace tarnel {

class CpuStream;

class CpuEvent {
  public:
    // Called on the recording thread; returns the generation to complete.
    uint64_t beginRecord();
    // Called once the stream reaches the recorded point; returns the streams
    // that waited for this generation (or an earlier one).
    std::vector<CpuStream*> complete(uint64_t generation);
    bool isComplete();
    // The generation a waiter must see complete, taken when the wait is enqueued.
    uint64_t recordedGeneration();
    // True when `generation` has completed; otherwise `waiter` is kept and
    // returned by the `complete` that reaches the generation.
    bool hasCompletedOrKeep(uint64_t generation, CpuStream* waiter);
    // Blocks the calling thread until `generation` has completed.
    void awaitCompletion(uint64_t generation);

  private:
    std::mutex mutex;
    std::condition_variable completion;  // callers blocked in awaitCompletion
    uint64_t recorded = 0;
    uint64_t completed = 0;
    std::vector<std::pair<CpuStream*, uint64_t>> waiters;
};

class CpuStream {
  public:
    CpuStream() = default;
    CpuStream(const CpuStream&) = delete;
    CpuStream& operator=(const CpuStream&) = delete;

    void enqueue(std::function<void()> work);
    // Holds the stream's later work until `event` has completed `generation`.
    void enqueueWait(std::shared_ptr<CpuEvent> event, uint64_t generation);
    // Completes `generation` of `event` when the stream gets there.
    void enqueueRecord(std::shared_ptr<CpuEvent> event, uint64_t generation);

  private:
    friend class CpuWorkerPool;
    enum class Kind { Work, Wait, Record };
    struct Entry {
        Kind kind = Kind::Work;
        std::function<void()> work;
        std::shared_ptr<CpuEvent> event;
        uint64_t generation = 0;
    };
    // What the stream can do once the waits at its head are passed.
    enum class State { Idle, Ready, Blocked };

    // Guards the members below; taken before an event's mutex, never with the pool's.
    std::mutex mutex;
    std::deque<Entry> queue;
    bool scheduled = false;        // ready, running or blocked: the pool has it
    uint64_t enqueued = 0;         // entries ever enqueued
    uint64_t finished = 0;         // entries ever run or passed
    uint64_t wakeAt = UINT64_MAX;  // a caller waits until `finished` reaches this
};

}  // namespace tarnel
