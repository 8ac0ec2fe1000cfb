// The two-component vector types of the public records (complex FFT bins and
// phasors: x real part, y imaginary part). Defined here, once, with the size
// and alignment of CUDA's types of the same names, whatever other headers are
// on the include path; CUDA code converts between the two by pointer casts.
#pragma once

namespace tarnel {

struct alignas(8) float2 {
    float x;
    float y;
};
struct alignas(16) double2 {
    double x;
    double y;
};

static_assert(sizeof(float2) == 8 && sizeof(double2) == 16, "vector type layout");

}  // namespace tarnel

// Global aliases for code written against unqualified names (see README).
#if defined(TARNEL_GLOBAL_NAMES)
using tarnel::double2;
using tarnel::float2;
#endif
