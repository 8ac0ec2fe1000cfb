// The one place where backends are chosen.
#include <memory>
#include <mutex>

#include "backends/cpu/CpuBackend.h"
#include "backends/cpu/CpuWorkerPool.h"
#include "device/Backend.h"
#include "tarnel/CudaErrorHandling.h"
#if defined(TARNEL_WITH_CUDA)
#include "backends/cuda/CudaBackend.h"
#endif

namespace tarnel {

namespace {

constexpr int kNoDevice = 100;  // "no CUDA-capable device is detected"

// Auto takes the CUDA backend only where it can run: a device, and the
// libraries it loads at run time.
bool probeCudaDevice() {
#if defined(TARNEL_WITH_CUDA)
    return cudaBackendHasDevice() && cudaBackendLibrariesLoad();
#else
    return false;
#endif
}

std::shared_ptr<Backend> cudaBackend() {
#if defined(TARNEL_WITH_CUDA)
    if (cudaBackendHasDevice()) {
        static std::shared_ptr<Backend> backend = createCudaBackend();
        return backend;
    }
#endif
    TARNEL_CUDA_CALL(kNoDevice);
    return nullptr;
}

bool isDefaultCpu(const BackendOptions& options) {
    return options.cpuDeviceMemoryCapacity == 0 && !options.cpuMeasureFftPlans;
}

std::shared_ptr<Backend> sharedCpuBackend() {
    static std::shared_ptr<Backend> backend = std::make_shared<CpuBackend>(BackendOptions{});
    return backend;
}

}  // namespace

bool isCudaDeviceAvailable() {
    static const bool available = probeCudaDevice();
    return available;
}

const char* backendName(BackendKind kind) {
    if (kind == BackendKind::Auto) kind = isCudaDeviceAvailable() ? BackendKind::Cuda : BackendKind::Cpu;
    return kind == BackendKind::Cuda ? "cuda" : "cpu";
}

std::shared_ptr<Backend> createBackend(const BackendOptions& options) {
    BackendKind kind = options.kind;
    if (kind == BackendKind::Auto) kind = isCudaDeviceAvailable() ? BackendKind::Cuda : BackendKind::Cpu;
    if (kind == BackendKind::Cuda) return cudaBackend();
    // A CPU backend with its own memory limit or planning effort is a device of
    // its own; the plain one is shared, like a CUDA device.
    if (isDefaultCpu(options)) return sharedCpuBackend();
    return std::make_shared<CpuBackend>(options);
}

void setCpuWorkerThreadCount(int count) { CpuWorkerPool::instance().setThreadCount(count); }

int cpuWorkerThreadCount() { return CpuWorkerPool::instance().threadCount(); }

std::shared_ptr<Backend> defaultBackend() { return createBackend(BackendOptions{}); }

}  // namespace tarnel
