#!/usr/bin/env bash
# Times the analyser on the reference configuration (three phases, three
# currents, 51.2 kHz, all results on) over 60 s of signal: once from a binary
# COMTRADE file generated for the purpose, once from the built-in recording
# generated in memory. Prints the median of five runs and the real-time factor.
set -euo pipefail
cd "$(dirname "$0")/.."
analyser=${ANALYSER:-build/tools/analyser/tarnel-analyse}
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
/usr/bin/python3 bench/make_comtrade.py "$work/reference" 60

median() { sort -n | awk '{a[NR]=$1} END {print a[int((NR+1)/2)]}'; }
run() {
    for _ in 1 2 3 4 5; do
        /usr/bin/time -f "%e" "$analyser" --backend cpu --no-progress "$@" 2>&1 >/dev/null | tail -1
    done | median
}
comtrade=$(run "$work/reference.cfg")
synthetic=$(run --duration 60)
awk -v c="$comtrade" -v s="$synthetic" 'BEGIN {
    printf "binary COMTRADE, 60 s:   %.2f s wall (median of 5), %.0fx real time\n", c, 60 / c
    printf "built-in recording, 60 s: %.2f s wall (median of 5), %.0fx real time\n", s, 60 / s }'
