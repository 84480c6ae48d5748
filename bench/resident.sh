#!/usr/bin/env bash
# resident.sh BUILD [SYSROOT]: the resident memory of tarnd, tarn-master and the agent's example, in KiB, once the daemon
# has sampled for 20 s and each has been called. With a SYSROOT they are programs for 32-bit ARM and run under qemu, which
# is not counted: all that a program has lies above an address where the emulator has nothing.
set -euo pipefail
bin=$(realpath "$1") sysroot=${2:-}
source=$(realpath "$(dirname "$0")/..")
work=$(mktemp -d)
export TARN_RUN_DIR=$work/run
mkdir "$work/log"
pids=()
trap 'kill "${pids[@]}" 2>/dev/null || true; wait; rm -rf "$work"' EXIT

runner=() own=.
if [[ -n $sysroot ]]; then
    runner=(qemu-arm -B 0x10000000000 -L "$sysroot")
    own='^100........-'
fi

start() {
    "${runner[@]}" "$bin/$1" "${@:2}" >"$work/$1.out" 2>"$work/$1.err" &
    pids+=($!)
}
answers() { "${runner[@]}" "$bin/tarnctl" "$@" >/dev/null 2>&1; }
await() {
    local end=$((SECONDS + 120))
    until answers "$@"; do
        ((SECONDS < end)) || { echo "no answer to: $*"; cat "$work"/*.err; exit 1; }
        sleep 0.2
    done
}

start tarnd --log-dir "$work/log" --state-dir "$work/state"
await call PidIsOnline process=$$
start tarn-master "$source/host/master/master.conf"
await stats TarnSysdiagMaster
start tarn-agent --name example
await stats --pid "${pids[2]}"
sleep 20
await call GetProcStatByPid process="${pids[2]}"
await call GetSysMemUseInfo

printf '%-12s %8s %8s %8s\n' program Rss Pss private
names=(tarnd tarn-master tarn-agent)
for i in 0 1 2; do
    awk -v name="${names[i]}" -v own="$own" '
        /^[0-9a-f]+-[0-9a-f]+ / { counts = $0 ~ own }
        counts && $1 == "Rss:" { rss += $2 }
        counts && $1 == "Pss:" { pss += $2 }
        counts && /^Private_/ { private += $2 }
        END { printf "%-12s %8d %8d %8d\n", name, rss, pss, private }' "/proc/${pids[i]}/smaps"
done
