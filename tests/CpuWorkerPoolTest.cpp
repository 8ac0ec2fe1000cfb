// The CPU streams of every module run on one process-wide pool of worker
// threads: modules cost no threads however many are created or destroyed,
// every module gets its turn, and the pool's size can be changed.
#include <dirent.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cmath>
#include <memory>
#include <thread>
#include <vector>

#include "TestSignals.h"
#include "backends/cpu/CpuBackend.h"
#include "tarnel/DeviceBackend.h"

using namespace tarnel;

namespace {

// Threads of this process, as the kernel lists them.
int threadCount() {
    DIR* tasks = opendir("/proc/self/task");
    if (tasks == nullptr) return -1;
    int count = 0;
    while (const dirent* entry = readdir(tasks)) count += entry->d_name[0] != '.';
    closedir(tasks);
    return count;
}

// Resident memory of this process in bytes.
long residentBytes() {
    FILE* statm = std::fopen("/proc/self/statm", "r");
    long pages = 0, resident = 0;
    if (statm == nullptr || std::fscanf(statm, "%ld %ld", &pages, &resident) != 2) resident = -1;
    if (statm != nullptr) std::fclose(statm);
    return resident * sysconf(_SC_PAGESIZE);
}

// The address sanitizer keeps freed memory in quarantine, so resident memory
// grows under it whatever the library does; its leak check covers that build.
#if defined(__SANITIZE_ADDRESS__)
constexpr bool kResidentMemoryTracksFrees = false;
#else
constexpr bool kResidentMemoryTracksFrees = true;
#endif

testsignals::ModuleSettings smallThreePhase() {
    testsignals::ModuleSettings settings;
    settings.grid = ThreePhaseStarThreeCurrents;
    settings.sampleRate = 6400.0;
    settings.bufferLength = 4096;
    return settings;
}

// A sine of 230 V RMS on every voltage, 10 A RMS on every current.
testsignals::MeasuredSignals sines() {
    const testsignals::Waveform u{{{1.0, 230.0 * std::sqrt(2.0), 0.0}}};
    const testsignals::Waveform i{{{1.0, 10.0 * std::sqrt(2.0), -30.0}}};
    return {testsignals::balancedPhases(u, 3), testsignals::balancedPhases(i, 3)};
}

// Restores the pool's size when a test that changed it ends.
class ThreadCountGuard {
  public:
    ~ThreadCountGuard() { tarnel::setCpuWorkerThreadCount(before); }

  private:
    int before = tarnel::cpuWorkerThreadCount();
};

}  // namespace

// 256 modules, on the shared backend and on backends of their own, each
// computing a block: the process has no more threads than before them, and
// every module's result is right.
TEST(CpuWorkerPoolTest, ManyModulesRunOnThePoolsThreads) {
    ASSERT_GT(threadCount(), 0) << "no /proc/self/task";
    { testsignals::Fixture warmUp(smallThreePhase(), BackendKind::Cpu); }  // starts the pool
    const int before = threadCount();
    const testsignals::ModuleSettings settings = smallThreePhase();
    const testsignals::MeasuredSignals signals = sines();
    std::vector<std::unique_ptr<testsignals::TestModule>> modules;
    for (int m = 0; m < 256; ++m) {
        const size_t ownBackend = m % 2 == 0 ? 0 : size_t{1} << 30;  // a capacity gives a backend of its own
        modules.push_back(std::make_unique<testsignals::TestModule>(BackendOptions{BackendKind::Cpu, ownBackend}));
        testsignals::configure(*modules.back(), settings, {});
        modules.back()->reset(0);
        testsignals::writeMeasured(*modules.back(), signals, 0, 1280, settings.frequency);
        modules.back()->scheduleForCalculation(0, 1280, settings.frequency);
    }
    EXPECT_LE(threadCount(), before);
    for (auto& module : modules) {
        module->sync();
        const std::vector<PowerResultsGeneral> results = module->getResults(0);
        ASSERT_EQ(results.size(), 1u);
        EXPECT_NEAR(results[0].phases[0].rmsU, 230.0, 0.05);
        EXPECT_NEAR(results[0].phases[2].rmsI, 10.0, 0.005);
    }
    EXPECT_LE(threadCount(), before);
}

