#!/usr/bin/env bash
# Mutation testing of the libraries' code (pal/, devices/): makes small faults one at a time,
# rebuilds build-mutants incrementally, runs the unit tests and reports which faults the tests
# catch. Every source file is restored after its mutant, also on Ctrl-C or termination.
#   scripts/run-mutants.sh [--max N] [--seed S] [--files GLOB]... [--list] [--jobs J] [--timeout SECONDS]
# See docs/mutation-testing.md.
set -euo pipefail
cd "$(dirname "$0")/.."
command -v python3 >/dev/null || { echo "run-mutants.sh needs python3" >&2; exit 2; }
exec python3 scripts/mutants.py "$@"
