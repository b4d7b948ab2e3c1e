#!/usr/bin/env bash
# Installs what is missing, builds KrPal out of tree and runs the whole test suite through
# CTest. With --sanitize address,undefined or --sanitize thread it builds and tests a
# sanitizer build in its own build directory.
set -euo pipefail
cd "$(dirname "$0")/.."

sanitize=""
while [ $# -gt 0 ]; do
    case "$1" in
        --sanitize) sanitize="$2"; shift 2 ;;
        *) echo "usage: $0 [--sanitize address,undefined|thread]" >&2; exit 2 ;;
    esac
done

scripts/install-deps.sh
build_dir=build
[ -z "$sanitize" ] || build_dir="build-${sanitize//,/-}"

benchmarks=ON
# The benchmarks are built and smoke-run with the plain build only: sanitizers would only slow them.
[ -z "$sanitize" ] || benchmarks=OFF
cmake -S . -B "$build_dir" -G Ninja -DKRPAL_SANITIZE="$sanitize" -DKRPAL_BUILD_BENCHMARKS="$benchmarks" >/dev/null
cmake --build "$build_dir" --parallel "$(nproc)"
ctest --test-dir "$build_dir" --output-on-failure --parallel "$(nproc)"
