#!/usr/bin/env bash
# Installs what is missing, builds KrPal out of tree and runs the whole test suite through
# CTest. With --sanitize address,undefined or --sanitize thread it builds and tests a
# sanitizer build in its own build directory. With --fuzz it builds everything with clang,
# AddressSanitizer, UndefinedBehaviorSanitizer and the libFuzzer programs (build-fuzz), and
# runs the suite there together with the fuzzers' bounded CTest entries.
set -euo pipefail
cd "$(dirname "$0")/.."

sanitize=""
fuzz=false
while [ $# -gt 0 ]; do
    case "$1" in
        --sanitize) sanitize="$2"; shift 2 ;;
        --fuzz) fuzz=true; shift ;;
        *) echo "usage: $0 [--sanitize address,undefined|thread | --fuzz]" >&2; exit 2 ;;
    esac
done

if $fuzz; then
    scripts/install-deps.sh --fuzz
    build_dir=build-fuzz
    cmake -S . -B "$build_dir" -G Ninja -DCMAKE_CXX_COMPILER=clang++ -DKRPAL_SANITIZE=address,undefined \
        -DKRPAL_BUILD_FUZZERS=ON >/dev/null
else
    scripts/install-deps.sh
    build_dir=build
    [ -z "$sanitize" ] || build_dir="build-${sanitize//,/-}"
    benchmarks=ON
    # The benchmarks are built and smoke-run with the plain build only: sanitizers would only slow them.
    [ -z "$sanitize" ] || benchmarks=OFF
    cmake -S . -B "$build_dir" -G Ninja -DKRPAL_SANITIZE="$sanitize" -DKRPAL_BUILD_BENCHMARKS="$benchmarks" >/dev/null
fi
cmake --build "$build_dir" --parallel "$(nproc)"
ctest --test-dir "$build_dir" --output-on-failure --parallel "$(nproc)"
