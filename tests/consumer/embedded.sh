#!/usr/bin/env bash
# embedded.sh SOURCE: a project has the library as a part of its own, as an archive, and gets of it that only: no tests,
# no host kit, nothing to install unless it asks. The archive that it can have installed is found like the shared
# library.
set -euo pipefail
source=$(realpath "$1")
here=$(realpath "$(dirname "$0")")
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT

# quietly COMMAND...: its output only where it fails.
quietly() {
    "$@" >"$scratch/log" 2>&1 || { printf 'failed: %s\n' "$*"; cat "$scratch/log"; exit 1; }
}

# A warning that a newer compiler may have is none of the project's errors.
quietly cmake -S "$here" -B "$scratch/build" -DTARN_SOURCE="$source" -DBUILD_SHARED_LIBS=OFF \
    -DCMAKE_BUILD_TYPE=Release -DCMAKE_CXX_FLAGS_RELEASE=-O1 -DCMAKE_CXX_FLAGS=-Wpadded
quietly cmake --build "$scratch/build" -j "$(nproc)"
quietly "$scratch/build/caller"
quietly "$scratch/build/skeleton"
cmake --install "$scratch/build" --prefix "$scratch/nothing" >/dev/null
[[ ! -e $scratch/nothing ]] || { echo "installed, without being asked:"; find "$scratch/nothing"; exit 1; }
[[ $(ctest --test-dir "$scratch/build" -N) == *"Total Tests: 0"* ]]

quietly cmake -DTARN_INSTALL=ON "$scratch/build"
quietly cmake --install "$scratch/build" --prefix "$scratch/prefix"
quietly cmake -S "$here" -B "$scratch/found" -DCMAKE_PREFIX_PATH="$scratch/prefix"
quietly cmake --build "$scratch/found"
quietly "$scratch/found/caller"
quietly "$scratch/found/skeleton"
[[ $(readelf -d "$scratch/found/skeleton") != *tarn_sysdiag* ]]
