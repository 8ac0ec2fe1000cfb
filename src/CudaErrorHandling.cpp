#include "tarnel/CudaErrorHandling.h"

#if defined(TARNEL_WITH_CUDA)
#include "backends/cuda/CudaBackend.h"
#endif

namespace tarnel {

GpuException::~GpuException() = default;

#if !defined(TARNEL_WITH_CUDA)
namespace {

// The texts the CUDA runtime gives for the codes the CPU backend raises (it
// raises the same codes for the same conditions), for builds without CUDA.
const char* cpuBuildErrorText(int code) {
    switch (code) {
        case 0:
            return "no error";
        case 1:
            return "invalid argument";
        case 2:
            return "out of memory";
        case 3:
            return "initialization error";
        case 4:
            return "driver shutting down";
        case 35:
            return "CUDA driver version is insufficient for CUDA runtime version";
        case 100:
            return "no CUDA-capable device is detected";
        case 101:
            return "invalid device ordinal";
        case 209:
            return "no kernel image is available for execution on the device";
        case 400:
            return "invalid resource handle";
        case 600:
            return "device not ready";
        case 700:
            return "an illegal memory access was encountered";
        case 719:
            return "unspecified launch failure";
        case 999:
            return "unknown error";
        default:
            return "unrecognized error code";
    }
}

}  // namespace
#endif

const char* deviceErrorString(int code) {
#if defined(TARNEL_WITH_CUDA)
    // The runtime knows every code a device can raise, and needs no device for the text.
    return cudaRuntimeErrorText(code);
#else
    return cpuBuildErrorText(code);
#endif
}

const char* cufftErrorText(int result) {
    switch (result) {
        case 0:
            return "CUFFT_SUCCESS";
        case 1:
            return "Invalid plan";
        case 2:
            return "Alloc failed";
        case 3:
            return "Invalid type";
        case 4:
            return "Invalid value";
        case 5:
            return "Internal error";
        case 6:
            return "cufft exec failed";
        case 7:
            return "cufft setup failed";
        case 8:
            return "Invalid size";
        case 9:
            return "Unaligned data";
        case 11:
            return "Invalid device";
        case 13:
            return "No workspace";
        case 14:
            return "Not implemented";
        case 16:
            return "Not supported";
        default:
            return "<unknown>";
    }
}

void throwDeviceError(int code, const char* file, int line) {
    throw GpuException("CUDA error in file '" + std::string(file) + "', line " + std::to_string(line) + "; error " +
                       std::to_string(code) + ": " + deviceErrorString(code));
}

void throwCufftError(int result, const char* file, int line) {
    throw GpuException("CUFFT error in file '" + std::string(file) + "', line " + std::to_string(line) + "; error " +
                       std::to_string(result) + ": " + cufftErrorText(result));
}

void CUFFT_CALL(int result) { checkCufftResult(result); }

}  // namespace tarnel
