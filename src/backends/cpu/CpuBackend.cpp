#include "backends/cpu/CpuBackend.h"

#include <cstdlib>
#include <cstring>
#include <map>
#include <vector>

#include "backends/cpu/CpuFftPlan.h"
#include "backends/cpu/CpuKernelRunner.h"
#include "backends/cpu/CpuWorkerPool.h"
#include "kernels/AllKernels.h"

namespace tarnel {

namespace {

// CUDA error codes for the conditions the CPU backend can meet.
constexpr int kInvalidValue = 1;
constexpr int kMemoryAllocation = 2;
constexpr int kInvalidResourceHandle = 400;
constexpr int kNotReady = 600;

constexpr size_t kAlignment = 64;

// Device blocks carry their size just before the returned address, so that
// freeing gives the capacity back.
constexpr size_t kHeader = kAlignment;

}  // namespace

CpuBackend::CpuBackend(const BackendOptions& options)
    : capacity(options.cpuDeviceMemoryCapacity), measureFftPlans(options.cpuMeasureFftPlans) {}

CpuBackend::~CpuBackend() { synchronizeDevice(); }

int CpuBackend::allocateDevice(void** pointer, size_t bytes) {
    if (pointer == nullptr) return kInvalidValue;
    *pointer = nullptr;
    const size_t before = allocated.fetch_add(bytes);
    if (capacity != 0 && before + bytes > capacity) {
        allocated.fetch_sub(bytes);
        return kMemoryAllocation;
    }
    const size_t total = (bytes + kHeader + kAlignment - 1) / kAlignment * kAlignment;
    auto* block = static_cast<unsigned char*>(std::aligned_alloc(kAlignment, total));
    if (block == nullptr) {
        allocated.fetch_sub(bytes);
        return kMemoryAllocation;
    }
    std::memcpy(block, &bytes, sizeof(bytes));
    *pointer = block + kHeader;
    std::lock_guard<std::mutex> lock(deviceBlocksMutex);
    deviceBlocks.insert(*pointer);
    return 0;
}

int CpuBackend::freeDevice(void* pointer) {
    if (pointer == nullptr) return 0;
    // Like cudaFree, wait for the device first: queued work may still use the block.
    synchronizeDevice();
    {
        std::lock_guard<std::mutex> lock(deviceBlocksMutex);
        if (deviceBlocks.erase(pointer) == 0) return kInvalidValue;
    }
    auto* block = static_cast<unsigned char*>(pointer) - kHeader;
    size_t bytes = 0;
    std::memcpy(&bytes, block, sizeof(bytes));
    allocated.fetch_sub(bytes);
    std::free(block);
    return 0;
}

int CpuBackend::allocatePinnedHost(void** pointer, size_t bytes) {
    if (pointer == nullptr) return kInvalidValue;
    const size_t total = (bytes + kAlignment - 1) / kAlignment * kAlignment;
    *pointer = std::aligned_alloc(kAlignment, total == 0 ? kAlignment : total);
    return *pointer == nullptr ? kMemoryAllocation : 0;
}

int CpuBackend::freePinnedHost(void* pointer) {
    std::free(pointer);
    return 0;
}

std::shared_ptr<CpuStream> CpuBackend::streamOf(DeviceStream stream) {
    std::lock_guard<std::mutex> lock(streamsMutex);
    auto it = streams.find(reinterpret_cast<CpuStream*>(stream));
    return it != streams.end() ? it->second : nullptr;
}

bool CpuBackend::enqueue(DeviceStream stream, std::function<void()> work) {
    if (stream == nullptr) {
        work();
        return true;
    }
    auto cpuStream = streamOf(stream);
    if (cpuStream == nullptr) return false;
    cpuStream->enqueue(std::move(work));
    return true;
}

int CpuBackend::copyAsync(void* destination, const void* source, size_t bytes, CopyDirection, DeviceStream stream) {
    if (bytes == 0) return 0;
    if (destination == nullptr || source == nullptr) return kInvalidValue;
    return enqueue(stream, [=] { std::memcpy(destination, source, bytes); }) ? 0 : kInvalidResourceHandle;
}

int CpuBackend::memsetAsync(void* destination, int value, size_t bytes, DeviceStream stream) {
    if (bytes == 0) return 0;
    if (destination == nullptr) return kInvalidValue;
    return enqueue(stream, [=] { std::memset(destination, value, bytes); }) ? 0 : kInvalidResourceHandle;
}

int CpuBackend::memset2DAsync(void* destination, size_t pitchBytes, int value, size_t widthBytes, size_t height,
                              DeviceStream stream) {
    if (widthBytes == 0 || height == 0) return 0;
    if (destination == nullptr || widthBytes > pitchBytes) return kInvalidValue;
    auto* first = static_cast<unsigned char*>(destination);
    auto clearRows = [=] {
        for (size_t row = 0; row < height; ++row) std::memset(first + row * pitchBytes, value, widthBytes);
    };
    return enqueue(stream, clearRows) ? 0 : kInvalidResourceHandle;
}

int CpuBackend::createStream(DeviceStream* stream) {
    if (stream == nullptr) return kInvalidValue;
    auto cpuStream = std::make_shared<CpuStream>();
    CpuWorkerPool::instance().start();
    std::lock_guard<std::mutex> lock(streamsMutex);
    streams.emplace(cpuStream.get(), cpuStream);
    *stream = reinterpret_cast<DeviceStream>(cpuStream.get());
    return 0;
}

int CpuBackend::destroyStream(DeviceStream stream) {
    std::shared_ptr<CpuStream> cpuStream;
    {
        std::lock_guard<std::mutex> lock(streamsMutex);
        auto it = streams.find(reinterpret_cast<CpuStream*>(stream));
        if (it == streams.end()) return kInvalidResourceHandle;
        cpuStream = std::move(it->second);
        streams.erase(it);
    }
    // Work already enqueued still runs, as with CUDA; it finishes before the
    // caller goes on to release the memory that work uses.
    CpuWorkerPool::instance().awaitFinished({cpuStream});
    return 0;
}

std::shared_ptr<CpuEvent> CpuBackend::eventOf(DeviceEvent event) {
    std::lock_guard<std::mutex> lock(eventsMutex);
    auto it = events.find(reinterpret_cast<CpuEvent*>(event));
    return it != events.end() ? it->second : nullptr;
}

int CpuBackend::createEvent(DeviceEvent* event) {
    if (event == nullptr) return kInvalidValue;
    auto cpuEvent = std::make_shared<CpuEvent>();
    std::lock_guard<std::mutex> lock(eventsMutex);
    events.emplace(cpuEvent.get(), cpuEvent);
    *event = reinterpret_cast<DeviceEvent>(cpuEvent.get());
    return 0;
}

int CpuBackend::destroyEvent(DeviceEvent event) {
    std::lock_guard<std::mutex> lock(eventsMutex);
    return events.erase(reinterpret_cast<CpuEvent*>(event)) != 0 ? 0 : kInvalidResourceHandle;
}

int CpuBackend::recordEvent(DeviceEvent event, DeviceStream stream) {
    auto cpuEvent = eventOf(event);
    if (cpuEvent == nullptr) return kInvalidResourceHandle;
    if (stream == nullptr) {
        // Everything enqueued on the null stream has already run.
        CpuWorkerPool::instance().resume(cpuEvent->complete(cpuEvent->beginRecord()));
        return 0;
    }
    auto cpuStream = streamOf(stream);
    if (cpuStream == nullptr) return kInvalidResourceHandle;
    cpuStream->enqueueRecord(cpuEvent, cpuEvent->beginRecord());
    return 0;
}

int CpuBackend::queryEvent(DeviceEvent event) {
    auto cpuEvent = eventOf(event);
    if (cpuEvent == nullptr) return kInvalidResourceHandle;
    return cpuEvent->isComplete() ? 0 : kNotReady;
}

int CpuBackend::streamWaitEvent(DeviceStream stream, DeviceEvent event) {
    auto cpuEvent = eventOf(event);
    if (cpuEvent == nullptr) return kInvalidResourceHandle;
    if (stream == nullptr) {
        cpuEvent->awaitCompletion(cpuEvent->recordedGeneration());
        return 0;
    }
    auto cpuStream = streamOf(stream);
    if (cpuStream == nullptr) return kInvalidResourceHandle;
    cpuStream->enqueueWait(cpuEvent, cpuEvent->recordedGeneration());
    return 0;
}

std::vector<std::shared_ptr<CpuStream>> CpuBackend::liveStreams() {
    std::lock_guard<std::mutex> lock(streamsMutex);
    std::vector<std::shared_ptr<CpuStream>> live;
    for (const auto& entry : streams) live.push_back(entry.second);
    return live;
}

// Waits for what every stream of this backend had enqueued at the call, as
// device synchronisation does; streams of other backends are not waited for.
int CpuBackend::synchronizeDevice() {
    CpuWorkerPool::instance().awaitFinished(liveStreams());
    return 0;
}

int CpuBackend::createFftPlan(std::unique_ptr<FftPlan>* plan, int length, int batch) {
    return createCpuFftPlan(plan, length, batch, measureFftPlans,
                            [this](DeviceStream s, std::function<void()> work) { return enqueue(s, std::move(work)); });
}

#define TARNEL_DEFINE_CPU_LAUNCH(Kernel)                                                           \
    void CpuBackend::launch(const Kernel& kernel, const LaunchShape& shape, DeviceStream stream) { \
        const int rows = static_cast<int>(shape.blockY);                                           \
        if (!enqueue(stream, [kernel, rows] { runKernelOnCpu(kernel, rows); }))                    \
            lastError.store(kInvalidResourceHandle);                                               \
    }
TARNEL_FOR_EACH_KERNEL(TARNEL_DEFINE_CPU_LAUNCH)
#undef TARNEL_DEFINE_CPU_LAUNCH

}  // namespace tarnel
