#!/usr/bin/env bash
# units.sh UNITS PROGRAMS: the units in the one directory are well-formed for the programs in the other, and confine them.
set -euo pipefail
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
for unit in tarnd tarn-master tarn-relay tarn-web; do
    sed "s#^ExecStart=[^ ]*/#ExecStart=$2/#" "$1/$unit.service" >"$scratch/$unit.service"
done
verify() { systemd-analyze verify --man=no "$@" 2>&1; }
errors=$(verify "$scratch"/*.service) || { echo "$errors"; exit 1; }
[[ -z $errors ]] || { echo "$errors"; exit 1; }
# From 0, confined, to 100, exposed.
systemd-analyze security --offline=true --threshold=40 --no-pager "$scratch/tarnd.service" | tail -n 1
systemd-analyze security --offline=true --threshold=10 --no-pager "$scratch/tarn-master.service" | tail -n 1
systemd-analyze security --offline=true --threshold=20 --no-pager "$scratch/tarn-relay.service" | tail -n 1
systemd-analyze security --offline=true --threshold=20 --no-pager "$scratch/tarn-web.service" | tail -n 1

# What is checked is seen where it is wrong.
echo 'NoSuchSetting=yes' >>"$scratch/tarnd.service"
[[ -n $(verify "$scratch/tarnd.service") ]] || { echo 'a setting that does not exist went unnoticed'; exit 1; }
