#!/usr/bin/env bash
# A tour with a real daemon and a real agent: starts both, asks them, breaks a message on purpose, and ends them.
#   host/demo.sh BUILD_DIR
set -euo pipefail

bin=$(realpath "$1")
work=$(mktemp -d)
export TARN_RUN_DIR=$work/run
mkdir -p "$work/log"
daemon='' agent=''

cleanup() {
    local pid
    for pid in $agent $daemon; do
        kill "$pid" 2>/dev/null || true
    done
    rm -rf "$work"
}
trap cleanup EXIT

if [[ -t 1 ]]; then bold=$'\e[1m' dim=$'\e[2m' plain=$'\e[0m'; else bold='' dim='' plain=''; fi

say() { printf '\n%s%s%s\n' "$bold" "$*" "$plain"; }

# Shows a command as a user would type it, and runs it.
run() {
    printf '%s$ %s%s\n' "$dim" "$*" "$plain"
    local words=("$@")
    [[ $1 != tarnctl ]] || words[0]=$bin/tarnctl
    "${words[@]}" 2>&1
}

# Waits until a command succeeds, at most 5 s.
await() {
    for _ in {1..100}; do
        ! "$@" >/dev/null 2>&1 || return 0
        sleep 0.05
    done
    printf 'demo: this did not come true within 5 s: %s\n' "$*" >&2
    return 1
}

registered() { grep -q "agent .*$agent" "$work/daemon.log"; }

say "A daemon, and an application with a diagnosis agent in it"
"$bin/tarnd" --log-dir "$work/log" --print-accounting >"$work/accounting" 2>"$work/daemon.log" &
daemon=$!
await test -S "$TARN_RUN_DIR/TarnSysdiagTarnd.sock"
"$bin/tarn-agent" --name example 2>"$work/agent.log" &
agent=$!
await registered
printf 'tarnd is process %s, the application with its agent process %s.\n' "$daemon" "$agent"

say "What the daemon can be asked (the first methods of its service)"
"$bin/tarnctl" list TarnSysdiagTarnd >"$work/list"
printf '%s$ tarnctl list TarnSysdiagTarnd%s\n' "$dim" "$plain"
head -n 8 "$work/list"
printf '... and %s lines more\n' $(($(wc -l <"$work/list") - 8))

say "Is the application online? Which threads has it, what do they do, how much CPU time do they use?"
run tarnctl call PidIsOnline "{\"uiPid\": $agent}"
run tarnctl call GetAllTidsByPid "{\"uiPid\": $agent}"
run tarnctl call CalculateOsProcCpuUse "{\"uiPid\": $agent, \"uiValue1\": 300}"

say "Huge pages of this machine"
run tarnctl call GetHugePagesInfo

say "A debug command, through the daemon, inside the application"
run tarnctl call DBGCmdExecShowByTarnd "{\"pcCmdStr\": \"threads\", \"uiTargetPid\": $agent}"
sleep 0.2
run tarnctl call DBGCmdExecResultGetByTarnd "{\"uiTargetPid\": $agent}"

say "A process that does not exist is an error, not zeros"
run tarnctl call GetAllTidsByPid '{"uiPid": 4000000000}' || printf '(exit code %s)\n' $?

say "A malformed request: the root offset says 200, the message has 18 bytes"
"$bin/tarnctl" encode Pid '{"uiPid": 1}' -o "$work/good"
{ printf '\xc8\x00\x00\x00'; tail -c +5 "$work/good"; } >"$work/broken"
run tarnctl decode Pid "$work/broken" --explain || true
run tarnctl call GetAllTidsByPid --raw "$work/broken" || printf '(exit code %s)\n' $?
printf 'The daemon logged:\n'
grep 'VELTO' "$work/daemon.log"

say "The end: both shut down cleanly, and the library has given back all memory"
kill -TERM "$agent"
wait "$agent"
agent=''
kill -TERM "$daemon"
wait "$daemon"
daemon=''
cat "$work/accounting"
awk '$1 == "total" && $2 == 0 { clean = 1 } END { exit !clean }' "$work/accounting" || {
    printf 'demo: blocks are still live\n' >&2
    exit 1
}
