#!/usr/bin/env bash
# Runs every QtTest program of the suite under valgrind's memcheck, on the normal build
# (build/, built here when missing; sanitizer builds cannot run under valgrind). Fails on any
# memcheck error and on any definite leak; what is still reachable at exit (Qt's and the C
# library's process-wide caches) is not counted. tests/sanitizers/valgrind.supp holds the
# suppressions, for findings inside Qt only. Logs go to build/valgrind/<test>.log.
#   scripts/run-valgrind.sh [test name regex]
set -euo pipefail
cd "$(dirname "$0")/.."

filter="${1:-.}"
scripts/install-deps.sh valgrind
cmake -S . -B build -G Ninja >/dev/null
cmake --build build --parallel "$(nproc)"

log_dir=build/valgrind
rm -rf "$log_dir"
mkdir -p "$log_dir"
mapfile -t tests < <(find build/tests -maxdepth 1 -name 'tst_*' -type f -executable -printf '%f\n' | sort | grep -E "$filter")

# The test environment of tests/CMakeLists.txt, less the sanitizers'. QRegularExpression's
# JIT-compiled matchers read whole 16-byte words beyond a string's end, within its block, which
# memcheck cannot tell from a fault; Qt's interpreter matches the same.
export QT_QPA_PLATFORM=offscreen
export QT_ENABLE_REGEXP_JIT=0

failed=()
started=$SECONDS
for test in "${tests[@]}"; do
    log="$log_dir/$test.log"
    # Exit code 99 marks a memcheck finding; any other failure is the test's own.
    if valgrind --tool=memcheck --error-exitcode=99 --leak-check=full --show-leak-kinds=definite \
        --errors-for-leak-kinds=definite --track-origins=yes --child-silent-after-fork=yes \
        --suppressions=tests/sanitizers/valgrind.supp --gen-suppressions=all --log-file="$log" \
        "build/tests/$test" >"$log_dir/$test.out" 2>&1; then
        rc=0
    else
        rc=$?
    fi
    summary=$(grep -E "ERROR SUMMARY|definitely lost|possibly lost" "$log" | sed 's/^==[0-9]*== //' | tr '\n' ' ')
    echo "$test: exit $rc; $summary"
    [ "$rc" -eq 0 ] || failed+=("$test")
done
echo "valgrind: ${#tests[@]} test programs in $((SECONDS - started)) s; failed: ${failed[*]:-none}"
[ ${#failed[@]} -eq 0 ]
