#!/usr/bin/env bash
# The calibration tool's create and field commands under injected system-call failures, and
# field updates killed with SIGKILL at random moments. After every run the calibration file
# must be byte for byte the old record or the new one, no temporary file may be left beside
# it (after a kill, at most the killed writer's own, which the next write removes), the exit
# status must say whether the file changed (0 changed, 1 left as it was), and a failure's
# message must name the step that failed with the errno that was injected there. Then the file
# and serial device proxies under read, write and poll failures (fault/proxy_faults, which
# checks its invariants itself: every failure -1 or retried, no hang, no byte lost or doubled
# in what was reported sent).
#
#   scripts/run-fault-injection.sh [--quick] [--runs N] [--kills N] [--proxy-runs N] [--seed N]
#
# Without --driver it installs what is missing, builds fault/tcxocal_faults and
# fault/proxy_faults in build/ and runs the full length: N runs (default 300) of each command at
# each of four failure probabilities (and N/4 creates into a new directory), N kills (default
# 1000), and N proxy runs (default 5) of 1000 operations per proxy at each probability.
# --quick is CTest's short run: 4 runs per command and probability, 20 kills, one proxy run of
# 200 operations per proxy and probability.
#
# Failures are injected with libfiu: fiu-run -x preloads its POSIX wrappers, and the driver
# (tcxocal_faults, which runs the tool's own code) enables the failure points only after
# QCoreApplication has started, so that the loader's, the C library's and Qt's start-up I/O
# are never hit. mkdir() is the driver's own failure point, as libfiu wraps none.
set -euo pipefail
cd "$(dirname "$0")/.."

runs=300
kills=1000
proxyRuns=5
proxyOps=1000
seed=1
driver=""
proxyDriver=""
work=""
while [ $# -gt 0 ]; do
    case "$1" in
        --quick) runs=4; kills=20; proxyRuns=1; proxyOps=200; shift ;;
        --proxy-runs) proxyRuns="$2"; shift 2 ;;
        --proxy-driver) proxyDriver="$2"; shift 2 ;;
        --runs) runs="$2"; shift 2 ;;
        --kills) kills="$2"; shift 2 ;;
        --seed) seed="$2"; shift 2 ;;
        --driver) driver="$2"; shift 2 ;;
        --work-dir) work="$2"; shift 2 ;;
        *) echo "usage: $0 [--quick] [--runs N] [--kills N] [--proxy-runs N] [--seed N] [--driver PATH] [--proxy-driver PATH] [--work-dir DIR]" >&2; exit 2 ;;
    esac
done

if [ -z "$driver" ]; then
    scripts/install-deps.sh
    cmake -S . -B build -G Ninja >/dev/null
    cmake --build build --parallel "$(nproc)" --target tcxocal_faults proxy_faults
    driver=build/fault/tcxocal_faults
    proxyDriver=build/fault/proxy_faults
fi
command -v fiu-run >/dev/null || { echo "fiu-run is missing (Debian package fiu-utils)" >&2; exit 1; }
driver=$(realpath "$driver")
# The faulted runs in memory where possible, where a sync costs nothing; the kills on disk, where
# a write's sync takes long enough for many kills to land in the middle of it.
[ -n "$work" ] || work=$(mktemp -d -p "$([ -w /dev/shm ] && echo /dev/shm || echo "${TMPDIR:-/tmp}")")
killWork=$(mktemp -d)
rm -rf "$work"
mkdir -p "$work"
work=$(realpath "$work")
started=$SECONDS
RANDOM=$seed

