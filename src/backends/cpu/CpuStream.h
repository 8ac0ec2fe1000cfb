// A CPU stream: a worker thread that runs the work enqueued on it in order,
// asynchronously to the thread that enqueued it, as a CUDA stream does.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>

namespace tarnel {

class CpuStream {
  public:
    CpuStream();
    ~CpuStream();
    CpuStream(const CpuStream&) = delete;
    CpuStream& operator=(const CpuStream&) = delete;

    void enqueue(std::function<void()> work);
    // Blocks until everything enqueued so far has run.
    void waitIdle();

  private:
    void run();

    std::mutex mutex;
    std::condition_variable changed;
    std::deque<std::function<void()>> queue;
    bool busy = false;
    bool stopping = false;
    std::thread worker;
};

// A CPU event: records mark a point in a stream's work; the event completes
// when the stream reaches the last recorded point.
class CpuEvent {
  public:
    // Called on the recording thread; returns the generation to complete.
    uint64_t beginRecord();
    // Called by the stream once it reaches the recorded point.
    void complete(uint64_t generation);
    bool isComplete();
    // The generation a waiter must see complete, taken when the wait is enqueued.
    uint64_t recordedGeneration();
    void waitFor(uint64_t generation);

  private:
    std::mutex mutex;
    std::condition_variable changed;
    uint64_t recorded = 0;
    uint64_t completed = 0;
};

}  // namespace tarnel
