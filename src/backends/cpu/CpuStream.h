// CPU streams and events, with CUDA's rules: the work enqueued on a stream
// runs in order and asynchronously to the thread that enqueued it; an event
// completes when its stream reaches the point where it was recorded; a
// stream may wait for an event.
//
// The streams of a backend share its worker threads, one per stream: any
// worker runs the next work of any stream, one piece at a time per stream.
// A wait for an event holds its stream but no worker, so the worker that
// completes the event goes straight on with the work that waited for it. A
// block calculation that waits for its predecessor's event therefore starts
// on the thread that finished the predecessor, without waking a thread.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

namespace tarnel {

class CpuEvent {
  public:
    // Called on the recording thread; returns the generation to complete.
    uint64_t beginRecord();
    // Called by the stream once it reaches the recorded point.
    void complete(uint64_t generation);
    bool isComplete();
    // The generation a waiter must see complete, taken when the wait is enqueued.
    uint64_t recordedGeneration();
    bool hasCompleted(uint64_t generation);

  private:
    std::mutex mutex;
    uint64_t recorded = 0;
    uint64_t completed = 0;
};

class CpuStreamWorkers;

class CpuStream {
  public:
    explicit CpuStream(CpuStreamWorkers& workers_) : workers(workers_) {}
    CpuStream(const CpuStream&) = delete;
    CpuStream& operator=(const CpuStream&) = delete;

    void enqueue(std::function<void()> work);
    // Holds the stream's later work until `event` has completed `generation`.
    void enqueueWait(std::shared_ptr<CpuEvent> event, uint64_t generation);

  private:
    friend class CpuStreamWorkers;
    // Work to run, or a wait for an event's generation (no work).
    struct Entry {
        std::function<void()> work;
        std::shared_ptr<CpuEvent> event;
        uint64_t generation = 0;
    };
    CpuStreamWorkers& workers;
    // Guarded by the workers' mutex.
    std::deque<Entry> queue;
    bool running = false;
};

// The worker threads of a backend's streams.
class CpuStreamWorkers {
  public:
    CpuStreamWorkers() = default;
    // Runs what is still enqueued, then stops the workers.
    ~CpuStreamWorkers();
    CpuStreamWorkers(const CpuStreamWorkers&) = delete;
    CpuStreamWorkers& operator=(const CpuStreamWorkers&) = delete;

    // A new stream, with a worker of its own added to the pool.
    std::shared_ptr<CpuStream> createStream();
    // Waits until the stream has run its work, then forgets it.
    void retire(const std::shared_ptr<CpuStream>& stream);
    // Blocks until every stream has run everything enqueued so far.
    void waitAllIdle();

  private:
    friend class CpuStream;
    void add(CpuStream& stream, CpuStream::Entry entry);
    // The next stream whose first entry may run, searched round-robin after
    // the one last taken; null when none. Called with the mutex held.
    CpuStream* takeReadyStream();
    bool isReady(const CpuStream& stream) const;
    void serve();

    std::mutex mutex;
    std::condition_variable ready;    // workers: a stream may have become ready
    std::condition_variable changed;  // waiting callers: a stream may have become idle
    std::vector<std::shared_ptr<CpuStream>> streams;
    std::vector<std::thread> threads;
    size_t nextStream = 0;
    int idleWaiters = 0;
    bool stopping = false;
};

}  // namespace tarnel
