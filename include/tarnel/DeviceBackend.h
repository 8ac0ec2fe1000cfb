// Choosing where a module computes: on a CUDA device or on the CPU.
#pragma once

#include <cstddef>

#include "tarnel/Export.h"

namespace tarnel {

enum class BackendKind : int {
    Auto = 0,  // a CUDA device when one is present, the CPU otherwise
    Cpu = 1,
    Cuda = 2,
};

struct BackendOptions {
    BackendKind kind = BackendKind::Auto;
    // CPU backend: bytes of device memory it may hand out (0: no limit). A
    // request beyond it fails as a device allocation does ("out of memory").
    size_t cpuDeviceMemoryCapacity = 0;
    // CPU backend: measure FFT plans when they are made (slower rebuilds,
    // faster transforms) instead of estimating them.
    bool cpuMeasureFftPlans = false;
};

// True when the CUDA backend is built in, the runtime finds a device and the
// cuFFT library loads: what Auto needs to pick the CUDA backend.
TARNEL_API bool isCudaDeviceAvailable();
// "cpu" or "cuda"; Auto resolves to the backend Auto would pick now.
TARNEL_API const char* backendName(BackendKind kind);
// The worker threads that run the CPU streams of every module in the process:
// the machine's logical cores unless set. Setting it (at least 1) takes effect
// at once; call it from the application, not from a result callback.
TARNEL_API void setCpuWorkerThreadCount(int count);
TARNEL_API int cpuWorkerThreadCount();

}  // namespace tarnel

// Global aliases for code written against unqualified names (see README).
#if defined(TARNEL_GLOBAL_NAMES)
using tarnel::BackendKind;
using tarnel::BackendOptions;
#endif
