#!/usr/bin/env bash
# reproducible.sh SOURCE CC CXX: the libraries, with debug information, built from copies of SOURCE in two folders of
# different names and lengths, are the same byte for byte, and name neither folder.
set -euo pipefail
source=$1
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT

# build_in FOLDER CC CXX
build_in() {
    mkdir -p "$1"
    cp -r "$source"/{CMakeLists.txt,client,cmake,include,library,platform,server,velto} "$1"
    cmake -G Ninja -S "$1" -B "$1/build" -DCMAKE_C_COMPILER="$2" -DCMAKE_CXX_COMPILER="$3" \
        -DTARN_HOST_KIT=OFF -DBUILD_TESTING=OFF \
        -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_CXX_FLAGS_RELWITHDEBINFO='-O1 -g -fno-var-tracking' >"$scratch/log" 2>&1 &&
        cmake --build "$1/build" -j "$(nproc)" >>"$scratch/log" 2>&1 || { cat "$scratch/log"; exit 1; }
}

build_in "$scratch/one" "$2" "$3"
build_in "$scratch/quite/another" "$2" "$3"
for library in libtarn_sysdiag_rook_tarnd.so libtarn_sysdiag_client.so; do
    [[ $(readelf -S "$scratch/one/build/$library") == *debug_info* ]]
    cmp "$scratch/one/build/$library" "$scratch/quite/another/build/$library"
    if grep -q "$scratch" "$scratch/one/build/$library"; then
        echo "$library names the folder that it was built in"
        exit 1
    fi
done