# Each point fails with the errnos that its call can return among EIO, ENOSPC, EINTR, EACCES.
# EINTR is retried where the call allows it; every other failure must stop the write.
EIO=5 EINTR=4 EACCES=13 ENOSPC=28
points() {
    local p=$1
    echo --fault "posix/io/oc/open=$p:$EACCES,$ENOSPC,$EINTR" --fault "posix/io/rw/read=$p:$EIO,$EINTR" \
        --fault "posix/io/rw/write=$p:$EIO,$ENOSPC,$EINTR" --fault "posix/io/sync/fsync=$p:$EIO,$ENOSPC,$EINTR" \
        --fault "posix/io/oc/close=$p:$EIO,$ENOSPC,$EINTR" --fault "posix/io/dir/rename=$p:$EACCES,$ENOSPC" \
        --fault "posix/io/dir/mkdir=$p:$EACCES,$ENOSPC"
}
declare -A stepPoint=([open]=posix/io/oc/open [read]=posix/io/rw/read [write]=posix/io/rw/write
    [fsync]=posix/io/sync/fsync [close]=posix/io/oc/close [rename]=posix/io/dir/rename [mkdir]=posix/io/dir/mkdir)
declare -A errnoText=([$EIO]="Input/output error" [$ENOSPC]="No space left on device"
    [$EINTR]="Interrupted system call" [$EACCES]="Permission denied")
declare -A errnoName=([$EIO]=EIO [$ENOSPC]=ENOSPC [$EINTR]=EINTR [$EACCES]=EACCES)

total_runs=0
changed=0
unchanged=0
violations=0
: >"$work/faults.log"

violation() {
    violations=$((violations + 1))
    echo "VIOLATION ($1): $2" >&2
    [ -s "$work/err" ] && sed 's/^/    stderr: /' "$work/err" >&2
    [ -s "$work/run.faults" ] && sed 's/^/    injected: /' "$work/run.faults" >&2
    return 0
}

# The file's bytes with the fix time, which a field update takes from the clock, as "<now>".
normalized() { sed -E 's/^FIELD_FIX_TIME=[0-9]{13}$/FIELD_FIX_TIME=<now>/' "$1"; }

# check_run NAME DIR STATUS OLD NEW: OLD is the file before ("" when there was none), NEW a file
# with the bytes expected after a change, the fix time as "<now>" where the update sets it.
check_run() {
    local name=$1 dir=$2 status=$3 old=$4 new=$5 file=$2/tcxo.cal state
    total_runs=$((total_runs + 1))
    cat "$work/run.faults" >>"$work/faults.log"
    if [ -n "$old" ] && [ -f "$file" ] && cmp -s "$file" "$old"; then
        state=old
    elif [ -z "$old" ] && [ ! -e "$file" ]; then
        state=old
    elif [ -f "$file" ] && { cmp -s "$file" "$new" || cmp -s <(normalized "$file") "$new"; }; then
        state=new
    else
        violation "$name" "the file is neither the old record nor the new one: $(head -c 300 "$file" 2>&1 | tr '\n' '|')"
        return
    fi
    local entries
    entries=$(ls -A "$dir" | tr '\n' ' ')
    [ "$entries" = "tcxo.cal " ] || [ "$entries" = "" ] || violation "$name" "left beside the file: $entries"
    case "$status:$state" in
        0:new)
            changed=$((changed + 1))
            if grep -qv '^krpal-tcxocal: warning: ' "$work/err"; then violation "$name" "exit 0 with an error message"; fi
            ;;
        1:old)
            unchanged=$((unchanged + 1))
            local step point errno named=false
            step=$(grep -oE '\b(mkdir|open|read|write|fsync|close|rename|chmod) failed: [^;]*' "$work/err" | head -1 || true)
            point=none
            [ -z "$step" ] || point=${stepPoint[${step%% *}]:-none}
            while read -r injected errno _; do
                if [ "$injected" = "$point" ] && [ "$step" = "${step%% *} failed: ${errnoText[$errno]}" ]; then
                    named=true
                fi
            done <"$work/run.faults"
            $named || violation "$name" "the message names no step that failed with the injected errno"
            ;;
        *) violation "$name" "exit status $status, but the file is the $state one" ;;
    esac
}

# Runs the driver under fiu-run with the failure points at probability P.
faulted() {
    local p=$1
    shift
    # shellcheck disable=SC2046
    fiu-run -x "$driver" --seed "$RANDOM$RANDOM" $(points "$p") -- "$@" >/dev/null 2>"$work/err" 3>"$work/run.faults"
}

example=(--factory-tcxo 2048 --factory-temperature 25.5 --factory-sensitivity 0.0125 --field-temperature 31.75
    --field-sensitivity 0.0124 --field-fix-time 1.7e12 --fix-decay-time 3600 --ref-source-display 1)
