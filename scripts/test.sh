#!/usr/bin/env bash
# Builds the library with every warning an error and runs the whole test suite,
# then runs it again under the address/undefined-behaviour and thread sanitizers,
# then fuzzes the C interface and the recording readers briefly (with clang).
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

# The Python package, built against this tree, and its tests; no collected
# tests (pytest's exit code 5) fails the run as any other error does.
pip_install --no-build-isolation -C cmake.define.TARNEL_CUDA_ARCHITECTURES="$arch" .
python3 -m pytest -q -p no:cacheprovider python/tests

for sanitizer in "address,undefined" thread; do
    dir="build-${sanitizer//,/-}"
    cmake -S . -B "$dir" -DCMAKE_BUILD_TYPE=Debug -DTARNEL_WITH_CUDA=OFF -DTARNEL_BUILD_BENCHMARKS=OFF \
        -DTARNEL_WARNINGS_AS_ERRORS=ON -DTARNEL_SANITIZE="$sanitizer" -DTARNEL_CPU_FFT=kissfft
    cmake --build "$dir" -j"$jobs"
    UBSAN_OPTIONS=halt_on_error=1:print_stacktrace=1 TSAN_OPTIONS=halt_on_error=1 \
        ctest --test-dir "$dir" --output-on-failure -j"$jobs"
done

# The fuzz harnesses need clang and its fuzzer runtime; CMake skips them without.
if command -v clang++ >/dev/null 2>&1; then
    cmake -S . -B build-fuzz -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ -DCMAKE_BUILD_TYPE=RelWithDebInfo \
        -DTARNEL_WITH_CUDA=OFF -DTARNEL_BUILD_TESTS=OFF -DTARNEL_BUILD_BENCHMARKS=OFF -DTARNEL_BUILD_FUZZERS=ON \
        -DTARNEL_WARNINGS_AS_ERRORS=ON
    cmake --build build-fuzz -j"$jobs" --target tarnel_fuzzers
    ctest --test-dir build-fuzz --output-on-failure -j"$jobs"  # every seed once
    bash scripts/fuzz.sh build-fuzz "${TARNEL_FUZZ_SECONDS:-25}"
fi
