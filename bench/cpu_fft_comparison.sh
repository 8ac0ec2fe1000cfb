#!/usr/bin/env bash
# The block cost with each CPU FFT, measured in one run: the block benchmark of
# an FFTW build and that of a KissFFT build run alternately, round after round,
# so that both see the same spells of a shared machine. Prints each round, the
# median per block of each FFT and the median of the rounds' ratios.
#
#   bash bench/cpu_fft_comparison.sh [FFTW_BUILD_DIR] [KISSFFT_BUILD_DIR] [ROUNDS]
#
# The build folders (default build-bench-fftw, build-bench-kissfft) are
# configured and built here when they hold no benchmark yet.
set -euo pipefail
cd "$(dirname "$0")/.."
fftwDir=${1:-build-bench-fftw}
kissDir=${2:-build-bench-kissfft}
rounds=${3:-9}

benchmarkIn() {
    local dir=$1 fft=$2
    if [[ ! -x $dir/bench/tarnel_block_benchmark ]]; then
        cmake -S . -B "$dir" -DCMAKE_BUILD_TYPE=Release -DTARNEL_WITH_CUDA=OFF -DTARNEL_BUILD_TESTS=OFF \
            -DTARNEL_BUILD_TOOLS=OFF -DTARNEL_CPU_FFT="$fft" >/dev/null
        cmake --build "$dir" -j"$(nproc)" --target tarnel_block_benchmark >/dev/null
    fi
    grep -q "^TARNEL_CPU_FFT:STRING=$fft$" "$dir/CMakeCache.txt" || { echo "$dir is not a $fft build" >&2; exit 2; }
    echo "$dir/bench/tarnel_block_benchmark"
}

# Median microseconds per block of BM_BlockCpu over the benchmark's repetitions.
blockMicroseconds() {
    "$1" --benchmark_filter='^BM_BlockCpu/' --paired_rounds=0 |
        awk '$1 == "BM_BlockCpu" && $3 == "us" && $4 == "per" { print $2 }'
}

fftw=$(benchmarkIn "$fftwDir" fftw)
kiss=$(benchmarkIn "$kissDir" kissfft)
fftwTimes=() kissTimes=() ratios=()
for ((round = 1; round <= rounds; ++round)); do
    a=$(blockMicroseconds "$fftw")
    b=$(blockMicroseconds "$kiss")
    [[ -n $a && -n $b ]] || { echo "a benchmark run gave no block time" >&2; exit 1; }
    fftwTimes+=("$a") kissTimes+=("$b") ratios+=("$(awk -v a="$a" -v b="$b" 'BEGIN { printf "%.3f", b / a }')")
    echo "round $round: FFTW $a us, KissFFT $b us per block, ratio ${ratios[-1]}"
done
median() { printf '%s\n' "$@" | sort -g | awk '{ v[NR] = $1 } END { print v[int((NR + 1) / 2)] }'; }
sorted=($(printf '%s\n' "${ratios[@]}" | sort -g))
echo "medians of $rounds rounds: FFTW $(median "${fftwTimes[@]}") us, KissFFT $(median "${kissTimes[@]}") us per block;" \
    "KissFFT / FFTW $(median "${ratios[@]}") (lowest ${sorted[0]}, highest ${sorted[-1]})"
