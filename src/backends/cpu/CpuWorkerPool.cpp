#include "backends/cpu/CpuWorkerPool.h"

#include <algorithm>

#include "backends/cpu/CpuKernelPool.h"

namespace tarnel {

namespace {

int defaultThreadCount() {
    const unsigned cores = std::thread::hardware_concurrency();
    return cores > 0 ? static_cast<int>(cores) : 1;
}

}  // namespace

CpuWorkerPool& CpuWorkerPool::instance() {
    static CpuWorkerPool* pool = new CpuWorkerPool;
    return *pool;
}

CpuWorkerPool::CpuWorkerPool() : targetThreads(defaultThreadCount()) {}

int CpuWorkerPool::threadCount() {
    std::lock_guard<std::mutex> lock(mutex);
    return targetThreads;
}

void CpuWorkerPool::start() {
    std::lock_guard<std::mutex> lock(mutex);
    startLocked();
}

void CpuWorkerPool::startLocked() {
    started = true;
    while (static_cast<int>(threads.size()) < targetThreads) {
        const int index = static_cast<int>(threads.size());
        threads.emplace_back([this, index] { serve(index); });
    }
}

// Workers beyond the new count leave after the slice they are running; they
// are joined here, so that the process has exactly the new count afterwards.
void CpuWorkerPool::setThreadCount(int count) {
    std::vector<std::thread> leaving;
    {
        std::lock_guard<std::mutex> lock(mutex);
        targetThreads = std::max(count, 1);
        if (started) startLocked();
        while (static_cast<int>(threads.size()) > targetThreads) {
            leaving.push_back(std::move(threads.back()));
            threads.pop_back();
        }
    }
    wake.notify_all();
    for (auto& thread : leaving) thread.join();
}

void CpuWorkerPool::add(CpuStream& stream, CpuStream::Entry entry) {
    bool activate = false;
    {
        std::lock_guard<std::mutex> lock(stream.mutex);
        stream.queue.push_back(std::move(entry));
        ++stream.enqueued;
        activate = !stream.scheduled;
        stream.scheduled = true;
    }
    if (activate && settle(stream, 0) == CpuStream::State::Ready) makeReady(stream, false);
}

void CpuWorkerPool::resume(const std::vector<CpuStream*>& streams) {
    for (CpuStream* stream : streams) {
        if (settle(*stream, 0) == CpuStream::State::Ready) makeReady(*stream, false);
    }
}

// Each unfinished stream is marked with the count it must reach, so that a
// worker wakes the caller only then, not after every entry.
void CpuWorkerPool::awaitFinished(const std::vector<std::shared_ptr<CpuStream>>& streams) {
    std::unique_lock<std::mutex> lock(finishMutex);
    std::vector<uint64_t> targets;
    for (const auto& stream : streams) {
        std::lock_guard<std::mutex> streamLock(stream->mutex);
        targets.push_back(stream->enqueued);
    }
    changed.wait(lock, [&] {
        bool done = true;
        for (size_t s = 0; s < streams.size(); ++s) {
            std::lock_guard<std::mutex> streamLock(streams[s]->mutex);
            if (streams[s]->finished >= targets[s]) continue;
            streams[s]->wakeAt = std::min(streams[s]->wakeAt, targets[s]);
            done = false;
        }
        return done;
    });
}

// Paired with a sleeping worker's count and check of the launch generation,
// in the opposite order: either the worker sees the new launch or the
// publisher sees it asleep.
void CpuWorkerPool::wakeForLaunch() {
    const int sleeping = sleepingWorkers.load(std::memory_order_seq_cst);
    if (sleeping == 0) return;
    std::lock_guard<std::mutex> lock(mutex);
    for (int w = std::min(sleeping, kMaxPollingWorkers); w > 0; --w) wake.notify_one();
}

CpuStream::State CpuWorkerPool::settle(CpuStream& stream, int justRun) {
    CpuStream::State state = CpuStream::State::Ready;
    bool reached = false;
    {
        std::lock_guard<std::mutex> lock(stream.mutex);
        stream.finished += static_cast<uint64_t>(justRun);
        while (!stream.queue.empty() && stream.queue.front().kind == CpuStream::Kind::Wait) {
            CpuStream::Entry& wait = stream.queue.front();
            if (!wait.event->hasCompletedOrKeep(wait.generation, &stream)) {
                state = CpuStream::State::Blocked;
                break;
            }
            stream.queue.pop_front();
            ++stream.finished;
        }
        if (stream.queue.empty()) {
            state = CpuStream::State::Idle;
            stream.scheduled = false;
        }
        if (stream.finished >= stream.wakeAt) {
            stream.wakeAt = UINT64_MAX;  // the callers woken mark again what they still wait for
            reached = true;
        }
    }
    if (reached) {
        // Taking the lock orders this after a caller's check of the count.
        std::lock_guard<std::mutex> lock(finishMutex);
        changed.notify_all();
    }
    return state;
}

void CpuWorkerPool::makeReady(CpuStream& stream, bool atFront) {
    std::lock_guard<std::mutex> lock(mutex);
    if (atFront) {
        readyStreams.push_front(&stream);
    } else {
        readyStreams.push_back(&stream);
    }
    readyCount.store(static_cast<int>(readyStreams.size()), std::memory_order_release);
    // A polling worker finds the stream by itself.
    if (pollingWorkers == 0 && sleepingWorkers.load(std::memory_order_relaxed) > 0) wake.notify_one();
}

void CpuWorkerPool::serve(int index) {
    std::unique_lock<std::mutex> lock(mutex);
    unsigned long long seenLaunch = CpuKernelPool::instance().generation();
    for (;;) {
        // A worker beyond a reduced count leaves even while streams are ready,
        // so that the reduction does not wait for a quiet moment.
        if (index >= targetThreads) {
            if (!readyStreams.empty()) wake.notify_one();
            return;
        }
        if (!readyStreams.empty()) {
            CpuStream* stream = readyStreams.front();
            readyStreams.pop_front();
            readyCount.store(static_cast<int>(readyStreams.size()), std::memory_order_release);
            if (!readyStreams.empty() && pollingWorkers == 0 && sleepingWorkers.load(std::memory_order_relaxed) > 0)
                wake.notify_one();
            lock.unlock();
            run(stream);
            lock.lock();
            continue;
        }
        awaitWork(lock, index, seenLaunch);
    }
}

// Runs the stream's entries for up to a slice. After an event's completion
// the worker moves on to a stream that waited for it, within the same slice:
// a module whose calculations follow each other does not keep the worker
// past it while other modules wait.
void CpuWorkerPool::run(CpuStream* stream) {
    const auto sliceEnd = std::chrono::steady_clock::now() + kStreamSlice;
    for (;;) {
        CpuStream* released = nullptr;
        const CpuStream::State state = runEntry(*stream, released);
        const bool sliceOver =
            readyCount.load(std::memory_order_acquire) > 0 && std::chrono::steady_clock::now() > sliceEnd;
        if (released != nullptr && sliceOver) {
            makeReady(*released, false);
        } else if (released != nullptr) {
            if (state == CpuStream::State::Ready) makeReady(*stream, true);
            stream = released;
            continue;
        }
        if (state != CpuStream::State::Ready) return;
        if (sliceOver) {
            makeReady(*stream, false);
            return;
        }
    }
}

// Runs the stream's next entry; returns what the stream can do next.
// `released` receives one stream that the entry's event let go on and that
// is ready to run; the others go to the ready queue.
CpuStream::State CpuWorkerPool::runEntry(CpuStream& stream, CpuStream*& released) {
    CpuStream::Entry entry;
    {
        std::lock_guard<std::mutex> lock(stream.mutex);
        entry = std::move(stream.queue.front());
        stream.queue.pop_front();
    }
    std::vector<CpuStream*> waiters;
    if (entry.kind == CpuStream::Kind::Record) {
        waiters = entry.event->complete(entry.generation);
    } else {
        entry.work();
    }
    entry = CpuStream::Entry{};  // releases the work's captures before the stream may be destroyed
    const CpuStream::State state = settle(stream, 1);
    for (CpuStream* waiter : waiters) {
        if (settle(*waiter, 0) != CpuStream::State::Ready) continue;
        if (released == nullptr) {
            released = waiter;
        } else {
            makeReady(*waiter, false);
        }
    }
    return state;
}

// Polls for a ready stream or a shared launch for a while (when fewer than
// kMaxPollingWorkers already poll), then sleeps until either comes.
void CpuWorkerPool::awaitWork(std::unique_lock<std::mutex>& lock, int index, unsigned long long& seenLaunch) {
    CpuKernelPool& launches = CpuKernelPool::instance();
    if (pollingWorkers < std::min(kMaxPollingWorkers, targetThreads - 1)) {
        ++pollingWorkers;
        lock.unlock();
        const bool found = pollForWork(seenLaunch);
        lock.lock();
        --pollingWorkers;
        if (found) return;
    }
    sleepingWorkers.fetch_add(1, std::memory_order_seq_cst);
    wake.wait(lock,
              [&] { return !readyStreams.empty() || launches.generation() != seenLaunch || index >= targetThreads; });
    sleepingWorkers.fetch_sub(1, std::memory_order_relaxed);
    if (readyStreams.empty() && launches.generation() != seenLaunch) {
        lock.unlock();
        launches.help(seenLaunch);
        lock.lock();
    }
}

// Returns true when a stream became ready; joins the launches published meanwhile.
bool CpuWorkerPool::pollForWork(unsigned long long& seenLaunch) {
    CpuKernelPool& launches = CpuKernelPool::instance();
    auto pollUntil = std::chrono::steady_clock::now() + kIdlePollTime;
    for (unsigned spins = 1;; ++spins) {
        if (readyCount.load(std::memory_order_acquire) > 0) return true;
        if (launches.help(seenLaunch)) {
            pollUntil = std::chrono::steady_clock::now() + kIdlePollTime;
            continue;
        }
        cpuPause();
        if (spins % 16 == 0 && std::chrono::steady_clock::now() > pollUntil) return false;
    }
}

}  // namespace tarnel
