#!/usr/bin/env bash
# Installs what the build needs on a Debian machine. The CUDA toolkit (nvcc,
# cudart, cuFFT) is expected under /usr/local/cuda; without it the library is
# built with the CPU backend only. clang and its fuzzer runtime build the
# fuzz harnesses.
set -euo pipefail
packages=(build-essential cmake pkg-config libfftw3-dev libkissfft-dev libgtest-dev libgmock-dev libbenchmark-dev
    clang-format clang libclang-rt-dev python3 python3-pip chromium)
missing=()
for p in "${packages[@]}"; do dpkg -s "$p" >/dev/null 2>&1 || missing+=("$p"); done
if ((${#missing[@]})); then
    SUDO=""
    [[ $(id -u) -ne 0 ]] && SUDO="sudo"
    $SUDO apt-get update -qq
    DEBIAN_FRONTEND=noninteractive $SUDO apt-get install -y -qq "${missing[@]}"
fi
if [[ -x /usr/local/cuda/bin/nvcc ]]; then export PATH=/usr/local/cuda/bin:$PATH; fi
# Debian's own Python accepts packages from PyPI only with the flag of the second form.
pip_install() {
    python3 -m pip install --quiet "$@" 2>/dev/null ||
        python3 -m pip install --quiet --user --break-system-packages "$@"
}
# The analyser's output test reads the files with pandas and validates them with jsonschema; the
# Python package needs its build tools, its run-time packages and its tests (chromium above renders
# its HTML report in a test).
python_packages=(nanobind scikit-build-core numpy pandas matplotlib "dask[distributed]" jsonschema pytest)
if ! python3 -c "import nanobind, scikit_build_core, numpy, pandas, matplotlib, distributed, jsonschema, pytest" \
    2>/dev/null; then
    pip_install "${python_packages[@]}"
fi
