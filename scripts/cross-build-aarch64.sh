#!/usr/bin/env bash
# Cross-builds KrPal for the instrument's aarch64 board and checks the result: installs what
# is missing (Debian's arm64 multiarch packages, the cross compiler, qemu-user), builds the
# library, the tests and the demo into build-aarch64/, confirms the architecture and SONAMEs
# with file and readelf, runs the test programs under qemu-aarch64 and makes the arm64 Debian
# packages. Exits non-zero when a check or a test fails; a program that cannot run under
# user-mode emulation here is reported as SKIPPED with the reason, never as passed.
#
#   scripts/cross-build-aarch64.sh [--no-install] [--timeout SECONDS]
set -euo pipefail
cd "$(dirname "$0")/.."

triplet=aarch64-linux-gnu
build_dir=build-aarch64
run_timeout=120
install=1
while [ $# -gt 0 ]; do
    case "$1" in
        --no-install) install=0; shift ;;
        --timeout) run_timeout="$2"; shift 2 ;;
        *) echo "usage: $0 [--no-install] [--timeout SECONDS]" >&2; exit 2 ;;
    esac
done

phase_start=$SECONDS
timings=()
phase_done() {
    timings+=("$1: $((SECONDS - phase_start)) s")
    phase_start=$SECONDS
}
# Files the build made, without those this script makes beside them (checks, packages).
work_dir="$build_dir/cross-check"
build_outputs() {
    find "$build_dir" \( -name CMakeFiles -o -path "$work_dir" -o -path "$build_dir/packages" \) -prune -o "$@"
}
failures=()
fail() {
    echo "FAILED: $*" >&2
    failures+=("$*")
}

# 1. What is missing. Adding the architecture needs a fresh package list, which
#    install-deps.sh fetches whenever it installs anything.
if [ "$install" -eq 1 ]; then
    if ! grep -qx arm64 <<<"$(dpkg --print-foreign-architectures)"; then
        sudo=()
        [ "$(id -u)" -eq 0 ] || sudo=(sudo)
        echo "Adding the arm64 architecture to dpkg"
        "${sudo[@]}" dpkg --add-architecture arm64
    fi
    scripts/install-deps.sh file dpkg-dev qemu-user crossbuild-essential-arm64 \
        qtbase5-dev:arm64 qtpositioning5-dev:arm64
fi
phase_done "install"

# 2. Configure and build. Packages install into /usr, for which the toolchain file picks
#    Debian's multiarch library directory lib/aarch64-linux-gnu.
cmake -S . -B "$build_dir" -G Ninja -DCMAKE_TOOLCHAIN_FILE="$PWD/cmake/toolchains/$triplet.cmake" \
    -DCMAKE_BUILD_TYPE=Release -DCMAKE_INSTALL_PREFIX=/usr >/dev/null
phase_done "configure"
cmake --build "$build_dir" --parallel "$(nproc)"
phase_done "build"

# 3. Every program and library of the build is an aarch64 ELF file; the libraries carry
#    their SONAMEs.
echo
echo "== Architecture"
elf_files=()
while IFS= read -r -d '' path; do
    if [[ $(file -b "$path") == ELF* ]]; then
        elf_files+=("$path")
    fi
