#!/usr/bin/env bash
# A tour with a real daemon and a real application: a process goes wild and is found, its hot thread's stack is shown,
# the overload is on record, a crash is captured and read back after the daemon was killed. Ends what it started.
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

# Shows a command as a user would type it.
show() {
    local word text=''
    for word in "$@"; do
        [[ $word != *[\{\ ]* ]] || word="'$word'"
        text+=" $word"
    done
    printf '%s$%s%s\n' "$dim" "$text" "$plain"
}

tarnctl() { "$bin/tarnctl" "$@"; }

# Shows a command and runs it.
run() {
    show "$@"
    "$@" 2>&1
}

# The same, but only the first lines of what it prints.
run_head() {
    local lines=$1 out=$work/out
    shift
    show "$@"
    "$@" >"$out" 2>&1
    head -n "$lines" "$out"
    [[ $(wc -l <"$out") -le $lines ]] || printf '... and %s lines more\n' $(($(wc -l <"$out") - lines))
}

# Waits until a command succeeds, at most 20 s.
await() {
    for _ in {1..200}; do
        ! "$@" >/dev/null 2>&1 || return 0
        sleep 0.1
    done
    printf 'demo: this did not come true within 20 s: %s\n' "$*" >&2
    return 1
}

start_daemon() {
    "$bin/tarnd" --log-dir "$work/log" --state-dir "$work/state" --sample-interval 250 --print-accounting \
        >"$work/accounting" 2>>"$work/daemon.log" &
    daemon=$!
    await tarnctl call PidIsOnline "{\"uiPid\": $daemon}"
}

start_application() {
    "$bin/tarn-agent" --name example 2>>"$work/agent.log" &
    agent=$!
    await agent_answers
}

agent_answers() { tarnctl call DBGCmdExecResultGetByTarnd "{\"uiTargetPid\": $agent}"; }

# A debug command inside the application, through the daemon.
command_agent() { run tarnctl call DBGCmdExecShowByTarnd "{\"pcCmdStr\": \"$1\", \"uiTargetPid\": $agent}"; }

spins() { tarnctl call CalculateProcThreadCpuUse "{\"uiPid\": $agent}" --json | grep -q '"spinning"'; }

say "A daemon, and an application with a diagnosis agent in it"
start_daemon
start_application
run tarnctl services

say "The daemon shall watch the application: more than 15 % of a CPU for a second is an overload"
run tarnctl call SetCpuOvProcThreshold "{\"uiValue1\": $agent, \"ucValue2\": 1, \"uiValue3\": 150, \"uiValue4\": 1}"

say "The application goes wild: a debug command starts a thread that runs without a break"
command_agent "loop 60"
await spins
sleep 1

say "Something eats the machine. What?"
run_head 12 tarnctl top

say "The application is process $agent. Which of its threads is it?"
run tarnctl call CalculateProcThreadCpuUse "{\"uiPid\": $agent, \"uiValue2\": 3}"
thread=$(tarnctl call CalculateProcThreadCpuUse "{\"uiPid\": $agent, \"uiValue2\": 1}" --json |
    sed -n '/"pstThread"/,$ s/^ *"uiValue1": \([0-9]*\),$/\1/p' | head -n 1)

say "What is thread $thread doing? Its stack says it, and the thread was held up for microseconds only"
run tarnctl call GetCallStackInfoByTid "{\"uiPid\": $agent, \"uiTid\": $thread}"

say "Nobody has to be there when it happens: the overload is on record, with the stacks of that moment"
await tarnctl call DisCpuOvloadInfo
run tarnctl call DisCpuOvloadInfo
run_head 16 tarnctl call DisCpuOvloadCallstackInfo

say "Then the application crashes"
command_agent "crash segv"
wait "$agent" 2>/dev/null || true
agent=''

say "... and somebody kills the daemon, without a warning. The new one knows the crash: signal, registers, stack"
{ kill -KILL "$daemon" && wait "$daemon"; } 2>/dev/null || true # or bash tells of it
start_daemon
run_head 24 tarnctl call GetExceptionInfo '{"uiValue3": 1}'

say "The application is started again, and the daemon passes commands on to it as before"
start_application
command_agent "counter"
sleep 0.3
run tarnctl call DBGCmdExecResultGetByTarnd "{\"uiTargetPid\": $agent}"

say "A malformed request is refused, and tarnctl says why: the root offset is 200, the message has 18 bytes"
tarnctl encode Pid '{"uiPid": 1}' -o "$work/good"
{ printf '\xc8\x00\x00\x00'; tail -c +5 "$work/good"; } >"$work/broken"
run tarnctl decode Pid "$work/broken" --explain || true
run tarnctl call GetAllTidsByPid --raw "$work/broken" || printf '(exit code %s)\n' $?

say "What did all that cost?"
run tarnctl call PidIsOnline "{\"uiPid\": $daemon}" --repeat 2000
run_head 8 tarnctl stats

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
