#!/usr/bin/env bash
# start.sh: what the packages have installed, started with what its units give and deny it, in a system where nothing
# else runs.
set -euo pipefail

die() { printf '%s\n' "$*"; cat /tmp/*.log; exit 1; }
trap 'die "start.sh: line $LINENO"' ERR

units=/lib/systemd/system
value() { sed -n "s/^$2=//p" "$units/$1.service"; }

systemd-tmpfiles --create tarn-host.conf # as when the system starts

# The file system is read-only but for what the units write.
writable=(/tmp)
for unit in tarnd tarn-master tarn-web; do
    user=$(value $unit User)
    for directory in $(value $unit StateDirectory); do
        install -d -o "$user" -g "$user" -m "$(value $unit StateDirectoryMode)" "/var/lib/$directory"
        writable+=("/var/lib/$directory")
    done
    for directory in $(value $unit LogsDirectory); do
        install -d -o "$user" -g "$user" -m "$(value $unit LogsDirectoryMode)" "/var/log/$directory"
        writable+=("/var/log/$directory")
    done
    writable+=($(value $unit ReadWritePaths))
done
writable+=(/etc/tarn) # this script's own
for directory in $(printf '%s\n' "${writable[@]}" | sort -u); do
    mount --bind "$directory" "$directory"
done
mount -o remount,ro,bind /

# Sets of capabilities as setpriv writes them.
set_of() { sed 's/cap_/+/g; s/ /,/g' <<<"${1,,}"; }

# start UNIT: as its unit's user, with its capabilities and system calls, in the background.
start() {
    local unit=$1 user bounding ambient
    user=$(value "$unit" User)
    bounding=$(set_of "$(value "$unit" CapabilityBoundingSet)") ambient=$(set_of "$(value "$unit" AmbientCapabilities)")
    setpriv --reuid "$user" --regid "$user" --init-groups --no-new-privs \
        --bounding-set "-all${bounding:+,$bounding}" --inh-caps "-all${ambient:+,$ambient}" \
        --ambient-caps "-all${ambient:+,$ambient}" \
        env -i "$(command -v filtered)" "/usr/local/share/$unit.service.calls" $(value "$unit" ExecStart | sed 's/ [$].*//') \
        2>"/tmp/$unit.log" &
    pids[$unit]=$!
}

# Waits until a command succeeds.
await() {
    local end=$((SECONDS + 60))
    until "$@" >/tmp/await.log 2>&1; do
        ((SECONDS < end)) || die "this did not come true: $*"
        sleep 0.1
    done
}

# has TEXT COMMAND...: the command's output has it.
has() { [[ $("${@:2}" 2>&1) == *"$1"* ]]; }

# expect WHAT FOUND EXPECTED
expect() { [[ $2 == "$3" ]] || die "$1: found '$2', expected '$3'"; }

declare -A pids
umask 022
start tarnd
start tarn-master
await has 'TarnSysdiagMaster' tarnctl services
await tarnctl call PidIsOnline process=$$
await tarnctl stats TarnSysdiagMaster

status() { sed -n "s/^$2:[[:space:]]*//p" "/proc/${pids[$1]}/status"; }
expect "tarnd's user" "$(status tarnd Uid | cut -f1)" "$(id -u tarn)"
expect "tarnd's capabilities" "$(status tarnd CapEff)" 0000000000080004 # CAP_SYS_PTRACE, CAP_DAC_READ_SEARCH
expect "tarn-master's capabilities" "$(status tarn-master CapEff)" 0000000000000000

# A process of root's is looked into with root's rights, which takes what only the helpers' starter keeps.
has 'main+' tarnctl call GetCallStackInfoByTid process=$$ thread=$$ || die "no stack of root's process"

setpriv --reuid tarn --regid tarn --init-groups tarn-agent 2>/tmp/agent.log &
await has 'TarnSysdiagAgent' tarnctl services

online='import tarn; print(tarn.connect().call("PidIsOnline", process=1).online)'
expect "the Python module's answer" "$(python3 -c "$online")" True

start tarn-web
await test -s /var/lib/tarn-web/token
expect "tarn-web's user" "$(status tarn-web Uid | cut -f1)" "$(id -u tarn-web)"
expect "tarn-web's capabilities" "$(status tarn-web CapEff)" 0000000000000000
page() {
    python3 -c 'import sys, urllib.request as web
token = open("/var/lib/tarn-web/token").read().strip()
request = web.Request("http://127.0.0.1:8010" + sys.argv[1], headers={"Authorization": "Bearer " + token})
print(web.urlopen(request).read().decode())' "$1"
}
await has '"version"' page /api/about
has 'Chart.js v' page /chart.js || die "no plots"

cp /etc/tarn/policy /tmp/policy
echo 'reading same-user user:root user:tarn-web' >>/etc/tarn/policy
sed -i '0,/^reading /{/^reading /d}' /etc/tarn/policy
kill -HUP "${pids[tarnd]}"
await has '"rows"' page /api/ask/settings
cat /tmp/policy >/etc/tarn/policy
echo nonsense >>/etc/tarn/policy
kill -HUP "${pids[tarnd]}"
await has '"nonsense", expected reading' tarnctl stats
cat /tmp/policy >/etc/tarn/policy

for unit in tarn-web tarnd tarn-master; do
    kill "${pids[$unit]}"
    wait "${pids[$unit]}" || die "$unit: found exit status $?, expected 0"
done
echo 'started, answered, reloaded, stopped'
