// The CUDA backend, reached only through these functions so that builds
// without the CUDA toolkit simply leave it out.
#pragma once

#include <memory>

#include "device/Backend.h"

namespace tarnel {

// True when the runtime finds at least one usable device.
bool cudaBackendHasDevice();
// True when the libraries the backend loads at run time (cuFFT) are present.
bool cudaBackendLibrariesLoad();
// The backend for the current device; call only when cudaBackendHasDevice().
// Raises GpuException naming the library when cuFFT cannot be loaded.
std::shared_ptr<Backend> createCudaBackend();
// The runtime's own text for an error code; needs no device.
const char* cudaRuntimeErrorText(int code);

}  // namespace tarnel
