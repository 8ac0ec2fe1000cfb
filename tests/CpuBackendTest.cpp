// The CPU backend keeps CUDA's stream and event rules: work on one stream runs
// in order and asynchronously to the caller, events order streams, queries do
// not block, device synchronisation waits for every stream, and device memory
// is limited by the configured capacity. Launches shared with the helper
// threads give the same sums whoever runs their chunks.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstring>
#include <functional>
#include <future>
#include <memory>
#include <random>
#include <thread>
#include <vector>

#include "TestSignals.h"
#include "backends/cpu/CpuBackend.h"
#include "device/Backend.h"

using namespace tarnel;

namespace {

constexpr int kNotReady = 600;
constexpr int kOutOfMemory = 2;

// A backend of its own, with `capacity` bytes of device memory.
std::shared_ptr<tarnel::CpuBackend> privateBackend(size_t capacity) {
    return std::make_shared<tarnel::CpuBackend>(BackendOptions{BackendKind::Cpu, capacity, false});
}

struct Streams {
    std::shared_ptr<tarnel::CpuBackend> backend;
    std::vector<tarnel::DeviceStream> streams;
    Streams(std::shared_ptr<tarnel::CpuBackend> b, int count) : backend(std::move(b)), streams(count, nullptr) {
        for (auto& s : streams) EXPECT_EQ(backend->createStream(&s), 0);
    }
    ~Streams() {
        backend->synchronizeDevice();
        for (auto s : streams) backend->destroyStream(s);
    }
};

// Holds a stream at a point until opened, at the latest when the gate goes, so
// that a failed assertion cannot leave a stream blocked.
class Gate {
  public:
    std::function<void()> waiter() const {
        std::shared_future<void> f = opened;
        return [f] { f.wait(); };
    }
    void open() {
        if (!isOpen) promise.set_value();
        isOpen = true;
    }
    ~Gate() { open(); }

  private:
    std::promise<void> promise;
    std::shared_future<void> opened = promise.get_future().share();
    bool isOpen = false;
};

}  // namespace

// Stream A is held at a gate, then copies; B waits for A's event and copies on;
// C waits for B's event and copies on. Nothing downstream may run before the
// gate opens, queries read "not ready" meanwhile, and the data arrives intact.
TEST(CpuBackendTest, EventsOrderWorkAcrossThreeStreams) {
    const std::vector<int> source{1, 2, 3, 4, 5, 6, 7, 8};
    std::vector<int> first(8, 0), second(8, 0), third(8, 0);  // outlive the streams' work
    Streams s(privateBackend(1 << 20), 3);
    tarnel::CpuBackend& backend = *s.backend;
    tarnel::DeviceEvent afterA = nullptr, afterB = nullptr;
    ASSERT_EQ(backend.createEvent(&afterA), 0);
    ASSERT_EQ(backend.createEvent(&afterB), 0);

    Gate gate;
    ASSERT_TRUE(backend.enqueue(s.streams[0], gate.waiter()));
    const size_t bytes = source.size() * sizeof(int);
    ASSERT_EQ(backend.copyAsync(first.data(), source.data(), bytes, tarnel::CopyDirection::HostToDevice, s.streams[0]),
              0);
    ASSERT_EQ(backend.recordEvent(afterA, s.streams[0]), 0);
    ASSERT_EQ(backend.streamWaitEvent(s.streams[1], afterA), 0);
    ASSERT_EQ(backend.copyAsync(second.data(), first.data(), bytes, tarnel::CopyDirection::DeviceToHost, s.streams[1]),
              0);
    ASSERT_EQ(backend.recordEvent(afterB, s.streams[1]), 0);
    ASSERT_EQ(backend.streamWaitEvent(s.streams[2], afterB), 0);
    ASSERT_EQ(backend.copyAsync(third.data(), second.data(), bytes, tarnel::CopyDirection::DeviceToHost, s.streams[2]),
              0);

    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_EQ(backend.queryEvent(afterA), kNotReady);
    EXPECT_EQ(backend.queryEvent(afterB), kNotReady);
    EXPECT_EQ(second, std::vector<int>(8, 0)) << "stream B ran before A's event";
    EXPECT_EQ(third, std::vector<int>(8, 0)) << "stream C ran before B's event";

    gate.open();
    ASSERT_EQ(backend.synchronizeDevice(), 0);
    EXPECT_EQ(backend.queryEvent(afterA), 0);
    EXPECT_EQ(backend.queryEvent(afterB), 0);
    EXPECT_EQ(third, source);
    backend.destroyEvent(afterA);
    backend.destroyEvent(afterB);
}

