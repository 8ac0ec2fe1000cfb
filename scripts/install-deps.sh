#!/usr/bin/env bash
# Installs what the build needs on a Debian machine. The CUDA toolkit (nvcc,
# cudart, cuFFT) is expected under /usr/local/cuda; without it the library is
# built with the CPU backend only.
set -euo pipefail
packages=(build-essential cmake pkg-config libfftw3-dev libkissfft-dev libgtest-dev libgmock-dev libbenchmark-dev clang-format)
missing=()
for p in "${packages[@]}"; do dpkg -s "$p" >/dev/null 2>&1 || missing+=("$p"); done
if ((${#missing[@]})); then
    SUDO=""
    [[ $(id -u) -ne 0 ]] && SUDO="sudo"
    $SUDO apt-get update -qq
    DEBIAN_FRONTEND=noninteractive $SUDO apt-get install -y -qq "${missing[@]}"
fi
if [[ -x /usr/local/cuda/bin/nvcc ]]; then export PATH=/usr/local/cuda/bin:$PATH; fi
