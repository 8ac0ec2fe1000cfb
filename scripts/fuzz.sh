#!/usr/bin/env bash
# Runs every libFuzzer harness of a fuzz build for a bounded time and fails on
# the first crash, hang, leak or sanitizer report.
#
#   scripts/fuzz.sh [build folder] [seconds per harness]
#
# The build folder must be configured with clang and -DTARNEL_BUILD_FUZZERS=ON
# (scripts/test.sh makes build-fuzz). New inputs the fuzzer finds go to a
# temporary folder, never into the seed corpora; a crashing input is kept as
# build-folder/fuzz-artifacts/crash-... to be replayed with
#   build-fuzz/fuzz/tarnel_fuzz_<name> <that file>
set -euo pipefail
cd "$(dirname "$0")/.."
dir=${1:-build-fuzz}
seconds=${2:-20}
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
artifacts="$dir/fuzz-artifacts"
mkdir -p "$artifacts"

# Huge allocations that fail are an answer the library must handle, not a crash.
export ASAN_OPTIONS=allocator_may_return_null=1:detect_leaks=1
export UBSAN_OPTIONS=halt_on_error=1:print_stacktrace=1

status=0
for name in cinterface comtrade csv wav; do
    fuzzer="$dir/fuzz/tarnel_fuzz_$name"
    if [[ ! -x $fuzzer ]]; then
        echo "fuzz: $fuzzer is not built, skipped"
        continue
    fi
    mkdir -p "$work/$name"
    echo "fuzz: $name for ${seconds}s"
    if ! "$fuzzer" -max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 -malloc_limit_mb=1048576 \
        -max_len=4096 -print_final_stats=1 -artifact_prefix="$artifacts/$name-" \
        "$work/$name" "fuzz/corpus/$name" >"$work/$name.log" 2>&1; then
        tail -n 60 "$work/$name.log"
        echo "fuzz: $name FAILED; inputs kept in $artifacts"
        status=1
    else
        grep -E '^stat::number_of_executed_units|^Done' "$work/$name.log" || true
    fi
done
exit $status
