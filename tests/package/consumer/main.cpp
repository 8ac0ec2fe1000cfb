// Builds a module from the installed headers and library; exits 0 when the
// module reports the default single-phase grid and the headers, the package
// and the library give the same version. The program has names of its own
// that the library's C++ API also uses (float2, GpuBuffer, SinglePhase): the
// API lives in namespace tarnel, so they do not clash.
#include <string>

#include "tarnel/CudaErrorHandling.h"
#include "tarnel/GpuBuffer.h"
#include "tarnel/PowerModule.h"
#include "tarnel/VectorTypes.h"
#include "tarnel/tarnel.h"

struct float2 {
    double re;
    double im;
};
template <typename T>
struct GpuBuffer {
    T value;
};
enum OwnGrid { SinglePhase = 42 };

static_assert(TARNEL_VERSION_MAJOR == PACKAGE_VERSION_MAJOR && TARNEL_VERSION_MINOR == PACKAGE_VERSION_MINOR &&
                  TARNEL_VERSION_PATCH == PACKAGE_VERSION_PATCH,
              "the headers and the CMake package differ in version");
static_assert(sizeof(float2) == 16 && sizeof(tarnel::float2) == 8 && alignof(tarnel::double2) == 16,
              "the program's float2 and the library's are different types");

// Written against the global names, in a file that opts in to them.
int phasesThroughGlobalNames();

int main() {
    const std::string headers = std::to_string(TARNEL_VERSION_MAJOR) + "." + std::to_string(TARNEL_VERSION_MINOR) +
                                "." + std::to_string(TARNEL_VERSION_PATCH);
    if (headers != tarnel_version()) return 1;
    const GpuBuffer<float2> own{{1.0, 2.0}};
    if (SinglePhase != 42 || own.value.im != 2.0) return 1;
    tarnel::PowerModule module(tarnel::BackendKind::Cpu);
    module.setGridConfigType(tarnel::SinglePhase);
    return module.getPhasesCount() == 1 && phasesThroughGlobalNames() == 1 ? 0 : 1;
}
