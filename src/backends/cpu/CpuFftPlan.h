// The CPU backend's FFT: batched single-precision real-to-complex transforms
// with the same layout as the device transforms (input channels at stride N,
// output channels at stride N / 2 + 1). The library is a build choice:
// FftwPlan.cpp (FFTW) or KissFftPlan.cpp (KissFFT) defines the function below.
#pragma once

#include <functional>
#include <memory>

#include "device/Backend.h"

namespace tarnel {

// Enqueues work on a stream of the plan's backend; false for a handle that is not a stream.
using CpuEnqueue = std::function<bool(DeviceStream, std::function<void()>)>;

// Makes a plan; `measure` spends time at creation to find the fastest plan
// where the library can. Returns an FFT result code (0 on success).
int createCpuFftPlan(std::unique_ptr<FftPlan>* plan, int length, int batch, bool measure, const CpuEnqueue& enqueue);

}  // namespace tarnel