record() {
    printf 'FACTORY_TCXO=2048\nFACTORY_TEMPERATURE=25.5\nFACTORY_TUNING_SENSITIVITY=0.0125\nFIELD_TCXO=%s\n' "$1"
    printf 'FIELD_TEMPERATURE=31.75\nFIELD_TUNING_SENSITIVITY=0.0124\nFIELD_FIX_TIME=1.7e+12\nFIX_DECAY_TIME=3600\n'
    printf 'REF_SOURCE_DISPLAY=1'
}

for p in 0.02 0.05 0.1 0.3; do
    # create over an existing file, and into a directory that does not exist yet
    mkdir -p "$work/create"
    record 99999 >"$work/create/tcxo.cal"
    for ((i = 0; i < runs; i++)); do
        cp "$work/create/tcxo.cal" "$work/old"
        set +e
        faulted "$p" create "$work/create/tcxo.cal" --force --field-tcxo "$i" "${example[@]}"
        status=$?
        set -e
        record "$i" >"$work/new.expected"
        check_run "create p=$p run $i" "$work/create" "$status" "$work/old" "$work/new.expected"
        if ((i % 4 == 0)); then
            set +e
            faulted "$p" create "$work/new/d$i/tcxo.cal" --field-tcxo "$i" "${example[@]}"
            status=$?
            set -e
            mkdir -p "$work/new/d$i"
            check_run "create in a new directory p=$p run $i" "$work/new/d$i" "$status" "" "$work/new.expected"
            rm -rf "$work/new"
        fi
    done
    # field updates, each to a new DAC value, with temperature and sensitivity every other run
    mkdir -p "$work/field"
    record 1 >"$work/field/tcxo.cal"
    for ((i = 0; i < runs; i++)); do
        cp "$work/field/tcxo.cal" "$work/old"
        dac=$((2000 + i))
        sed -E "s/^FIELD_TCXO=.*/FIELD_TCXO=$dac/" "$work/old" >"$work/new.expected"
        options=()
        if ((i % 2)); then
            options=(--temperature "$((i % 50)).5" --sensitivity 0.0126)
            sed -E "s/^FIELD_TCXO=.*/FIELD_TCXO=$dac/; s/^FIELD_TEMPERATURE=.*/FIELD_TEMPERATURE=$((i % 50)).5/;
                s/^FIELD_TUNING_SENSITIVITY=.*/FIELD_TUNING_SENSITIVITY=0.0126/; s/^FIELD_FIX_TIME=.*/FIELD_FIX_TIME=<now>/" \
                "$work/old" >"$work/new.expected"
        fi
        set +e
        faulted "$p" field "$work/field/tcxo.cal" "$dac" "${options[@]}"
        status=$?
        set -e
        check_run "field p=$p run $i" "$work/field" "$status" "$work/old" "$work/new.expected"
    done
done
fault_seconds=$((SECONDS - started))

# Crash consistency: a process doing field updates (1000 to 1009 in turn) killed at random
# moments, start-up included. The file must be whole each time: the record with one of the ten
# values.
started=$SECONDS
mkdir -p "$killWork/kill"
record 1000 >"$killWork/kill/tcxo.cal"
midWrite=0
for ((k = 0; k < kills; k++)); do
    "$driver" --repeat 1000000 -- field "$killWork/kill/tcxo.cal" %d >/dev/null 2>"$work/err" &
    pid=$!
    sleep "0.$(printf '%03d' $((RANDOM % 400)))"
    kill -KILL "$pid"
    wait "$pid" 2>/dev/null || true
    value=$(sed -n 's/^FIELD_TCXO=//p' "$killWork/kill/tcxo.cal" 2>/dev/null || true)
    if ! [[ "$value" =~ ^100[0-9]$ ]] || ! cmp -s "$killWork/kill/tcxo.cal" <(record "$value"); then
        violation "kill $k" "the file is no whole record: $(tr '\n' '|' <"$killWork/kill/tcxo.cal")"
        record 1000 >"$killWork/kill/tcxo.cal"
    fi
    # Every write removes the stale temporary files first: at most the killed writer's is left.
    temporaries=$(find "$killWork/kill" -name '.tcxo.cal.krpal-??????' | wc -l)
    others=$(find "$killWork/kill" -mindepth 1 ! -name tcxo.cal ! -name '.tcxo.cal.krpal-??????' | wc -l)
    ((temporaries <= 1 && others == 0)) || violation "kill $k" "left beside the file: $(ls -A "$killWork/kill" | tr '\n' ' ')"
    midWrite=$((midWrite + temporaries))
