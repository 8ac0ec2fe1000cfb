// The CUDA backend, reached only through these functions so that builds
// without the CUDA toolkit simply leave it out.
#pragma once

#include <memory>

#include "device/Backend.h"

namespace tarnel {

// True when the runtime finds at least one usable device.
bool cudaBackendHasDevice();
// The backend for the current device; call only when cudaBackendHasDevice().
std::shared_ptr<Backend> createCudaBackend();
// The runtime's own text for an error code; needs no device.
const char* cudaRuntimeErrorText(int code);

}  // namespace tarnel
