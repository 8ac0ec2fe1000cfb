// Two-component vector types shared with CUDA. When the CUDA headers are on the
// include path their definitions are used; otherwise layout-identical ones.
#pragma once

#if defined(__has_include)
#if __has_include(<vector_types.h>)
#include <vector_types.h>
#define TARNEL_HAVE_CUDA_VECTOR_TYPES 1
#endif
#endif

#if !defined(TARNEL_HAVE_CUDA_VECTOR_TYPES)
struct alignas(8) float2 {
    float x;
    float y;
};
struct alignas(16) double2 {
    double x;
    double y;
};
#endif
