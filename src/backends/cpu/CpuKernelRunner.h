// Runs a kernel of the kernel list on the CPU: the same per-index code the GPU
// runs per thread, in loops over the launch's channel rows and the kernel's extent.
#pragma once

#include "kernels/KernelSupport.h"

namespace tarnel {

template <typename Kernel>
void runReductionOnCpu(const Kernel& kernel, int rows) {
    constexpr int fields = Kernel::fieldCount;
    const int extent = kernel.extent();
    for (int row = 0; row < rows; ++row) {
        KernelSums<fields> sums{};
        for (int x = 0; x < extent; ++x) kernel.accumulate(sums, x, row);
        for (int f = 0; f < fields; ++f) {
            if (double* target = kernel.target(row, f)) *target += sums.value[f];
        }
    }
}

template <typename Kernel>
void runElementsOnCpu(const Kernel& kernel, int rows) {
    const int extent = kernel.extent();
    for (int row = 0; row < rows; ++row) {
        for (int x = 0; x < extent; ++x) kernel(x, row);
    }
}

template <typename Kernel>
void runKernelOnCpu(const Kernel& kernel, int rows) {
    if constexpr (Kernel::isReduction) {
        runReductionOnCpu(kernel, rows);
    } else {
        runElementsOnCpu(kernel, rows);
    }
}

}  // namespace tarnel