done < <(build_outputs -type f \( -perm -u+x -o -name '*.so*' \) -print0 | sort -z)
[ ${#elf_files[@]} -gt 0 ] || fail "no ELF file in $build_dir"
for path in "${elf_files[@]}"; do
    description=$(file -b "$path")
    machine=$(readelf -h "$path" | sed -n 's/^ *Machine: *//p')
    echo "${path#"$build_dir"/}: $description"
    [ "$machine" = "AArch64" ] || fail "$path is built for '$machine', not AArch64"
done
for library in libKrPal.so.1 libKrPalDevices.so.1 libCrosscutting.so.1; do
    path=$(build_outputs -name "$library" -print -quit)
    if [ -z "$path" ]; then
        fail "$library was not built"
        continue
    fi
    soname=$(readelf -d "$path" | sed -n 's/.*Library soname: \[\(.*\)\]/\1/p')
    echo "$library: SONAME $soname, $(readelf -h "$path" | sed -n 's/^ *Machine: *//p')"
    [ "$soname" = "$library" ] || fail "$library has the SONAME '$soname'"
done
phase_done "checks"

# 4. Run under user-mode emulation, each run bounded by a time-out. A small probe tells
#    whether threads start under qemu here at all; where they do not, a run that hangs
#    is skipped for that reason, and where they do, a hang is a failure.
echo
echo "== Runs under qemu-aarch64 (time-out ${run_timeout} s each)"
# The arm64 Qt packages bring the arm64 C library and its loader /lib/ld-linux-aarch64.so.1
# into the host's multiarch root, and that root serves as qemu's library prefix. Pairing the
# cross package's loader (-L /usr/aarch64-linux-gnu) with that C library mixes two builds of
# glibc, under which no thread ever runs.
qemu=(qemu-aarch64)
[ -e /lib/ld-linux-aarch64.so.1 ] || qemu+=(-L "/usr/$triplet")
export QT_QPA_PLATFORM=offscreen
mkdir -p "$work_dir"
cat >"$work_dir/probe.cpp" <<'EOF'
#include <cstdio>
#include <thread>
int main()
{
    int value = 0;
    std::thread worker([&value] { value = 42; });
    worker.join();
    std::printf("thread ran: %d\n", value);
    return value == 42 ? 0 : 1;
}
EOF
$triplet-g++ -std=c++17 -pthread "$work_dir/probe.cpp" -o "$work_dir/probe"
threads_reason=""
set +e
probe_output=$(timeout -k 5 20 "${qemu[@]}" "$work_dir/probe" 2>&1)
probe_rc=$?
set -e
if [ $probe_rc -eq 0 ]; then
    echo "thread probe: $probe_output"
elif [ $probe_rc -eq 124 ] || [ $probe_rc -eq 137 ]; then
    threads_reason="a thread started under qemu-aarch64 did not finish within 20 s"
else
    threads_reason="a thread could not be started under qemu-aarch64 (exit $probe_rc: $probe_output)"
fi
[ -z "$threads_reason" ] || echo "thread probe: $threads_reason"

passed=()
skipped=()
run_program() { # name, log file, command and arguments
    local name="$1" log="$2"
    shift 2
    local rc=0
    timeout -k 5 "$run_timeout" "$@" >"$log" 2>&1 || rc=$?
    # A run through CTest that hit its own time-out counts as one that hit ours.
    if [ $rc -ne 0 ] && grep -q '\*\*\*Timeout' "$log"; then
        rc=124
    fi
    local totals whole_skip
    totals=$(grep -m1 '^Totals:' "$log" || true)
    # A QtTest program that skips in initTestCase has run none of its tests.
    whole_skip=$(sed -n 's/^SKIP *: [A-Za-z_]*::initTestCase() //p' "$log" | head -n 1)
    if [ $rc -eq 0 ] && [ -n "$whole_skip" ]; then
        echo "SKIPPED $name: $whole_skip"
        skipped+=("$name: $whole_skip")
    elif [ $rc -eq 0 ]; then
        echo "PASSED  $name ${totals:+($totals)}"
        passed+=("$name")
        # The reasons of the tests skipped inside, once each.
        sed -n 's/^SKIP *: [A-Za-z_]*::[^ ]*([^)]*) /    skipped inside: /p' "$log" | sort | uniq -c
    elif { [ $rc -eq 124 ] || [ $rc -eq 137 ]; } && [ -n "$threads_reason" ]; then
        echo "SKIPPED $name: no result within ${run_timeout} s, and $threads_reason"
        skipped+=("$name: $threads_reason")
    elif [ $rc -eq 124 ] || [ $rc -eq 137 ]; then
        fail "$name did not finish within ${run_timeout} s under qemu-aarch64 (log: $log)"
        tail -n 20 "$log" >&2
    else
        fail "$name exited with $rc under qemu-aarch64 ${totals:+($totals) }(log: $log)"
        tail -n 20 "$log" >&2
    fi
}

# The QtTest programs, each started under the emulator explicitly, since the kernel need not
# run foreign programs by itself (binfmt_misc); those that start the tools start them under
# it too (KRPAL_TOOL_EMULATOR). The entries that run a tool with arguments and match its output
# run through CTest, which starts them under the toolchain file's emulator, one at a time in
# the order declared and without re-running fixture set-ups, since they build on each other's
# results (tcxocal_create, then tcxocal_field, then tcxocal_get). The install,
# format, package, documentation and fault-injection checks are host checks.
mapfile -t tests < <(ctest --test-dir "$build_dir" -N -LE '^(install|format|package|docs|fault)$' |
    sed -n 's/^ *Test *#[0-9]*: *//p')
for name in "${tests[@]}"; do
    program=$(build_outputs -type f -name "$name" -print -quit)
    if [ -n "$program" ]; then
        run_program "$name" "$work_dir/$name.log" "${qemu[@]}" "$program"
    else
        run_program "$name" "$work_dir/$name.log" ctest --test-dir "$build_dir" --output-on-failure -FS . -FC . -R "^$name\$"
    fi
done
# The demo and the tools answer --help without touching any hardware.
while IFS= read -r -d '' program; do
    if [[ $(file -b "$program") == ELF* ]]; then
        run_program "$(basename "$program") --help" "$work_dir/$(basename "$program").log" "${qemu[@]}" "$program" --help
    fi
done < <(find "$build_dir/examples" -path '*/CMakeFiles' -prune -o -type f -perm -u+x -print0 2>/dev/null | sort -z)
phase_done "qemu runs"

# 5. The arm64 Debian packages.
echo
echo "== Packages"
rm -rf "$build_dir/packages"
cpack --config "$build_dir/CPackConfig.cmake" -G DEB -B "$build_dir/packages" >"$work_dir/cpack.log" 2>&1 ||
    { cat "$work_dir/cpack.log" >&2; fail "cpack"; }
for deb in "$build_dir"/packages/*.deb; do
    [ -e "$deb" ] || { fail "no package made"; break; }
    echo "$(basename "$deb"):"
    dpkg-deb -f "$deb" Package Version Architecture Depends | sed 's/^/    /'
    [ "$(dpkg-deb -f "$deb" Architecture)" = "arm64" ] || fail "$deb is not an arm64 package"
done
libs_deb=$(find "$build_dir/packages" -name 'libkrpal1_*.deb' -print -quit)
if [ -n "$libs_deb" ]; then
    contents=$(dpkg-deb -c "$libs_deb")
    for library in libKrPal.so.1 libKrPalDevices.so.1; do
        grep -qE "usr/lib/$triplet/${library//./\\.}( |\$)" <<<"$contents" ||
            fail "libkrpal1 lacks usr/lib/$triplet/$library"
    done
fi

# An aarch64 application built against the unpacked arm64 packages, as a board application
# is built, and run under emulation.
root="$work_dir/package-root"
consumer="$work_dir/consumer"
rm -rf "$root" "$consumer"
for deb in "$build_dir"/packages/libkrpal*.deb; do
    [ -e "$deb" ] && dpkg -x "$deb" "$root"
done
if cmake -S tests/consumer -B "$consumer" -G Ninja -DCMAKE_TOOLCHAIN_FILE="$PWD/cmake/toolchains/$triplet.cmake" \
    -DCMAKE_PREFIX_PATH="$PWD/$root/usr" >"$work_dir/consumer.log" 2>&1 &&
    cmake --build "$consumer" >>"$work_dir/consumer.log" 2>&1; then
    echo "consumer: $(file -b "$consumer/consumer" | cut -d, -f1,2)"
    LD_LIBRARY_PATH="$PWD/$root/usr/lib/$triplet" run_program "consumer of the arm64 packages" \
        "$consumer/run.log" "${qemu[@]}" "$consumer/consumer"
else
    cat "$work_dir/consumer.log" >&2
    fail "building the consumer against the arm64 packages"
fi
phase_done "packages"

echo
echo "== Summary"
printf '%s\n' "${timings[@]}"
echo "${#passed[@]} passed, ${#failures[@]} failed, ${#skipped[@]} skipped"
for reason in "${skipped[@]}"; do echo "skipped: $reason"; done
for reason in "${failures[@]}"; do echo "failed: $reason"; done
[ ${#failures[@]} -eq 0 ]
