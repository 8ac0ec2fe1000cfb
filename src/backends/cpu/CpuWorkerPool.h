// The worker threads that run the CPU streams of every module and backend of
// the process, and share the large kernel launches among themselves.
//
// The pool has a fixed number of threads (the machine's cores unless set
// otherwise), started with the first stream; creating and destroying streams,
// and so modules, costs no threads. Streams that have work wait in one FIFO
// queue of ready streams, so a module with a long queue does not starve
// the others: a worker keeps a stream for up to kStreamSlice, then puts it
// back at the end of the queue when others are waiting.
//
// A worker that completes an event goes straight on with a stream that
// waited for it (the next block calculation of the same module, whose data
// is in its caches), and hands the rest of its own stream to the next free
// worker. A worker without a stream polls briefly for a new ready stream or a
// shared launch (CpuKernelPool.h) to join, then sleeps.
//
// Locks: the pool's mutex guards the ready queue and the sleeping workers; a
// stream's mutex guards its queue; the two are never held together. The
// pool's mutex is taken only when a stream changes hands, not per entry.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "backends/cpu/CpuStream.h"

namespace tarnel {

// How long a worker keeps one stream while other streams are ready.
constexpr std::chrono::microseconds kStreamSlice{1000};
// How long an idle worker polls for work before it sleeps.
constexpr std::chrono::microseconds kIdlePollTime{20};
// At most this many idle workers poll (and so join shared launches at once).
constexpr int kMaxPollingWorkers = 3;

class CpuWorkerPool {
  public:
    // Never destroyed: workers may still run while statics go.
    static CpuWorkerPool& instance();

    // Sets the number of worker threads (at least 1); takes effect at once
    // when the workers run. Not to be called from work running on a stream.
    void setThreadCount(int count);
    int threadCount();
    // Starts the workers if they do not run yet.
    void start();

    void add(CpuStream& stream, CpuStream::Entry entry);
    // Hands streams that waited for a completed event back to the pool.
    void resume(const std::vector<CpuStream*>& streams);
    // Blocks until every stream has run what was enqueued on it before the call.
    void awaitFinished(const std::vector<std::shared_ptr<CpuStream>>& streams);
    // Wakes sleeping workers to join a shared launch just published.
    void wakeForLaunch();

  private:
    CpuWorkerPool();
    void startLocked();
    void serve(int index);
    void run(CpuStream* stream);
    CpuStream::State runEntry(CpuStream& stream, CpuStream*& released);
    void awaitWork(std::unique_lock<std::mutex>& lock, int index, unsigned long long& seenLaunch);
    bool pollForWork(unsigned long long& seenLaunch);
    // Passes completed waits at the head of a scheduled stream's queue, after
    // counting `justRun` entries as finished, and tells what it can do; a
    // stream left blocked is with its event's waiters, an idle one leaves the pool.
    CpuStream::State settle(CpuStream& stream, int justRun);
    void makeReady(CpuStream& stream, bool atFront);

    std::mutex mutex;
    std::condition_variable wake;  // sleeping workers: a stream is ready, a launch or resize happened
    std::deque<CpuStream*> readyStreams;
    std::atomic<int> readyCount{0};  // readyStreams.size(), read by polling workers
    std::vector<std::thread> threads;
    int targetThreads;
    bool started = false;
    int pollingWorkers = 0;
    std::atomic<int> sleepingWorkers{0};

    std::mutex finishMutex;           // taken before a stream's mutex
    std::condition_variable changed;  // callers in awaitFinished: a stream got where they wait for
};

}  // namespace tarnel
