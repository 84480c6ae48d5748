#!/usr/bin/env bash
# installed.sh BUILD [sanitized]: what `cmake --install` puts under a prefix works there, and after the prefix was
# moved, without the build tree's help: the programs start and answer, and pkg-config finds headers and library.
set -euo pipefail
build=$1
scratch=$(mktemp -d)
daemon=
trap '[[ -z $daemon ]] || kill "$daemon"; rm -rf "$scratch"' EXIT
export LD_LIBRARY_PATH='' XDG_STATE_HOME=$scratch/state TARN_RUN_DIR=$scratch/run

cmake --install "$build" --prefix "$scratch/first" >"$scratch/install.log"
mv "$scratch/first" "$scratch/moved"
prefix=$scratch/moved

for program in tarnd tarn-master tarnctl; do
    "$prefix/bin/$program" --version
done

mkdir -m 700 "$scratch/run" "$scratch/state" "$scratch/log"
"$prefix/bin/tarnd" --state-dir "$scratch/state" --log-dir "$scratch/log" 2>"$scratch/tarnd.log" &
daemon=$!
online=
for _ in {1..600}; do
    online=$("$prefix/bin/tarnctl" call PidIsOnline process=$$ 2>/dev/null) && break
    kill -0 "$daemon" || { cat "$scratch/tarnd.log"; exit 1; }
    sleep 0.05
done
[[ $online == *online*on* ]] || { echo "found '$online', expected this process to be online"; exit 1; }
answer=$(PYTHONPATH=$prefix/lib/python3/dist-packages /usr/bin/python3 -B -c \
    'import tarn; print(tarn.connect().call("PidIsOnline", process=1).online)')
[[ $answer == True ]] || { echo "found '$answer' from Python, expected process 1 to be online"; exit 1; }

export PKG_CONFIG_PATH=$(dirname "$(find "$prefix" -name tarn_sysdiag.pc)")
for variable in libdir includedir; do
    found=$(realpath "$(pkg-config --variable=$variable tarn_sysdiag)")
    [[ $found == "$prefix"/* ]] || { echo "$variable is $found, expected a directory below $prefix"; exit 1; }
done
# What the public headers include is among them.
for header in tarn_sysdiag/server/tarnd.h tarn_sysdiag/client/agent.h tarn_sysdiag/client/master.h; do
    echo "#include <$header>" | cc -xc -std=c99 -fsyntax-only $(pkg-config --cflags tarn_sysdiag) -
done

# The guides' programs are built by the guides' own lines, and answer. One without a sanitizer can't load what has one.
[[ ${2:-} != sanitized ]] || exit 0
export LD_LIBRARY_PATH=$(dirname "$PKG_CONFIG_PATH")
guides=$(realpath "$(dirname "$0")/../../docs")

# build_of GUIDE FILE...: these files are the guide's pieces of C, one after the other; its line for cc makes the program.
build_of() {
    awk -v scratch="$scratch" -v files="${*:2}" '
        BEGIN { split(files, names) }
        /^```c$/ { file = scratch "/" names[++piece]; next }
        /^```$/ { file = "" }
        file { print > file }' "$1"
    (cd "$scratch" && eval "$(grep '^    cc ' "$1")")
}

build_of "$guides/agent-author.md" greeter.c
"$scratch/greeter" &
greeter=$!
trap 'kill $daemon "$greeter" || :; rm -rf "$scratch"' EXIT
served=
for _ in {1..600}; do
    "$prefix/bin/tarnctl" call DBGCmdExecShowByTarnd process=$greeter command=served >/dev/null 2>&1 || { sleep 0.05; continue; }
    served=$("$prefix/bin/tarnctl" call DBGCmdExecResultGetByTarnd process=$greeter 2>/dev/null) || true
    [[ $served != *"served "* ]] || break
    sleep 0.05
done
[[ $served == *"served "* ]] || { echo "found '$served', expected the greeter's count"; exit 1; }

build_of "$guides/daemon-author.md" served.c rest.c
! "$scratch/served" 2>"$scratch/served.log" || { echo "found a second daemon in the same place"; exit 1; }
grep -q 'TarnSysdiagTarnd.sock: in use by a live server' "$scratch/served.log" || { cat "$scratch/served.log"; exit 1; }
kill "$daemon" && wait "$daemon"
"$scratch/served" &
daemon=$!
for _ in {1..600}; do
    online=$("$prefix/bin/tarnctl" call PidIsOnline process=$$ 2>/dev/null) && break
    sleep 0.05
done
[[ $online == *online*on* ]] || { echo "found '$online', expected this process to be online"; exit 1; }
refused=$("$prefix/bin/tarnctl" call PidIsOnline process=4194305 2>&1) && { echo "found '$refused', expected a failure"; exit 1; }
[[ $refused == *"numbers up to 4194304"* ]] || { echo "found '$refused', expected the method's own words"; exit 1; }
kill "$daemon" && wait "$daemon"
daemon=
