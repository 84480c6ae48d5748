#!/usr/bin/env bash
# found.sh BUILD CC TOOLCHAIN HOST [RUNNER...]: what BUILD installs, to a prefix and to a DESTDIR, is found by other
# projects: with pkg-config, CMake and meson. TOOLCHAIN is the file that CMake cross-compiles with, or empty; HOST is 1
# where the host kit was built too; RUNNER is what programs are started by.
set -euo pipefail
build=$1 cc=$2 toolchain=$3 host=$4
shift 4
runner=("$@")
source "$(dirname "$0")/consume.sh"

# os_layer DIRECTORY NUM OPTION...: of a program's OS layer the library finds what nm does, which is NUM functions.
os_layer() {
    mkdir "$1"
    local found said
    quietly "$cc" "${@:3}" -I "$here" "$here/caller.c" -o "$1/caller" $(pkg-config --cflags --libs tarn_sysdiag_client)
    found=$(nm -D --defined-only "$1/caller" | grep -c XRT_Osal || true)
    said=$(LD_LIBRARY_PATH=$libraries "${runner[@]}" "$1/caller")
    [[ $found == "$2" && $said == *"logged $2" ]] || { echo "nm finds $found, expected $2, and: $said"; exit 1; }
}

quietly cmake --install "$build" --prefix "$scratch/prefix"
consume prefix "$scratch/prefix"
os_layer "$scratch/unseen-os-layer" 0
os_layer "$scratch/seen-os-layer" 1 -rdynamic
DESTDIR=$scratch/destdir quietly cmake --install "$build" --prefix /opt/tarn
consume destdir "$scratch/destdir/opt/tarn"

# The configuration is below the prefix that is installed to, not the one that was configured for; that of /usr in /etc.
if [[ $host == 1 ]]; then
    DESTDIR=$scratch/system quietly cmake --install "$build" --prefix /usr --component host
    for directory in prefix/etc destdir/opt/tarn/etc system/etc; do
        [[ -f $scratch/$directory/tarn/policy && -f $scratch/$directory/tarn/master.conf ]] ||
            { echo "found no configuration in $scratch/$directory"; exit 1; }
    done
    diff <(printf '%s\n' etc usr) <(ls "$scratch/system")
    [[ ! -e $scratch/system/usr/etc ]]
fi

# The components are the whole, and what a user includes has one name.
files_of() {
    (cd "$1" && find . ! -type d | sort)
}
for component in runtime development host host_runtime agent relay web python; do
    quietly cmake --install "$build" --prefix "$scratch/components" --component "$component"
done
diff <(files_of "$scratch/prefix") <(files_of "$scratch/components")
diff <(echo tarn_sysdiag) <(ls "$scratch/prefix/include")

# Nothing was installed that names where it was built or configured for, but the services' units, which have to say where
# their programs are.
! grep -rIl --exclude=*.service -e "$(realpath "$build")" -e "$scratch" -e /usr/local "$scratch/destdir" "$scratch/prefix"
