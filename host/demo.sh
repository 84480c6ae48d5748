#!/usr/bin/env bash
# A tour with a real daemon and a real application: a process goes wild and is found, its hot thread's stack is shown,
# the overload is on record, a crash is captured and read back after the daemon was killed. Ends what it started.
#   host/demo.sh BUILD_DIR
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
trap 'exit 141' PIPE # the reader has seen enough

. "$(dirname "$0")/tour.sh"

start_daemon() {
    tarnd --log-dir "$work/log" --state-dir "$work/state" --sample-interval 250 --print-accounting \
        >"$work/accounting" 2>>"$work/daemon.log" &
    daemon=$!
    await tarnctl call PidIsOnline process="$daemon"
}

start_application() {
    tarn-agent --name example 2>>"$work/agent.log" &
    agent=$!
    await known
}

# A debug command inside the application, through the daemon.
command_agent() { run tarnctl exec example "$@"; }

# The thread that uses the most CPU time of the application: its name and its id, a line each.
busiest_thread() {
    tarnctl call CalculateProcThreadCpuUse process="$agent" most=1 --json=named |
        sed -n 's/^ *"\(name\|thread\)": "\?\([a-z0-9-]*\)"\?,$/\2/p'
}
spins() { busiest_thread | grep -q spinning; }
over_threshold() { tarnctl overloads show && spins; }
known() { tarnctl exec example help; }

cat <<EOT
Tarnd runs on devices and answers what is wrong with them, without a debugger and without stopping anything. Here it
watches an application that runs wild and then crashes. Nothing is staged: the commands are the ones that you would
type, and the figures are this machine's.
EOT

say "A daemon, and an application with a diagnosis agent in it"
start_daemon
start_application
run tarnctl services

say "The daemon shall watch the application: more than 5 % of a CPU for a second is an overload"
run tarnctl call SetCpuOvProcThreshold process="$agent" on=on begins-at=5% must-last=1s

say "The application goes wild: a debug command starts a thread that runs without a break"
command_agent loop 60
await over_threshold

say "Something eats the machine. What?"
run_head 12 tarnctl top

say "The application is process $agent. Which of its threads is it?"
run_head 8 tarnctl top example
thread=$(busiest_thread | sed -n 2p)

say "What is thread $thread doing? Its stack says it; \"held up\" is for how long it had to stand still for that"
run tarnctl stack example -t "$thread"

say "... and where does it spend its time?"
run tarnctl stack example -t "$thread" --samples 20 --every 20ms

say "Nobody has to be there when it happens: the overload is on record, with the stacks of that moment"
run tarnctl overloads
run_head 16 tarnctl overloads show

say "Then the application crashes"
command_agent crash segv || true # nobody is left to answer
wait "$agent" 2>/dev/null || true
agent=''

say "... and somebody kills the daemon, without a warning. The new one knows the crash: signal, registers, stack"
{ kill -KILL "$daemon" && wait "$daemon"; } 2>/dev/null || true # or bash tells of it
start_daemon
run tarnctl crashes
run_head 24 tarnctl crashes show 1

say "What else happened, in its order? Whoever asks with --follow is told of what comes, too"
run tarnctl events --since 1h

say "The application is started again, and the daemon passes commands on to it as before"
start_application
command_agent counter

say "A malformed request is refused, and tarnctl says why: the root offset is 200, the message has 18 bytes"
cd "$work"
tarnctl encode Pid process=1 -o good
{ printf '\xc8\x00\x00\x00'; tail -c +5 good; } >broken
run tarnctl decode Pid broken --explain || true
run tarnctl call GetAllTidsByPid --raw broken || printf '(exit code %s)\n' $?

say "What did all that cost?"
run tarnctl call PidIsOnline process="$daemon" --repeat 2000
run_head 8 tarnctl stats

say "The end: both shut down cleanly, and the library has given back all memory (no blocks are live)"
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

say "That was it"
printf 'The programs are in %s; "Five minutes" in README.md starts them for you to play with.\n' "$bin"
printf './dev web shows such a machine in a browser.\n'
