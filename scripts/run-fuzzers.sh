#!/usr/bin/env bash
# Runs each fuzzer for longer than its CTest entry does: SECONDS each (default 300), from the
# seed corpus in fuzz/corpus/<name> and a working corpus that grows from run to run in
# build-fuzz/fuzz/<name>-corpus. Builds build-fuzz as run-tests.sh --fuzz does. A finding
# stops its fuzzer and is kept as build-fuzz/fuzz/<name>-crash-*; the script then fails.
#   scripts/run-fuzzers.sh [seconds per fuzzer]
set -euo pipefail
cd "$(dirname "$0")/.."

seconds="${1:-300}"
scripts/install-deps.sh --fuzz
cmake -S . -B build-fuzz -G Ninja -DCMAKE_CXX_COMPILER=clang++ -DKRPAL_SANITIZE=address,undefined \
    -DKRPAL_BUILD_FUZZERS=ON >/dev/null
cmake --build build-fuzz --parallel "$(nproc)"

# As in the fuzzers' CTest entries.
export ASAN_OPTIONS=detect_leaks=1:halt_on_error=1:abort_on_error=0
export UBSAN_OPTIONS=halt_on_error=1:print_stacktrace=1
export LSAN_OPTIONS="suppressions=$PWD/tests/sanitizers/lsan.supp:print_suppressions=0"

for fuzzer in fuzz_tcxocalfile fuzz_selftestresults; do
    work="build-fuzz/fuzz/$fuzzer"
    mkdir -p "$work-corpus"
    options=(-seed=1 -max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 -print_final_stats=1
             -artifact_prefix="$work-")
    [ ! -f "fuzz/$fuzzer.dict" ] || options+=(-dict="fuzz/$fuzzer.dict")
    [ "$fuzzer" != fuzz_tcxocalfile ] || options+=(-max_len=1024)
    [ "$fuzzer" != fuzz_selftestresults ] || options+=(-max_len=2048)
    echo "== $fuzzer, $seconds s (log: $work.log)"
    if "build-fuzz/fuzz/$fuzzer" "${options[@]}" "$work-corpus" "fuzz/corpus/$fuzzer" >"$work.log" 2>&1; then
        rc=0
    else
        rc=$?
    fi
    grep -E "^(#[0-9]+ +(INITED|DONE)|Done|stat::|SUMMARY)|invariant broken" "$work.log" || true
    [ "$rc" -eq 0 ] || { echo "$fuzzer: finding kept as $work-crash-*" >&2; exit 1; }
done
