#include <cuda_runtime.h>
#include <cufft.h>

#include <string>

#include "backends/cuda/CudaBackend.h"
#include "backends/cuda/CudaLaunch.cuh"
#include "backends/cuda/CufftLibrary.h"
#include "kernels/AllKernels.h"
#include "tarnel/CudaErrorHandling.h"

namespace tarnel {

namespace {

cudaStream_t nativeStream(DeviceStream stream) { return reinterpret_cast<cudaStream_t>(stream); }
cudaEvent_t nativeEvent(DeviceEvent event) { return reinterpret_cast<cudaEvent_t>(event); }

class CufftPlan final : public FftPlan {
  public:
    CufftPlan(const CufftFunctions& cufft_, cufftHandle handle_) : cufft(cufft_), handle(handle_) {}
    ~CufftPlan() override { destroy(); }

    int execute(const float* input, float2* output, DeviceStream stream) override {
        const cufftResult set = cufft.setStream(handle, nativeStream(stream));
        if (set != CUFFT_SUCCESS) return static_cast<int>(set);
        return static_cast<int>(
            cufft.execR2C(handle, const_cast<cufftReal*>(input), reinterpret_cast<cufftComplex*>(output)));
    }

    int destroy() override {
        if (!live) return 0;
        live = false;
        return static_cast<int>(cufft.destroy(handle));
    }

  private:
    const CufftFunctions& cufft;
    cufftHandle handle;
    bool live = true;
};

class CudaBackend final : public Backend {
  public:
    explicit CudaBackend(const CufftFunctions& cufft_) : cufft(cufft_) {}

    BackendKind kind() const override { return BackendKind::Cuda; }
    bool prefersWindowTable() const override { return false; }

    int allocateDevice(void** pointer, size_t bytes) override { return cudaMalloc(pointer, bytes); }
    int freeDevice(void* pointer) override { return cudaFree(pointer); }
    int allocatePinnedHost(void** pointer, size_t bytes) override { return cudaHostAlloc(pointer, bytes, 0); }
    int freePinnedHost(void* pointer) override { return cudaFreeHost(pointer); }
    int copyAsync(void* destination, const void* source, size_t bytes, CopyDirection direction,
                  DeviceStream stream) override {
        const cudaMemcpyKind kind =
            direction == CopyDirection::HostToDevice ? cudaMemcpyHostToDevice : cudaMemcpyDeviceToHost;
        return cudaMemcpyAsync(destination, source, bytes, kind, nativeStream(stream));
    }
    int memsetAsync(void* destination, int value, size_t bytes, DeviceStream stream) override {
        return cudaMemsetAsync(destination, value, bytes, nativeStream(stream));
    }
    int memset2DAsync(void* destination, size_t pitchBytes, int value, size_t widthBytes, size_t height,
                      DeviceStream stream) override {
        return cudaMemset2DAsync(destination, pitchBytes, value, widthBytes, height, nativeStream(stream));
    }

    int createStream(DeviceStream* stream) override {
        cudaStream_t native = nullptr;
        const cudaError_t error = cudaStreamCreateWithFlags(&native, cudaStreamNonBlocking);
        *stream = reinterpret_cast<DeviceStream>(native);
        return error;
    }
    int destroyStream(DeviceStream stream) override { return cudaStreamDestroy(nativeStream(stream)); }
    int createEvent(DeviceEvent* event) override {
        cudaEvent_t native = nullptr;
        const cudaError_t error = cudaEventCreateWithFlags(&native, cudaEventDisableTiming);
        *event = reinterpret_cast<DeviceEvent>(native);
        return error;
    }
    int destroyEvent(DeviceEvent event) override { return cudaEventDestroy(nativeEvent(event)); }
    int recordEvent(DeviceEvent event, DeviceStream stream) override {
        return cudaEventRecord(nativeEvent(event), nativeStream(stream));
    }
    int queryEvent(DeviceEvent event) override { return cudaEventQuery(nativeEvent(event)); }
    int streamWaitEvent(DeviceStream stream, DeviceEvent event) override {
        return cudaStreamWaitEvent(nativeStream(stream), nativeEvent(event), 0);
    }
    int synchronizeDevice() override { return cudaDeviceSynchronize(); }
    int peekAtLastError() override { return cudaPeekAtLastError(); }

    int createFftPlan(std::unique_ptr<FftPlan>* plan, int length, int batch) override {
        cufftHandle handle = 0;
        cufftResult result = cufft.create(&handle);
        if (result != CUFFT_SUCCESS) return static_cast<int>(result);
        int n[1] = {length};
        int inembed[1] = {length};
        int onembed[1] = {length / 2 + 1};
        size_t workSize = 0;
        result = cufft.makePlanMany(handle, 1, n, inembed, 1, length, onembed, 1, length / 2 + 1, CUFFT_R2C, batch,
                                    &workSize);
        if (result != CUFFT_SUCCESS) {
            cufft.destroy(handle);
            return static_cast<int>(result);
        }
        *plan = std::make_unique<CufftPlan>(cufft, handle);
        return 0;
    }

#define TARNEL_DEFINE_CUDA_LAUNCH(Kernel)                                                       \
    void launch(const Kernel& kernel, const LaunchShape& shape, DeviceStream stream) override { \
        launchOnGpu(kernel, shape.gridX, shape.blockX, shape.blockY, nativeStream(stream));     \
    }
    TARNEL_FOR_EACH_KERNEL(TARNEL_DEFINE_CUDA_LAUNCH)
#undef TARNEL_DEFINE_CUDA_LAUNCH

  private:
    const CufftFunctions& cufft;
};

}  // namespace

bool cudaBackendHasDevice() {
    int count = 0;
    if (cudaGetDeviceCount(&count) != cudaSuccess) {
        cudaGetLastError();  // the failed probe must not look like a later launch error
        return false;
    }
    return count > 0;
}

bool cudaBackendLibrariesLoad() { return loadCufft(nullptr) != nullptr; }

std::shared_ptr<Backend> createCudaBackend() {
    std::string error;
    const CufftFunctions* cufft = loadCufft(&error);
    if (cufft == nullptr) throw GpuException("CUDA backend unavailable: " + error);
    return std::make_shared<CudaBackend>(*cufft);
}

const char* cudaRuntimeErrorText(int code) { return cudaGetErrorString(static_cast<cudaError_t>(code)); }

}  // namespace tarnel
