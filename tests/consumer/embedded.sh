#!/usr/bin/env bash
# embedded.sh SOURCE CC CXX FLAGS OBJECT...: a project has the library as a part of its own, as an archive, and gets of it
# that only: no tests, no host kit, nothing to install unless it asks. The archive that it can have installed is found
# like the shared library. And a build is the same byte for byte whatever folders and project it is made in: this one is
# of a copy of SOURCE, with FLAGS, by which the OBJECTs were made too; they have debug information, where folders show.
set -euo pipefail
source=$(realpath "$1")
here=$(realpath "$(dirname "$0")")
compilers=(-DCMAKE_C_COMPILER="$2" -DCMAKE_CXX_COMPILER="$3")
flags=$4
objects=("${@:5}")
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT

# quietly COMMAND...: its output only where it fails.
quietly() {
    "$@" >"$scratch/log" 2>&1 || { printf 'failed: %s\n' "$*"; cat "$scratch/log"; exit 1; }
}

copy=$scratch/a/folder/of/another/length
mkdir -p "$copy"
cp -r "$source"/{CMakeLists.txt,client,cmake,include,library,platform,server,velto} "$copy"

# A warning that a newer compiler may have is none of the project's errors.
quietly cmake -G Ninja -S "$here" -B "$scratch/build" "${compilers[@]}" -DTARN_SOURCE="$copy" -DBUILD_SHARED_LIBS=OFF \
    -DCMAKE_BUILD_TYPE=Release -DCMAKE_CXX_FLAGS_RELEASE="$flags" -DCMAKE_CXX_FLAGS=-Wpadded
quietly cmake --build "$scratch/build" -j "$(nproc)"
quietly "$scratch/build/caller"
quietly "$scratch/build/skeleton"
cmake --install "$scratch/build" --prefix "$scratch/nothing" >/dev/null
[[ ! -e $scratch/nothing ]] || { echo "installed, without being asked:"; find "$scratch/nothing"; exit 1; }
[[ $(ctest --test-dir "$scratch/build" -N) == *"Total Tests: 0"* ]]

for object in "${objects[@]}"; do
    [[ $(readelf -S "$object") == *debug_info* ]]
    again=$(find "$scratch/build/tarn" -name "${object##*/}")
    cmp "$object" "$again"
    if grep -q -e "$scratch" -e "$source" "$again"; then
        echo "$again names the folder that it was built in"
        exit 1
    fi
done

quietly cmake -DTARN_INSTALL=ON "$scratch/build"
quietly cmake --install "$scratch/build" --prefix "$scratch/prefix"
quietly cmake -S "$here" -B "$scratch/found" -DCMAKE_PREFIX_PATH="$scratch/prefix"
quietly cmake --build "$scratch/found"
quietly "$scratch/found/caller"
quietly "$scratch/found/skeleton"
[[ $(readelf -d "$scratch/found/skeleton") != *tarn_sysdiag* ]]
