#!/usr/bin/env bash
# The shortest tour: a daemon, an application with an agent, ten calls. Each must be answered, and at the end no memory
# is held. It takes no rights and nothing but the programs, so it shows on any machine whether they run there.
#   host/ten_calls.sh BUILD_DIR
set -euo pipefail

bin=$(realpath "$1")
work=$(mktemp -d)
export TARN_RUN_DIR=$work/run PATH=$bin:$PATH
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

die() {
    printf 'ten_calls: %s\n' "$*" >&2
    cat "$work"/*.err >&2
    exit 1
}

# Until a command succeeds, as long as what it asks lives.
await() {
    local pid=$1 end=$((SECONDS + 60))
    shift
    until "$@" >/dev/null 2>&1; do
        kill -0 "$pid" 2>/dev/null || die "ended early: $*"
        ((SECONDS < end)) || die "did not come true within a minute: $*"
        sleep 0.1
    done
}

call() {
    printf '$ tarnctl call %s\n' "$*"
    tarnctl call "$@" || die "not answered: $*"
}

tarnd --log-dir "$work/log" --state-dir "$work/state" --print-accounting >"$work/accounting" 2>"$work/tarnd.err" &
daemon=$!
await "$daemon" tarnctl call PidIsOnline process="$daemon"
tarn-agent --name example 2>"$work/agent.err" &
agent=$!
await "$agent" tarnctl stats --pid "$agent"

call PidIsOnline process="$agent"
call GetProcStatByPid process="$agent"
call GetAllTidsByPid process="$agent"
call MultiCpuUsageQuery
call GetKpiMemoryInfo
call GetSysMemUseInfo
call SetCpuOvProcThreshold process="$agent" on=on begins-at=5% must-last=1s
tarnctl call DBGCmdExecShowByTarnd process="$agent" command=counter >/dev/null # has no reply
await "$agent" tarnctl call DBGCmdExecResultGetByTarnd process="$agent"
call DBGCmdExecResultGetByTarnd process="$agent"
call GetExceptionInfo most=1
call TarnPadsGetSystemHealthInfoByTarnd

for name in agent daemon; do
    kill -TERM "${!name}"
    wait "${!name}" || die "$name: ended with $?"
    declare "$name="
done
awk '$1 == "total" && $2 == 0 { clean = 1 } END { exit !clean }' "$work/accounting" || die "blocks are still live"
echo 'Ten calls, ten answers.'