// A wait takes the event's latest record at the time it is enqueued: a later
// record of the same event does not hold back a wait enqueued before it.
TEST(CpuBackendTest, WaitUsesTheRecordItWasEnqueuedAfter) {
    Streams s(privateBackend(1 << 20), 2);
    tarnel::CpuBackend& backend = *s.backend;
    tarnel::DeviceEvent event = nullptr;
    ASSERT_EQ(backend.createEvent(&event), 0);
    EXPECT_EQ(backend.queryEvent(event), 0) << "an event never recorded reads as complete";
    ASSERT_EQ(backend.recordEvent(event, s.streams[0]), 0);
    ASSERT_EQ(backend.synchronizeDevice(), 0);
    ASSERT_EQ(backend.streamWaitEvent(s.streams[1], event), 0);  // satisfied by the completed record

    Gate gate;
    ASSERT_TRUE(backend.enqueue(s.streams[0], gate.waiter()));
    ASSERT_EQ(backend.recordEvent(event, s.streams[0]), 0);
    std::promise<void> ran;
    std::future<void> done = ran.get_future();
    ASSERT_TRUE(backend.enqueue(s.streams[1], [&ran] { ran.set_value(); }));
    EXPECT_EQ(done.wait_for(std::chrono::seconds(5)), std::future_status::ready);
    EXPECT_EQ(backend.queryEvent(event), kNotReady);
    gate.open();
    ASSERT_EQ(backend.synchronizeDevice(), 0);
    EXPECT_EQ(backend.queryEvent(event), 0);
    backend.destroyEvent(event);
}

TEST(CpuBackendTest, DeviceSynchronisationWaitsForEveryStream) {
    Streams s(privateBackend(1 << 20), 3);
    std::atomic<int> finished{0};
    Gate gate;
    for (auto stream : s.streams) {
        ASSERT_TRUE(s.backend->enqueue(stream, gate.waiter()));
        for (int k = 0; k < 3; ++k) {
            ASSERT_TRUE(s.backend->enqueue(stream, [&finished] {
                std::this_thread::sleep_for(std::chrono::milliseconds(5));
                finished.fetch_add(1);
            }));
        }
    }
    EXPECT_EQ(finished.load(), 0) << "enqueueing must not run the work on the caller's thread";
    gate.open();
    ASSERT_EQ(s.backend->synchronizeDevice(), 0);
    EXPECT_EQ(finished.load(), 9);
}

TEST(CpuBackendTest, DeviceMemoryIsLimitedByTheCapacity) {
    auto backend = privateBackend(1000);
    void* a = nullptr;
    void* b = reinterpret_cast<void*>(1);
    ASSERT_EQ(backend->allocateDevice(&a, 600), 0);
    ASSERT_NE(a, nullptr);
    EXPECT_EQ(backend->allocateDevice(&b, 600), kOutOfMemory);
    EXPECT_EQ(b, nullptr) << "a failed allocation yields no pointer";
    void* c = nullptr;
    ASSERT_EQ(backend->allocateDevice(&c, 400), 0) << "the capacity itself can be used up exactly";
    ASSERT_EQ(backend->freeDevice(a), 0);
    ASSERT_EQ(backend->allocateDevice(&b, 600), 0) << "freeing gives the capacity back";
    EXPECT_EQ(backend->freeDevice(b), 0);
    EXPECT_EQ(backend->freeDevice(c), 0);
    EXPECT_NE(backend->freeDevice(c), 0) << "a pointer freed twice is refused";
}

