#!/usr/bin/env bash
# Builds the library with every warning an error and runs the whole test suite,
# then runs it again under the address/undefined-behaviour and thread sanitizers.
# The main build uses FFTW (and CUDA where nvcc is present; its tests also run
# with the CUDA libraries hidden); the sanitizer builds use KissFFT, so that
# both CPU FFTs are built and tested.
set -euo pipefail
cd "$(dirname "$0")/.."
source scripts/install-deps.sh
jobs=$(nproc)
# One GPU architecture keeps the CUDA build short; the default list builds all.
arch=${TARNEL_CUDA_ARCHITECTURES:-75}

cmake -S . -B build -DCMAKE_BUILD_TYPE=Release -DTARNEL_WARNINGS_AS_ERRORS=ON -DTARNEL_CUDA_ARCHITECTURES="$arch"
cmake --build build -j"$jobs"
ctest --test-dir build --output-on-failure -j"$jobs"

for sanitizer in "address,undefined" thread; do
    dir="build-${sanitizer//,/-}"
    cmake -S . -B "$dir" -DCMAKE_BUILD_TYPE=Debug -DTARNEL_WITH_CUDA=OFF -DTARNEL_BUILD_BENCHMARKS=OFF \
        -DTARNEL_WARNINGS_AS_ERRORS=ON -DTARNEL_SANITIZE="$sanitizer" -DTARNEL_CPU_FFT=kissfft
    cmake --build "$dir" -j"$jobs"
    UBSAN_OPTIONS=halt_on_error=1:print_stacktrace=1 TSAN_OPTIONS=halt_on_error=1 \
        ctest --test-dir "$dir" --output-on-failure -j"$jobs"
done
