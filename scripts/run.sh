#!/usr/bin/env bash
# Builds the library and the analyser, then analyses a recording (or, without
# arguments, the built-in synthetic recording) and prints the report. Works
# from any folder: recording paths and output files (--json, --csv) are taken
# relative to the folder it is called from; the build lives in the
# repository's build folder.
set -euo pipefail
root="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
analyser="$root/build/tools/analyser/tarnel-analyse"
log="$root/build/run-build.log"
(
    cd "$root"
    source scripts/install-deps.sh
    mkdir -p build
    [[ -x "$analyser" ]] || echo "building… (the first build takes a few minutes)" >&2
    if ! { cmake -S . -B build -DCMAKE_BUILD_TYPE=Release -DTARNEL_CUDA_ARCHITECTURES="${TARNEL_CUDA_ARCHITECTURES:-75}" &&
        cmake --build build -j"$(nproc)" --target tarnel-analyse; } >"$log" 2>&1; then
        tail -n 30 "$log" >&2
        echo "run.sh: the build failed (full log: $log)" >&2
        exit 1
    fi
)
exec "$analyser" "$@"
