#!/usr/bin/env bash
# Builds the library and the analyser, then analyses a recording (or, without
# arguments, the built-in synthetic recording) and prints the report.
set -euo pipefail
cd "$(dirname "$0")/.."
source scripts/install-deps.sh
cmake -S . -B build -DCMAKE_BUILD_TYPE=Release -DTARNEL_CUDA_ARCHITECTURES="${TARNEL_CUDA_ARCHITECTURES:-75}" >/dev/null
cmake --build build -j"$(nproc)" --target tarnel-analyse >/dev/null
exec ./build/tools/analyser/tarnel-analyse "$@"
