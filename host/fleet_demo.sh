#!/usr/bin/env bash
# A tour of a fleet: a server, and three devices with a daemon and a relay each, all on loopback. Ends what it started.
#   host/fleet_demo.sh BUILD_DIR
set -euo pipefail

bin=$(realpath "$1")
work=$(mktemp -d)
export XDG_CONFIG_HOME=$work PATH=$bin:$PATH:/usr/sbin
started=()

cleanup() {
    [[ ${#started[@]} -eq 0 ]] || kill "${started[@]}" 2>/dev/null || true
    wait
    rm -rf "$work"
}
trap cleanup EXIT
trap 'exit 141' PIPE # the reader has seen enough

. "$(dirname "$0")/tour.sh"

# start NAME COMMAND...: in the background, with a log of that name.
start() {
    "${@:2}" >"$work/$1.log" 2>&1 &
    started+=($!)
}

start_server() {
    cat >"$work/server.conf" <<EOT
listen: "127.0.0.1:-1"
jetstream { store_dir: "$work/streams" }
EOT
    start server nats-server --config "$work/server.conf"
    await grep -q 'Server is ready' "$work/server.log"
    url=nats://$(sed -n 's/.*client connections on //p' "$work/server.log")
}

# A machine of its own, but for its processes, which are all this one's.
start_device() {
    local name=$1 place=$work/$1
    mkdir -p "$place/run" "$place/log"
    printf '%s\n' "server = $url" "device = $name" 'groups = reading settings' >"$place/relay.conf"
    [[ ${#devices[@]} -gt 0 ]] || tarn-relay --make-streams "$place/relay.conf"
    devices+=("$name")
    start "$name.daemon" tarnd --run-dir "$place/run" --log-dir "$place/log" --state-dir "$place/state"
    await tarnctl --run-dir "$place/run" call PidIsOnline process=1
    start "$name.relay" tarn-relay --run-dir "$place/run" "$place/relay.conf"
}
all_serve() { [[ $(tarnctl devices | grep -c ' serving ') -eq ${#devices[@]} ]]; }
carried() { [[ $(tarnctl fleet events --kind setting | wc -l) -ge $1 ]]; }

devices=()
start_server
for device in press-1 press-2 mill-1; do
    start_device "$device"
done
mkdir -p "$work/tarn/contexts"
echo "server = $url" >"$work/tarn/contexts/plant-7"

cat <<EOT
A server carries questions to many devices, and what happens on them back. Here it has three, each a daemon with a
relay beside it. They are one machine, so their figures resemble each other.
EOT

say "Which fleet is meant? A context says it from now on"
run tarnctl context use plant-7

say "Who is there?"
await all_serve
run tarnctl devices

say "One question to all presses: an object a line, as answers come"
run tarnctl fleet call GetKpiMemoryInfo --devices 'press-*'

say "One device, asked as if it were this machine"
run_head 6 tarnctl --device mill-1 health
run_head 6 tarnctl --device mill-1 ps --sort cpu

say "Which device is the busiest, and with which process?"
run_head 13 tarnctl fleet top --batch

say "A setting for all presses: first what it would change, then the change itself, ten devices at a time"
run tarnctl fleet set cpu.begins-at=90% --devices 'press-*' --dry-run
run tarnctl fleet set cpu.begins-at=90% --devices 'press-*'

say "The relay of mill-1 passes on what it was told to: reading and settings, and no commands"
run tarnctl --device mill-1 settings set cpu.begins-at=85%
run tarnctl fleet call ProcTableBuild options=as-tree || true

say "What happened on them all is in the server's stream: who set what, for example"
await carried 1
run tarnctl fleet events --since 1h --kind setting

say "A device that goes is noticed, and does not hold up the others"
kill "${started[-1]}"
wait "${started[-1]}" || true
unset 'started[-1]'
run tarnctl fleet call PidIsOnline process=1 || true

say "The end"
echo "docs/fleet.md has keys, roles and what to size. Nothing of the above is left running."
