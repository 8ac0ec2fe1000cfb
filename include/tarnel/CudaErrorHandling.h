// The two checks through which every device-runtime and FFT call passes. A
// failure becomes a GpuException whose one-line message names the source file
// (relative to the source tree), the line of the check, the code and its text.
#pragma once

#include <exception>
#include <string>

#include "tarnel/Export.h"

namespace tarnel {

class TARNEL_API GpuException : public std::exception {
  public:
    GpuException() = default;
    explicit GpuException(const char* text) : message(text) {}
    explicit GpuException(const std::string& text) : message(text) {}
    GpuException(const GpuException& other) = default;
    GpuException& operator=(const GpuException& other) = default;
    ~GpuException() override;
    const char* what() const noexcept override { return message.c_str(); }

  private:
    std::string message;
};

// Text of a device-runtime error code, the same text CUDA gives for it.
TARNEL_API const char* deviceErrorString(int code);
// Text of an FFT result code.
TARNEL_API const char* cufftErrorText(int result);

[[noreturn]] TARNEL_API void throwDeviceError(int code, const char* file, int line);
[[noreturn]] TARNEL_API void throwCufftError(int result, const char* file, int line);

inline void checkDeviceCall(int code, const char* file, int line) {
    if (code != 0) throwDeviceError(code, file, line);
}

// The FFT check itself: every FFT failure names this place.
inline void checkCufftResult(int result) {
    if (result != 0) throwCufftError(result, __FILE__, __LINE__);
}

// Checks the result of an FFT call.
TARNEL_API void CUFFT_CALL(int result);

}  // namespace tarnel

// Checks the result of a device-runtime call made at this place.
#define TARNEL_CUDA_CALL(call) ::tarnel::checkDeviceCall(static_cast<int>(call), __FILE__, __LINE__)

// Global aliases for code written against unqualified names (see README).
#if defined(TARNEL_GLOBAL_NAMES)
using tarnel::CUFFT_CALL;
using tarnel::GpuException;
#if !defined(CUDA_CALL)
#define CUDA_CALL(call) TARNEL_CUDA_CALL(call)
#endif
#endif
