// The CPU backend: device memory is separate host memory that only the copies
// reach, streams run on the process-wide pool of worker threads, events
// complete when their stream reaches them, FFTs run through FFTW, kernels run
// as loops. The null stream is the synchronous default stream: its work runs
// on the calling thread before the call returns.
#pragma once

#include <atomic>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <vector>

#include "backends/cpu/CpuStream.h"
#include "device/Backend.h"

namespace tarnel {

class CpuBackend final : public Backend {
  public:
    explicit CpuBackend(const BackendOptions& options);
    ~CpuBackend() override;

    BackendKind kind() const override { return BackendKind::Cpu; }
    bool prefersWindowTable() const override { return true; }

    int allocateDevice(void** pointer, size_t bytes) override;
    int freeDevice(void* pointer) override;
    int allocatePinnedHost(void** pointer, size_t bytes) override;
    int freePinnedHost(void* pointer) override;
    int copyAsync(void* destination, const void* source, size_t bytes, CopyDirection direction,
                  DeviceStream stream) override;
    int memsetAsync(void* destination, int value, size_t bytes, DeviceStream stream) override;
    int memset2DAsync(void* destination, size_t pitchBytes, int value, size_t widthBytes, size_t height,
                      DeviceStream stream) override;

    int createStream(DeviceStream* stream) override;
    int destroyStream(DeviceStream stream) override;
    int createEvent(DeviceEvent* event) override;
    int destroyEvent(DeviceEvent event) override;
    int recordEvent(DeviceEvent event, DeviceStream stream) override;
    int queryEvent(DeviceEvent event) override;
    int streamWaitEvent(DeviceStream stream, DeviceEvent event) override;
    int synchronizeDevice() override;
    int peekAtLastError() override { return lastError.load(); }

    int createFftPlan(std::unique_ptr<FftPlan>* plan, int length, int batch) override;

#define TARNEL_DECLARE_CPU_LAUNCH(Kernel) \
    void launch(const Kernel& kernel, const LaunchShape& shape, DeviceStream stream) override;
    TARNEL_FOR_EACH_KERNEL(TARNEL_DECLARE_CPU_LAUNCH)
#undef TARNEL_DECLARE_CPU_LAUNCH

    // The stream behind a handle, or null when the handle is not a live stream.
    std::shared_ptr<CpuStream> streamOf(DeviceStream stream);
    // Enqueues work on a stream, or runs it at once for the null stream;
    // false when the handle is not a live stream.
    bool enqueue(DeviceStream stream, std::function<void()> work);

  private:
    const size_t capacity;
    const bool measureFftPlans;
    std::atomic<size_t> allocated{0};
    std::mutex deviceBlocksMutex;
    std::set<void*> deviceBlocks;
    std::atomic<int> lastError{0};
    std::mutex streamsMutex;
    std::map<CpuStream*, std::shared_ptr<CpuStream>> streams;
    // Events stay alive while work enqueued before their destruction still
    // refers to them, as CUDA defers the release of an event in use.
    std::mutex eventsMutex;
    std::map<CpuEvent*, std::shared_ptr<CpuEvent>> events;
    std::shared_ptr<CpuEvent> eventOf(DeviceEvent event);
    std::vector<std::shared_ptr<CpuStream>> liveStreams();
};

}  // namespace tarnel
