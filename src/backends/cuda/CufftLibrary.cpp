#include "backends/cuda/CufftLibrary.h"

#include <dlfcn.h>

#include <mutex>

namespace tarnel {

namespace {

#define TARNEL_STRINGIFY_VALUE(x) #x
#define TARNEL_STRINGIFY(x) TARNEL_STRINGIFY_VALUE(x)

template <typename Function>
bool resolve(void* library, const char* name, Function* function, std::string* error) {
    void* symbol = dlsym(library, name);
    if (symbol == nullptr) {
        *error = std::string("it has no function ") + name;
        return false;
    }
    *function = reinterpret_cast<Function>(symbol);
    return true;
}

bool resolveAll(void* library, CufftFunctions* functions, std::string* error) {
    return resolve(library, "cufftCreate", &functions->create, error) &&
           resolve(library, "cufftMakePlanMany", &functions->makePlanMany, error) &&
           resolve(library, "cufftSetStream", &functions->setStream, error) &&
           resolve(library, "cufftExecR2C", &functions->execR2C, error) &&
           resolve(library, "cufftDestroy", &functions->destroy, error);
}

}  // namespace

const char* cufftLibraryName() { return "libcufft.so." TARNEL_STRINGIFY(CUFFT_VER_MAJOR); }

const CufftFunctions* loadCufftFrom(const char* libraryName, std::string* error) {
    void* library = dlopen(libraryName, RTLD_NOW | RTLD_LOCAL);
    if (library == nullptr) {
        const char* reason = dlerror();
        *error = std::string("cannot load the cuFFT library ") + libraryName + ": " +
                 (reason != nullptr ? reason : "not found");
        return nullptr;
    }
    auto* functions = new CufftFunctions;  // kept with the library for the life of the process
    std::string missing;
    if (!resolveAll(library, functions, &missing)) {
        *error = std::string("cannot use the cuFFT library ") + libraryName + ": " + missing;
        delete functions;
        dlclose(library);
        return nullptr;
    }
    return functions;
}

const CufftFunctions* loadCufft(std::string* error) {
    // Loaded once; a failure is remembered with its reason.
    static std::once_flag once;
    static const CufftFunctions* functions = nullptr;
    static std::string failure;
    std::call_once(once, [] { functions = loadCufftFrom(cufftLibraryName(), &failure); });
    if (functions == nullptr && error != nullptr) *error = failure;
    return functions;
}

}  // namespace tarnel
