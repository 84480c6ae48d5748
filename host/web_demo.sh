#!/usr/bin/env bash
# A daemon, an application that keeps a CPU busy now and then, and the page that shows them, until it is interrupted.
#   host/web_demo.sh BUILD_DIR PAGE
set -euo pipefail

bin=$(realpath "$1") page=$(realpath "$2")
work=$(mktemp -d)
export TARN_RUN_DIR=$work/run PATH=$bin:$PATH
mkdir -p "$work/log"
started=()

cleanup() {
    kill "${started[@]}" 2>/dev/null || true
    wait
    rm -rf "$work"
}
trap cleanup EXIT
trap 'exit 0' INT TERM

. "$(dirname "$0")/tour.sh"

tarnd --log-dir "$work/log" --state-dir "$work/state" --sample-interval 500 2>"$work/daemon.log" &
started+=($!)
await tarnctl call PidIsOnline process=$!
tarn-agent --name example 2>"$work/agent.log" &
started+=($!)
await tarnctl exec example help
tarnctl settings set cpu.begins-at=30% cpu.must-last=5s
tarn-web --page "$page" --allow settings commands ${TARN_WEB_OPTIONS:-} >"$work/address" 2>"$work/web.log" &
web=$!
started+=("$web")
until [[ -s $work/address ]]; do
    kill -0 "$web" || { cat "$work/web.log" >&2; exit 1; }
    sleep 0.1
done
cat <<EOT
A daemon runs here, and an application that keeps a CPU busy half of the time. The page, until Ctrl-C:

    $(cat "$work/address")
EOT
while kill -0 "$web" 2>/dev/null; do
    tarnctl exec example loop 30 >"$work/loop" 2>&1 || true
    sleep 60 &
    wait $! || true
done
