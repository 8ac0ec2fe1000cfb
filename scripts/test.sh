#!/usr/bin/env bash
# Builds the library with every warning an error and runs the whole test suite,
# then runs it again under the address/undefined-behaviour and thread sanitizers.
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
PIP_BREAK_SYSTEM_PACKAGES=1 python3 -m pip install -q --no-build-isolation -C cmake.define.TARNEL_CUDA_ARCHITECTURES="$arch" ./python
python3 -m pytest -q python/tests

for sanitizer in "address,undefined" thread; do
    dir="build-${sanitizer//,/-}"
    cmake -S . -B "$dir" -DCMAKE_BUILD_TYPE=Debug -DTARNEL_WITH_CUDA=OFF -DTARNEL_BUILD_BENCHMARKS=OFF \
        -DTARNEL_WARNINGS_AS_ERRORS=ON -DTARNEL_SANITIZE="$sanitizer"
    cmake --build "$dir" -j"$jobs"
    UBSAN_OPTIONS=halt_on_error=1:print_stacktrace=1 TSAN_OPTIONS=halt_on_error=1 \
        ctest --test-dir "$dir" --output-on-failure -j"$jobs"
done
