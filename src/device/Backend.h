// The backend interface: everything the module needs from a compute device.
// The module's host code talks only to this interface; the CUDA backend maps
// it onto the CUDA runtime and cuFFT, the CPU backend onto host memory, worker
// threads and FFTW. Every call returns a CUDA error code (0 on success) that
// the caller checks with TARNEL_CUDA_CALL where the call is made.
#pragma once

#include <cstddef>
#include <memory>

#include "kernels/KernelList.h"
#include "tarnel/DeviceBackend.h"
#include "tarnel/VectorTypes.h"

struct CUstream_st;
struct CUevent_st;

namespace tarnel {

using DeviceStream = CUstream_st*;
using DeviceEvent = CUevent_st*;

enum class CopyDirection { HostToDevice = 1, DeviceToHost = 2 };

// Launch dimensions as the CUDA backend uses them; the CPU backend takes the
// channel rows (blockY) and runs every index of the kernel's extent.
struct LaunchShape {
    unsigned gridX = 1;
    unsigned blockX = 1;
    unsigned blockY = 1;
};

// One batched real-to-complex transform of `batch` channels of `length`
// samples (input at stride length, output at stride length / 2 + 1).
class FftPlan {
  public:
    virtual ~FftPlan() = default;
    // Enqueues the transform on `stream`; returns an FFT result code.
    virtual int execute(const float* input, float2* output, DeviceStream stream) = 0;
    // Releases the plan; returns an FFT result code. Called once before deletion.
    virtual int destroy() = 0;
};

class Backend {
  public:
    virtual ~Backend() = default;
    virtual BackendKind kind() const = 0;
    // Whether per-sample factors that depend only on the block length (the
    // window) are better read from a table kept across blocks than recomputed.
    virtual bool prefersWindowTable() const = 0;

    // Memory and copies.
    virtual int allocateDevice(void** pointer, size_t bytes) = 0;
    virtual int freeDevice(void* pointer) = 0;
    virtual int allocatePinnedHost(void** pointer, size_t bytes) = 0;
    virtual int freePinnedHost(void* pointer) = 0;
    virtual int copyAsync(void* destination, const void* source, size_t bytes, CopyDirection direction,
                          DeviceStream stream) = 0;
    virtual int memsetAsync(void* destination, int value, size_t bytes, DeviceStream stream) = 0;
    // `height` rows of `widthBytes` bytes, one every `pitchBytes` bytes.
    virtual int memset2DAsync(void* destination, size_t pitchBytes, int value, size_t widthBytes, size_t height,
                              DeviceStream stream) = 0;

    // Streams and events, with CUDA's ordering rules.
    virtual int createStream(DeviceStream* stream) = 0;
    virtual int destroyStream(DeviceStream stream) = 0;
    virtual int createEvent(DeviceEvent* event) = 0;
    virtual int destroyEvent(DeviceEvent event) = 0;
    virtual int recordEvent(DeviceEvent event, DeviceStream stream) = 0;
    // 0 when all work captured by the last record has completed, 600 otherwise.
    virtual int queryEvent(DeviceEvent event) = 0;
    virtual int streamWaitEvent(DeviceStream stream, DeviceEvent event) = 0;
    // Waits for every stream of the device.
    virtual int synchronizeDevice() = 0;
    // The first error of an earlier launch or asynchronous operation, if any.
    virtual int peekAtLastError() = 0;

    // FFT plans; returns an FFT result code.
    virtual int createFftPlan(std::unique_ptr<FftPlan>* plan, int length, int batch) = 0;

    // Kernel launches: one overload per kernel of the kernel list.
#define TARNEL_DECLARE_LAUNCH(Kernel) \
    virtual void launch(const Kernel& kernel, const LaunchShape& shape, DeviceStream stream) = 0;
    TARNEL_FOR_EACH_KERNEL(TARNEL_DECLARE_LAUNCH)
#undef TARNEL_DECLARE_LAUNCH
};

// The backend `options` ask for. Cuda without a usable device raises GpuException.
std::shared_ptr<Backend> createBackend(const BackendOptions& options);
// The process-wide backend that Auto picks: shared, so that device
// synchronisation covers every module on it, as on a CUDA device.
std::shared_ptr<Backend> defaultBackend();

}  // namespace tarnel
