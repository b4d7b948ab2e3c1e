#!/usr/bin/env bash
# Installs what is missing, builds the benchmarks in Release (build-bench/) and runs them:
# every figure, then the table of each hot path against its floor with its ratio and target.
# Arguments go to the benchmark program, e.g. --benchmark_filter=tcxo or
# --benchmark_repetitions=9; the defaults take about two minutes.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/install-deps.sh
cmake -S . -B build-bench -G Ninja -DCMAKE_BUILD_TYPE=Release -DKRPAL_BUILD_BENCHMARKS=ON \
      -DKRPAL_BUILD_TESTS=OFF -DKRPAL_BUILD_EXAMPLES=OFF >/dev/null
cmake --build build-bench --parallel "$(nproc)" --target krpal-bench
# Repetitions interleaved at random, so that a change in the machine's load during the run
# falls on measured paths and references alike.
exec build-bench/bench/krpal-bench --benchmark_repetitions=5 --benchmark_enable_random_interleaving=true "$@"
