#!/usr/bin/env bash
# Installs what is missing, builds KrPal out of tree and runs the whole test suite through
# CTest. With --sanitize address,undefined or --sanitize thread it builds and tests a
# sanitizer build in its own build directory. With --fuzz it builds everything with clang,
# AddressSanitizer, UndefinedBehaviorSanitizer and the libFuzzer programs (build-fuzz), and
# runs the suite there together with the fuzzers' bounded CTest entries. With --qt 6 it builds
# against Qt 6 instead of Qt 5, in a build directory of its own (build-qt6, build-fuzz-qt6, ...).
# With --coverage it builds with gcc's --coverage (build-coverage), runs the suite, prints the
# line and branch coverage of each file of pal/ and devices/, writes an HTML report to
# build-coverage/coverage/index.html and fails below the floors of either directory.
set -euo pipefail
cd "$(dirname "$0")/.."

# Floors of the coverage build in per cent, lines then branches, a little below the figures
# measured (see docs/reliability.md): the library pal/, and the devices library devices/.
pal_coverage_floors=(97 85)
devices_coverage_floors=(98 91)

sanitize=""
fuzz=false
qt=5
coverage=false
while [ $# -gt 0 ]; do
    case "$1" in
        --sanitize) sanitize="$2"; shift 2 ;;
        --fuzz) fuzz=true; shift ;;
        --qt) qt="$2"; shift 2 ;;
        --coverage) coverage=true; shift ;;
        *) echo "usage: $0 [--sanitize address,undefined|thread | --fuzz | --coverage] [--qt 5|6]" >&2; exit 2 ;;
    esac
done
case "$qt" in
    5) suffix="" ;;
    6) suffix="-qt6" ;;
    *) echo "$0: --qt takes 5 or 6" >&2; exit 2 ;;
esac

if $coverage; then
    scripts/install-deps.sh --coverage
    build_dir=build-coverage
    # Unoptimised, so that each line counts as written; counters updated atomically, since the
    # command and collector threads run the same code at once and plain counters come out torn
    # (negative), which gcovr refuses. The install and package checks inspect
    # the exported symbols, which coverage adds to, and the format check runs no code.
    cmake -S . -B "$build_dir" -G Ninja -DCMAKE_BUILD_TYPE=Debug -DCMAKE_CXX_FLAGS="--coverage -fprofile-update=atomic" \
        -DCMAKE_EXE_LINKER_FLAGS=--coverage -DCMAKE_SHARED_LINKER_FLAGS=--coverage -DKRPAL_BUILD_BENCHMARKS=OFF >/dev/null
    cmake --build "$build_dir" --parallel "$(nproc)"
    find "$build_dir" -name '*.gcda' -delete
    ctest --test-dir "$build_dir" --output-on-failure --parallel "$(nproc)" -LE 'package|install|format'
    # Branches that only exceptions take (every call that may throw std::bad_alloc) and those
    # the compiler proves unreachable would drown the real ones, so they are not counted.
    gcovr --root . --object-directory "$build_dir" --filter 'pal/' --filter 'devices/' --exclude-throw-branches \
        --exclude-unreachable-branches --gcov-exclude '.*CompilerId.*' --json "$build_dir/coverage.json"
    echo "Line coverage per file:"
    gcovr --add-tracefile "$build_dir/coverage.json"
    echo "Branch coverage per file:"
    gcovr --add-tracefile "$build_dir/coverage.json" --branches
    mkdir -p "$build_dir/coverage"
    gcovr --add-tracefile "$build_dir/coverage.json" --html-details "$build_dir/coverage/index.html"
    echo "HTML report: $build_dir/coverage/index.html"
    # The summaries alone are wanted, but their text reports go to files of the build: gcovr 5
    # checks an output path by creating and then deleting it, which as root deletes /dev/null.
    echo "pal/ (floors: ${pal_coverage_floors[0]} % of lines, ${pal_coverage_floors[1]} % of branches):"
    gcovr --add-tracefile "$build_dir/coverage.json" --filter 'pal/' --print-summary --output "$build_dir/coverage-pal.txt" \
        --fail-under-line "${pal_coverage_floors[0]}" --fail-under-branch "${pal_coverage_floors[1]}"
    echo "devices/ (floors: ${devices_coverage_floors[0]} % of lines, ${devices_coverage_floors[1]} % of branches):"
    gcovr --add-tracefile "$build_dir/coverage.json" --filter 'devices/' --print-summary --output "$build_dir/coverage-devices.txt" \
        --fail-under-line "${devices_coverage_floors[0]}" --fail-under-branch "${devices_coverage_floors[1]}"
    exit 0
fi

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
