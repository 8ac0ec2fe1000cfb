// The CPU backend's FFT: batched single-precision real-to-complex transforms
// by FFTW, with the same layout as the device transforms (input channels at
// stride N, output channels at stride N / 2 + 1).
#pragma once

#include <functional>
#include <memory>

#include "device/Backend.h"

namespace tarnel {

class CpuStream;

// Makes a plan; `measure` spends time at creation to find the fastest plan.
// Returns an FFT result code (0 on success).
int createFftwPlan(std::unique_ptr<FftPlan>* plan, int length, int batch, bool measure,
                   const std::function<std::shared_ptr<CpuStream>(DeviceStream)>& streamOf);

}  // namespace tarnel
