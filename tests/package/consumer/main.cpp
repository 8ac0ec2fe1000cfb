// Builds a module from the installed headers and library; exits 0 when the
// module reports the default single-phase grid and the headers, the package
// and the library give the same version.
#include <string>

#include "tarnel/PowerModule.h"

static_assert(TARNEL_VERSION_MAJOR == PACKAGE_VERSION_MAJOR && TARNEL_VERSION_MINOR == PACKAGE_VERSION_MINOR &&
                  TARNEL_VERSION_PATCH == PACKAGE_VERSION_PATCH,
              "the headers and the CMake package differ in version");

int main() {
    const std::string headers = std::to_string(TARNEL_VERSION_MAJOR) + "." + std::to_string(TARNEL_VERSION_MINOR) +
                                "." + std::to_string(TARNEL_VERSION_PATCH);
    if (headers != tarnel_version()) return 1;
    PowerModule module(BackendKind::Cpu);
    return module.getPhasesCount() == 1 ? 0 : 1;
}
