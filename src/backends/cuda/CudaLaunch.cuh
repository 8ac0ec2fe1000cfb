// Runs the kernels of the kernel list on the GPU: element kernels over a
// grid-stride loop, reduction kernels with warp shuffles, shared-memory and
// global atomic double additions.
#pragma once

#include <cuda_runtime.h>

#include "kernels/KernelSupport.h"

namespace tarnel {

// Double-precision atomic add. Native from compute capability 6.0; older
// devices use a 64-bit compare-and-swap loop.
__device__ inline double atomicAddLegacy(double* address, double value) {
    auto* bits = reinterpret_cast<unsigned long long*>(address);
    unsigned long long old = *bits;
    unsigned long long assumed;
    do {
        assumed = old;
        old = atomicCAS(bits, assumed, __double_as_longlong(value + __longlong_as_double(assumed)));
    } while (assumed != old);
    return __longlong_as_double(old);
}

__device__ inline double atomicAddDouble(double* address, double value) {
#if defined(__CUDA_ARCH__) && __CUDA_ARCH__ < 600
    return atomicAddLegacy(address, value);
#else
    return atomicAdd(address, value);
#endif
}

__device__ inline double warpSumDown(double value) {
    for (int offset = warpSize / 2; offset > 0; offset /= 2) value += __shfl_down_sync(0xffffffffu, value, offset);
    return value;
}

template <typename Kernel>
__global__ void runElementKernel(Kernel kernel) {
    const int row = static_cast<int>(threadIdx.y);
    const int extent = kernel.extent();
    const int stride = static_cast<int>(gridDim.x * blockDim.x);
    for (int x = static_cast<int>(blockIdx.x * blockDim.x + threadIdx.x); x < extent; x += stride) kernel(x, row);
}

template <typename Kernel>
__global__ void runReductionKernel(Kernel kernel) {
    constexpr int fields = Kernel::fieldCount;
    __shared__ double rowSums[kMaxKernelRows][fields];
    const int row = static_cast<int>(threadIdx.y);
    for (int f = static_cast<int>(threadIdx.x); f < fields; f += static_cast<int>(blockDim.x)) rowSums[row][f] = 0.0;
    __syncthreads();

    KernelSums<fields> sums{};
    const int extent = kernel.extent();
    const int stride = static_cast<int>(gridDim.x * blockDim.x);
    for (int x = static_cast<int>(blockIdx.x * blockDim.x + threadIdx.x); x < extent; x += stride)
        kernel.accumulate(sums, x, row);

    // Whole warps lie inside one row when the row width is a multiple of the
    // warp size; then lane 0 publishes the warp's sum, else every thread does.
    const bool wholeWarps = blockDim.x % warpSize == 0;
    for (int f = 0; f < fields; ++f) {
        double value = sums.value[f];
        if (wholeWarps) value = warpSumDown(value);
        if (!wholeWarps || threadIdx.x % warpSize == 0) atomicAddDouble(&rowSums[row][f], value);
    }
    __syncthreads();
    if (threadIdx.x == 0) {
        for (int f = 0; f < fields; ++f) {
            if (double* target = kernel.target(row, f)) atomicAddDouble(target, rowSums[row][f]);
        }
    }
}

template <typename Kernel>
void launchOnGpu(const Kernel& kernel, unsigned gridX, unsigned blockX, unsigned blockY, cudaStream_t stream) {
    const dim3 grid(gridX == 0 ? 1 : gridX);
    const dim3 block(blockX, blockY);
    if constexpr (Kernel::isReduction) {
        runReductionKernel<<<grid, block, 0, stream>>>(kernel);
    } else {
        runElementKernel<<<grid, block, 0, stream>>>(kernel);
    }
}

}  // namespace tarnel
