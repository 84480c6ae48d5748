# Sourced by what installs the library somewhere: other projects find it there. What sources it has set
#   cc         the compiler of C
#   toolchain  the file that CMake cross-compiles with, or empty
#   host       1 where the host kit was built too
#   runner     what programs are started by, an array
here=$(realpath "$(dirname "${BASH_SOURCE[0]}")")
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

# by_cmake DIRECTORY PREFIX
by_cmake() {
    mkdir "$1"
    sed -n '/^```c$/,/^```$/{/^```/d;p}' "$here/../../docs/agent-author.md" >"$1/greeter.c"
    quietly cmake -S "$here" -B "$1" -DCMAKE_C_COMPILER="$cc" -DCMAKE_PREFIX_PATH="$2" -DWITH_HOST="$host" \
        ${toolchain:+-DCMAKE_TOOLCHAIN_FILE="$toolchain" -DCMAKE_FIND_ROOT_PATH="$2"}
    quietly cmake --build "$1"
    quietly "${runner[@]}" "$1/caller"
    quietly "${runner[@]}" "$1/skeleton"
    [[ $host != 1 ]] || quietly "${runner[@]}" "$1/asker"
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
