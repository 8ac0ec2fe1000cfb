#!/usr/bin/env bash
# Builds the library and runs the main program.
set -euo pipefail
cd "$(dirname "$0")/.."
source scripts/install-deps.sh
cmake -S . -B build -DCMAKE_BUILD_TYPE=Release -DTARNEL_CUDA_ARCHITECTURES="${TARNEL_CUDA_ARCHITECTURES:-75}" >/dev/null
cmake --build build -j"$(nproc)" --target tarnel_example >/dev/null
./build/examples/tarnel_example "$@"