// memsetAsync, memset2DAsync and copyAsync run on the stream, not at the call.
TEST(CpuBackendTest, MemsetAndCopyRunInStreamOrder) {
    std::vector<float> host(16, 7.0f), back(16, -1.0f);  // outlive the stream's work
    Streams s(privateBackend(1 << 20), 1);
    tarnel::CpuBackend& backend = *s.backend;
    void* device = nullptr;
    ASSERT_EQ(backend.allocateDevice(&device, 16 * sizeof(float)), 0);
    Gate gate;
    ASSERT_TRUE(backend.enqueue(s.streams[0], gate.waiter()));
    ASSERT_EQ(
        backend.copyAsync(device, host.data(), 16 * sizeof(float), tarnel::CopyDirection::HostToDevice, s.streams[0]),
        0);
    ASSERT_EQ(backend.memsetAsync(static_cast<float*>(device) + 4, 0, 8 * sizeof(float), s.streams[0]), 0);
    // Two rows of two floats, eight floats apart: [1, 3) and [9, 11).
    ASSERT_EQ(backend.memset2DAsync(static_cast<float*>(device) + 1, 8 * sizeof(float), 0, 2 * sizeof(float), 2,
                                    s.streams[0]),
              0);
    EXPECT_NE(backend.memset2DAsync(device, sizeof(float), 0, 2 * sizeof(float), 2, s.streams[0]), 0)
        << "rows wider than their pitch are refused";
    ASSERT_EQ(
        backend.copyAsync(back.data(), device, 16 * sizeof(float), tarnel::CopyDirection::DeviceToHost, s.streams[0]),
        0);
    EXPECT_EQ(back, std::vector<float>(16, -1.0f));
    gate.open();
    ASSERT_EQ(backend.synchronizeDevice(), 0);
    for (int k = 0; k < 16; ++k) EXPECT_EQ(back[k], (k >= 4 && k < 12) || k == 1 || k == 2 ? 0.0f : 7.0f) << k;
    EXPECT_EQ(backend.freeDevice(device), 0);
}

// The null stream is the synchronous default stream: its copies and
// transforms have run when the call returns, an event recorded on it is
// complete at once, and a wait on it holds the caller until the event's
// stream gets there.
TEST(CpuBackendTest, TheNullStreamRunsItsWorkBeforeTheCallReturns) {
    Streams s(privateBackend(1 << 20), 1);
    tarnel::CpuBackend& backend = *s.backend;
    void* device = nullptr;
    ASSERT_EQ(backend.allocateDevice(&device, 8 * sizeof(float) + 5 * sizeof(float2)), 0);
    const std::vector<float> host{1, 2, 3, 4, 5, 6, 7, 8};
    ASSERT_EQ(backend.copyAsync(device, host.data(), 8 * sizeof(float), tarnel::CopyDirection::HostToDevice, nullptr),
              0);
    std::unique_ptr<tarnel::FftPlan> plan;
    ASSERT_EQ(backend.createFftPlan(&plan, 8, 1), 0);
    auto* spectrum = reinterpret_cast<float2*>(static_cast<float*>(device) + 8);
    ASSERT_EQ(plan->execute(static_cast<float*>(device), spectrum, nullptr), 0);
    std::vector<float2> back(5);
    ASSERT_EQ(
        backend.copyAsync(back.data(), spectrum, 5 * sizeof(float2), tarnel::CopyDirection::DeviceToHost, nullptr), 0);
    EXPECT_FLOAT_EQ(back[0].x, 36.0f) << "the sum of the samples";
    EXPECT_FLOAT_EQ(back[4].x, -4.0f) << "the alternating sum of the samples";
    plan->destroy();

    tarnel::DeviceEvent onNull = nullptr, onStream = nullptr;
    ASSERT_EQ(backend.createEvent(&onNull), 0);
    ASSERT_EQ(backend.createEvent(&onStream), 0);
    Gate gate;
    ASSERT_TRUE(backend.enqueue(s.streams[0], gate.waiter()));
    ASSERT_EQ(backend.recordEvent(onStream, s.streams[0]), 0);
    std::future<int> nullWait =
        std::async(std::launch::async, [&] { return backend.streamWaitEvent(nullptr, onStream); });
    EXPECT_EQ(nullWait.wait_for(std::chrono::milliseconds(50)), std::future_status::timeout);
    gate.open();
    ASSERT_EQ(nullWait.wait_for(std::chrono::seconds(5)), std::future_status::ready);
    EXPECT_EQ(nullWait.get(), 0);

    Gate second;
    ASSERT_TRUE(backend.enqueue(s.streams[0], second.waiter()));
    ASSERT_EQ(backend.recordEvent(onNull, nullptr), 0);
    EXPECT_EQ(backend.queryEvent(onNull), 0) << "complete while another stream is held";
    second.open();
    ASSERT_EQ(backend.synchronizeDevice(), 0);
    backend.destroyEvent(onNull);
    backend.destroyEvent(onStream);
    EXPECT_EQ(backend.freeDevice(device), 0);
}

