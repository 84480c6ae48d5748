#!/usr/bin/env bash
# found.sh BUILD CC TOOLCHAIN HOST [RUNNER...]: what BUILD installs, to a prefix and to a DESTDIR, is found by other
# projects: with pkg-config, CMake and meson. TOOLCHAIN is the file that CMake cross-compiles with, or empty; HOST is 1
# where the host kit was built too; RUNNER is what programs are started by.
set -euo pipefail
build=$1 cc=$2 toolchain=$3 host=$4
shift 4
runner=("$@")
here=$(realpath "$(dirname "$0")")
skeleton=$here/../skeleton/daemon_skeleton.c
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
export TARN_RUN_DIR=$scratch/run

# quietly COMMAND...: its output only where it fails.
quietly() {
    "$@" >"$scratch/log" 2>&1 || { printf 'failed: %s\n' "$*"; cat "$scratch/log"; exit 1; }
}

# by_pkgconfig DIRECTORY: C programs from one command each; a daemon that hides what it doesn't say is for others.
by_pkgconfig() {
    mkdir "$1"
    local flags
    flags=$(pkg-config --cflags --libs tarn_sysdiag_client)
    quietly "$cc" -Wall -I "$here" "$here/caller.c" -o "$1/caller" $flags
    flags=$(pkg-config --cflags --libs tarn_sysdiag)
    quietly "$cc" -Wall -fvisibility=hidden "$skeleton" -o "$1/skeleton" $flags
    LD_LIBRARY_PATH=$libraries quietly "${runner[@]}" "$1/caller"
    LD_LIBRARY_PATH=$libraries quietly "${runner[@]}" "$1/skeleton"
}

# os_layer DIRECTORY NUM OPTION...: of a program's OS layer the library finds what nm does, which is NUM functions.
os_layer() {
    mkdir "$1"
    local found said
    quietly "$cc" "${@:3}" -I "$here" "$here/caller.c" -o "$1/caller" $(pkg-config --cflags --libs tarn_sysdiag_client)
    found=$(nm -D --defined-only "$1/caller" | grep -c XRT_Osal || true)
    said=$(LD_LIBRARY_PATH=$libraries "${runner[@]}" "$1/caller")
    [[ $found == "$2" && $said == *"logged $2" ]] || { echo "nm finds $found, expected $2, and: $said"; exit 1; }
}

# by_cmake DIRECTORY PREFIX
by_cmake() {
    mkdir "$1"
    sed -n '/^```c$/,/^```$/{/^```/d;p}' "$here/../../docs/agent-author.md" >"$1/greeter.c"
    quietly cmake -S "$here" -B "$1" -DCMAKE_C_COMPILER="$cc" -DCMAKE_PREFIX_PATH="$2" -DWITH_HOST="$host" \
        ${toolchain:+-DCMAKE_TOOLCHAIN_FILE="$toolchain"}
    quietly cmake --build "$1"
    quietly "${runner[@]}" "$1/caller"
    quietly "${runner[@]}" "$1/skeleton"
    [[ $host != 1 ]] || quietly "$1/asker"
}

# by_meson DIRECTORY
by_meson() {
    mkdir "$1"
    cp -r "$here/meson.build" "$here/caller.c" "$here/types" "$1"
    cp "$skeleton" "$1/skeleton.c"
    quietly env CC="$cc" meson setup "$1/build" "$1"
    quietly meson test -C "$1/build"
}

# consume NAME PREFIX: by all of them.
consume() {
    export PKG_CONFIG_LIBDIR
    PKG_CONFIG_LIBDIR=$(dirname "$(find "$2" -name tarn_sysdiag.pc)")
    libraries=$(dirname "$PKG_CONFIG_LIBDIR")
    by_pkgconfig "$scratch/$1-pkg-config"
    by_cmake "$scratch/$1-cmake" "$2"
    [[ -n $toolchain ]] || by_meson "$scratch/$1-meson"
}

quietly cmake --install "$build" --prefix "$scratch/prefix"
consume prefix "$scratch/prefix"
os_layer "$scratch/unseen-os-layer" 0
os_layer "$scratch/seen-os-layer" 1 -rdynamic
DESTDIR=$scratch/destdir quietly cmake --install "$build" --prefix /opt/tarn
consume destdir "$scratch/destdir/opt/tarn"

# The components are the whole, and what a user includes has one name.
files_of() {
    (cd "$1" && find . ! -type d | sort)
}
for component in runtime development host host_runtime agent python; do
    quietly cmake --install "$build" --prefix "$scratch/components" --component "$component"
done
diff <(files_of "$scratch/prefix") <(files_of "$scratch/components")
diff <(echo tarn_sysdiag) <(ls "$scratch/prefix/include")

# Nothing was installed that names where it was built or configured for, but the services' units, which have to say where
# their programs are.
! grep -rIl --exclude=*.service -e "$(realpath "$build")" -e "$scratch" -e /usr/local "$scratch/destdir" "$scratch/prefix"
