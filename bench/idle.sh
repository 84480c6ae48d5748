#!/bin/bash
# What the daemon takes of one CPU beside 2000 processes that sleep: idle.sh DIRECTORY [SECONDS]. The directory has the
# programs; each figure is measured over so many seconds, 60 if not given: once in that time all processes are read.
set -euo pipefail
programs=$1 seconds=${2:-60} number=2000
work=$(mktemp -d)
pids=()
cleanup() {
    kill "${pids[@]}" 2>/dev/null || true
    rm -rf "$work"
}
trap cleanup EXIT

for ((i = 0; i < number; ++i)); do
    sleep infinity &
    pids+=($!)
done
mkdir "$work/logs"
"$programs/tarnd" --run-dir "$work" --log-dir "$work/logs" --state-dir "$work/state" >"$work/out" 2>"$work/err" &
daemon=$!
pids+=("$daemon")
until grep -q 'serving in' "$work/err"; do
    kill -0 "$daemon" || { cat "$work/err" >&2; exit 1; }
    sleep 0.1
done

# In ticks of 10 ms, its threads that have ended among them.
used() { awk '{ sub(/.*\) /, ""); print $12 + $13 }' "/proc/$daemon/stat"; }

# measure WHAT [COMMAND...], which is run each second.
measure() {
    local what=$1 before after i
    shift
    before=$(used)
    for ((i = 0; i < seconds; ++i)); do
        [[ $# -eq 0 ]] || "$@" >/dev/null
        sleep 1
    done
    after=$(used)
    awk -v ticks=$((after - before)) -v seconds="$seconds" -v what="$what" \
        'BEGIN { printf "%-45s %6.2f %%\n", what, ticks / seconds }'
}

call() { "$programs/tarnctl" call "$@" --run-dir "$work"; }

# For a CPU that is busy for long, as others may keep one here, processes are sampled whoever looks.
call TarnPadsSetPadsAppFunSwitchByTarnd item=cpu-event on=0 >/dev/null
printf '%s processes sleep; the daemon takes of one CPU:\n' "$number"
measure 'nobody looks'
call SysOvLoadMemThresholdSet begins-at=90% >/dev/null
measure "with the system's threshold of memory"
call SysOvLoadCpuThresholdSet begins-at=90% must-last=10s >/dev/null
measure "with that of CPU time as well"
measure 'somebody asks for all threads each second' call CalculateAllThreadCpuUse interval=1s most=10