// The records of three 10-period blocks at 51.2 kHz, whose transforms and
// spectral sums are large enough to be shared with the helper threads.
std::vector<PowerResultsGeneral> sharedLaunchRecords(const testsignals::MeasuredSignals& signals) {
    testsignals::ModuleSettings settings;
    settings.grid = ThreePhaseStarThreeCurrents;
    settings.sampleRate = 51200.0;
    settings.bufferLength = 4 * 10240;
    settings.highestHarmonic = 50;
    settings.thdHighestHarmonic = 50;
    testsignals::Fixture f(settings, BackendKind::Cpu);
    for (int block = 0; block < 3; ++block) {
        const uint64_t first = static_cast<uint64_t>(block) * 10240;
        testsignals::writeMeasured(f.module, signals, first, 10240, settings.frequency);
        f.module.scheduleForCalculation(first, 10240, settings.frequency);
    }
    return f.collect();
}

// Whether two records hold the same values bit for bit; the addresses of the
// host arrays of harmonics and spectra at the end of each phase differ
// between modules and are left out.
bool sameValues(const PowerResultsGeneral& a, const PowerResultsGeneral& b) {
    auto bytesEqual = [](const void* x, const void* y, size_t n) { return std::memcmp(x, y, n) == 0; };
    bool same = bytesEqual(&a, &b, offsetof(PowerResultsGeneral, phases)) &&
                bytesEqual(&a.symmetricalComponents, &b.symmetricalComponents,
                           sizeof(PowerResultsGeneral) - offsetof(PowerResultsGeneral, symmetricalComponents));
    for (int p = 0; p < 4; ++p)
        same = same && bytesEqual(&a.phases[p], &b.phases[p], offsetof(PowerResultsPhase, fftU));
    return same;
}

// Only one launch at a time gets the helpers; the others run all their chunks
// on their own stream thread. Modules computing side by side must still give
// the records of a module computing alone, bit for bit.
TEST(CpuBackendTest, SharedLaunchesGiveTheSameRecordsWhoeverRunsTheirChunks) {
    std::mt19937 random(7);
    const testsignals::Waveform u = testsignals::randomWaveform(random, 325.0, 40);
    const testsignals::Waveform i = testsignals::randomWaveform(random, 14.0, 40);
    const testsignals::MeasuredSignals signals{testsignals::balancedPhases(u, 3), testsignals::balancedPhases(i, 3)};
    const std::vector<PowerResultsGeneral> alone = sharedLaunchRecords(signals);
    ASSERT_EQ(alone.size(), 3u);

    std::vector<std::vector<PowerResultsGeneral>> sideBySide(3);
    std::vector<std::thread> threads;
    for (auto& records : sideBySide)
        threads.emplace_back([&records, &signals] { records = sharedLaunchRecords(signals); });
    for (auto& t : threads) t.join();
    for (const auto& records : sideBySide) {
        ASSERT_EQ(records.size(), alone.size());
        for (size_t b = 0; b < alone.size(); ++b) EXPECT_TRUE(sameValues(records[b], alone[b])) << "block " << b;
    }
}
