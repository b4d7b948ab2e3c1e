#!/usr/bin/env bash
# Installs what is missing, builds KrPal out of tree and runs the whole test suite through
# CTest. With --sanitize address,undefined or --sanitize thread it builds and tests a
# sanitizer build in its own build directory. With --fuzz it builds everything with clang,
# AddressSanitizer, UndefinedBehaviorSanitizer and the libFuzzer programs (build-fuzz), and
# runs the suite there together with the fuzzers' bounded CTest entries. With --qt 6 it builds
# against Qt 6 instead of Qt 5, in a build directory of its own (build-qt6, build-fuzz-qt6, ...).
set -euo pipefail
cd "$(dirname "$0")/.."

sanitize=""
fuzz=false
qt=5
while [ $# -gt 0 ]; do
    case "$1" in
        --sanitize) sanitize="$2"; shift 2 ;;
        --fuzz) fuzz=true; shift ;;
        --qt) qt="$2"; shift 2 ;;
        *) echo "usage: $0 [--sanitize address,undefined|thread | --fuzz] [--qt 5|6]" >&2; exit 2 ;;
    esac
done
case "$qt" in
    5) suffix="" ;;
    6) suffix="-qt6" ;;
    *) echo "$0: --qt takes 5 or 6" >&2; exit 2 ;;
esac

if $fuzz; then
    scripts/install-deps.sh --fuzz --qt "$qt"
    build_dir=build-fuzz$suffix
    cmake -S . -B "$build_dir" -G Ninja -DKRPAL_QT_MAJOR_VERSION="$qt" -DCMAKE_CXX_COMPILER=clang++ \
        -DKRPAL_SANITIZE=address,undefined -DKRPAL_BUILD_FUZZERS=ON >/dev/null
else
    scripts/install-deps.sh --qt "$qt"
    build_dir=build
    [ -z "$sanitize" ] || build_dir="build-${sanitize//,/-}"
    build_dir=$build_dir$suffix
    benchmarks=ON
    # The benchmarks are built and smoke-run with the plain build only: sanitizers would only slow them.
    [ -z "$sanitize" ] || benchmarks=OFF
    cmake -S . -B "$build_dir" -G Ninja -DKRPAL_QT_MAJOR_VERSION="$qt" -DKRPAL_SANITIZE="$sanitize" \
        -DKRPAL_BUILD_BENCHMARKS="$benchmarks" >/dev/null
fi
cmake --build "$build_dir" --parallel "$(nproc)"
ctest --test-dir "$build_dir" --output-on-failure --parallel "$(nproc)"
