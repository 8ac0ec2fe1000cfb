#!/usr/bin/env bash
# Installs what the build needs on a Debian machine. The CUDA toolkit (nvcc,
# cudart, cuFFT) is expected under /usr/local/cuda; without it the library is
# built with the CPU backend only.
set -euo pipefail
packages=(build-essential cmake pkg-config libfftw3-dev libgtest-dev libgmock-dev libbenchmark-dev clang-format
    python3-pip chromium)
missing=()
for p in "${packages[@]}"; do dpkg -s "$p" >/dev/null 2>&1 || missing+=("$p"); done
if ((${#missing[@]})); then
    SUDO=""
    [[ $(id -u) -ne 0 ]] && SUDO="sudo"
    $SUDO apt-get update -qq
    DEBIAN_FRONTEND=noninteractive $SUDO apt-get install -y -qq "${missing[@]}"
fi
if [[ -x /usr/local/cuda/bin/nvcc ]]; then export PATH=/usr/local/cuda/bin:$PATH; fi
# The Python package: its build tools, its run-time packages and its tests
# (chromium above renders the HTML report in a test).
python_packages=(nanobind scikit-build-core numpy pandas matplotlib "dask[distributed]" pytest)
if ! python3 -c "import nanobind, scikit_build_core, numpy, pandas, matplotlib, distributed, pytest" 2>/dev/null; then
    # Debian's own python3 marks its packages as system-managed; CI machines install beside them.
    PIP_BREAK_SYSTEM_PACKAGES=1 python3 -m pip install -q "${python_packages[@]}"
fi