done
# The next write after the last kill removes what the killed writer left.
"$driver" -- field "$killWork/kill/tcxo.cal" 999 >/dev/null 2>"$work/err" || violation "after the kills" "the update failed"
[ "$(ls -A "$killWork/kill")" = "tcxo.cal" ] || violation "after the kills" "left: $(ls -A "$killWork/kill" | tr '\n' ' ')"
kill_seconds=$((SECONDS - started))

# The device proxies through a pseudo-terminal: read and write fail with EIO, EINTR or EAGAIN,
# poll with EINTR or EAGAIN (all it can return of them).
started=$SECONDS
EAGAIN=11
errnoName[$EAGAIN]=EAGAIN
proxy_runs=0
: >"$work/proxyfaults.log"
: >"$work/proxyout.log"
if [ -n "$proxyDriver" ]; then
    for p in 0.02 0.05 0.1 0.3; do
        for ((i = 0; i < proxyRuns; i++)); do
            set +e
            fiu-run -x "$(realpath "$proxyDriver")" --seed "$RANDOM$RANDOM" --ops "$proxyOps" \
                --fault "posix/io/rw/read=$p:$EIO,$EINTR,$EAGAIN" --fault "posix/io/rw/write=$p:$EIO,$EINTR,$EAGAIN" \
                --fault "posix/io/net/poll=$p:$EINTR,$EAGAIN" >"$work/out" 2>"$work/err" 3>"$work/run.faults"
            status=$?
            set -e
            proxy_runs=$((proxy_runs + 1))
            cat "$work/out" >>"$work/proxyout.log"
            cat "$work/run.faults" >>"$work/proxyfaults.log"
            found=$(grep -c '^VIOLATION' "$work/err" || true)
            if [ "$status" -ne 0 ] || [ "$found" -ne 0 ]; then
                violations=$((violations + (found > 0 ? found : 1)))
                echo "VIOLATION (proxies p=$p run $i): exit status $status" >&2
                sed 's/^/    /' "$work/err" >&2
            fi
        done
    done
fi
proxy_seconds=$((SECONDS - started))

echo "fault injection: $total_runs runs in $fault_seconds s ($changed changed the file, $unchanged left it as it was)"
echo "faults injected by kind (point, errno, count):"
while read -r point errno count; do echo "$point ${errnoName[$errno]} $count"; done <"$work/faults.log" |
    awk '{ count[$1 " " $2] += $3; all += $3 } END { for (k in count) print "  " k, count[k]; print "  all", all + 0 }' |
    sort
echo "crash consistency: $kills kills in $kill_seconds s, $midWrite of them during a write (a temporary file left, removed by the next write)"
if [ -n "$proxyDriver" ]; then
    echo -n "device proxies: $proxy_runs runs of both proxies in $proxy_seconds s: "
    awk '{ ops += $3; failed += $5; late += $8; discarded += $12 }
        END { print ops " operations, " failed " of them -1, " late " late replies taken, " discarded " input bytes discarded at a reopen" }' \
        "$work/proxyout.log"
    echo "faults injected by kind (point, errno, count):"
    while read -r point errno count; do echo "$point ${errnoName[$errno]} $count"; done <"$work/proxyfaults.log" |
        awk '{ count[$1 " " $2] += $3; all += $3 } END { for (k in count) print "  " k, count[k]; print "  all", all + 0 }' |
        sort
fi
echo "invariant violations: $violations"
[ "$violations" -eq 0 ] && rm -rf "$work" "$killWork"
[ "$violations" -eq 0 ]