// Creating and destroying 10 000 modules leaves the thread count and the
// resident memory where they were after the first thousand.
TEST(CpuWorkerPoolTest, ModuleChurnKeepsThreadsAndMemoryFlat) {
    auto churn = [](int count) {
        for (int m = 0; m < count; ++m) {
            const size_t ownBackend = m % 2 == 0 ? 0 : size_t{1} << 30;
            PowerModule module(BackendOptions{BackendKind::Cpu, ownBackend});
        }
    };
    churn(1000);
    const int threadsBefore = threadCount();
    const long memoryBefore = residentBytes();
    churn(9000);
    EXPECT_EQ(threadCount(), threadsBefore);
    if (kResidentMemoryTracksFrees) {
        EXPECT_LT(residentBytes() - memoryBefore, 2l << 20) << "more than 2 MiB over 9000 module lifetimes";
    }
}

// One worker, a stream with a long queue and a stream that gets one piece of
// work later: the later one runs after at most a few pieces of the long
// queue, not after all of them.
TEST(CpuWorkerPoolTest, AStreamWithALongQueueDoesNotStarveOthers) {
    ThreadCountGuard restore;
    tarnel::setCpuWorkerThreadCount(1);
    tarnel::CpuBackend backend(BackendOptions{BackendKind::Cpu, 0, false});
    tarnel::DeviceStream busy = nullptr, other = nullptr;
    ASSERT_EQ(backend.createStream(&busy), 0);
    ASSERT_EQ(backend.createStream(&other), 0);
    constexpr int kPieces = 200;
    std::atomic<int> piecesDone{0};
    for (int p = 0; p < kPieces; ++p) {
        backend.enqueue(busy, [&piecesDone] {
            std::this_thread::sleep_for(std::chrono::microseconds(500));
            piecesDone.fetch_add(1);
        });
    }
    while (piecesDone.load() == 0) std::this_thread::yield();
    std::atomic<int> piecesBeforeOther{-1};
    backend.enqueue(other, [&] { piecesBeforeOther = piecesDone.load(); });
    EXPECT_EQ(backend.synchronizeDevice(), 0);
    EXPECT_EQ(piecesDone.load(), kPieces);
    EXPECT_GE(piecesBeforeOther.load(), 1);
    EXPECT_LE(piecesBeforeOther.load(), 20) << "the other stream waited for the long queue";
    backend.destroyStream(busy);
    backend.destroyStream(other);
}

// The pool grows and shrinks to the count set, and modules compute with one worker.
TEST(CpuWorkerPoolTest, ThePoolTakesTheThreadCountItIsGiven) {
    ThreadCountGuard restore;
    { testsignals::Fixture warmUp(smallThreePhase(), BackendKind::Cpu); }
    const int workers = tarnel::cpuWorkerThreadCount();
    const int before = threadCount();
    tarnel::setCpuWorkerThreadCount(workers + 3);
    EXPECT_EQ(tarnel::cpuWorkerThreadCount(), workers + 3);
    EXPECT_EQ(threadCount(), before + 3);
    tarnel::setCpuWorkerThreadCount(1);
    EXPECT_EQ(threadCount(), before - workers + 1);
    tarnel::setCpuWorkerThreadCount(0);
    EXPECT_EQ(tarnel::cpuWorkerThreadCount(), 1) << "at least one worker";

    const testsignals::MeasuredSignals signals = sines();
    testsignals::Fixture f(smallThreePhase(), BackendKind::Cpu);
    for (uint64_t first = 0; first < 3 * 1280; first += 1280) {
        testsignals::writeMeasured(f.module, signals, first, 1280, 50.0);
        f.module.scheduleForCalculation(first, 1280, 50.0);
    }
    const std::vector<PowerResultsGeneral> results = f.collect();
    ASSERT_EQ(results.size(), 3u);
    for (const PowerResultsGeneral& r : results) EXPECT_NEAR(r.phases[1].rmsU, 230.0, 0.05);
}
