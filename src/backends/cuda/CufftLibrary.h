// cuFFT, loaded at run time when the first CUDA backend is made. The library
// itself needs no cuFFT to load, so one build runs on machines with and
// without the CUDA libraries.
#pragma once

#include <cufft.h>

#include <string>

namespace tarnel {

// The cuFFT functions the CUDA backend calls.
struct CufftFunctions {
    decltype(&cufftCreate) create = nullptr;
    decltype(&cufftMakePlanMany) makePlanMany = nullptr;
    decltype(&cufftSetStream) setStream = nullptr;
    decltype(&cufftExecR2C) execR2C = nullptr;
    decltype(&cufftDestroy) destroy = nullptr;
};

// The cuFFT library of the toolkit the backend was built with, e.g. "libcufft.so.12".
const char* cufftLibraryName();

// The functions of `libraryName`, or null with `error` saying why it could not
// be loaded. The library stays loaded for the life of the process.
const CufftFunctions* loadCufftFrom(const char* libraryName, std::string* error);

// The functions of cuFFT, loaded on the first call; null (with `error`) when
// the library is missing.
const CufftFunctions* loadCufft(std::string* error);

}  // namespace tarnel
