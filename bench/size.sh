#!/bin/bash
# The size of the ARM release build, by section and by kind of function, next to nanopb's code for the same types:
# size.sh LIBRARY GENERATED NANOPB, where GENERATED is bench/generated of a native build and NANOPB what nanopb_arm.sh
# unpacked.
set -euo pipefail
[[ $# -eq 3 ]] || { echo "usage: size.sh LIBRARY GENERATED NANOPB" >&2; exit 2; }
library=$1 generated=$2 nanopb=$3
for file in "$library" "$generated/nanopb/all.pb.c" "$nanopb/usr/include/pb.h"; do
    [[ -f $file ]] || { echo "size.sh: $file is missing; build the benchmark and the ARM library first" >&2; exit 1; }
done
arm=arm-linux-gnueabihf
work=$(mktemp -d)
trap 'rm -r "$work"' EXIT

# The functions of a peer's user would be hidden too, and only then is its code comparable.
$arm-gcc -O2 -fPIC -fvisibility=hidden -I "$nanopb/usr/include" -c "$generated/nanopb/all.pb.c" -o "$work/all.o"
$arm-gcc -shared -o "$work/nanopb.so" "$work/all.o" -Wl,--whole-archive \
    "$nanopb/usr/lib/arm-linux-gnueabihf/libprotobuf-nanopb.a" -Wl,--no-whole-archive

sizes() {
    $arm-size -A "$1" | awk -v label="$2" -v relocations="$($arm-readelf -rW "$1" | grep -c R_ARM)" '
        $1 ~ /^\./ && $3 > 0 {
            size = $2
            if ($1 ~ /^\.data\.rel\.ro|^\.dynamic|^\.got|_array$/) relro += size
            else if ($1 ~ /^\.(data|bss)$/) writable += size
            else {
                text += size
                if ($1 ~ /^\.(text|plt|init|fini)$/) code += size
                else if ($1 == ".rodata") readonly += size
                else dynamic += size
            }
        }
        END { printf "| %-16s | %6d | %6d | %6d | %7d | %6d | %8d | %11d |\n", label, text, code, readonly, dynamic, relro, writable,
              relocations }'
}

printf '| %-16s | %6s | %6s | %6s | %7s | %6s | %8s | %11s |\n' 'bytes, ARM -O2' text code rodata dynamic relro writable \
    relocations
printf '|---|---|---|---|---|---|---|---|\n'
sizes "$library" "the library"
sizes "$work/nanopb.so" "nanopb, all types"
text=$($arm-size "$library" | awk 'NR == 2 { print $1 }')
printf '\ntext %d bytes, goal under %d: %s\n\n' "$text" $((128 * 1024)) \
    "$([[ $text -lt 131072 ]] && echo met || echo MISSED)"

printf '| %-40s | %6s | %7s |\n|---|---|---|\n' 'of the library' bytes symbols
rodata=$($arm-size -A "$library" | awk '$1 == ".rodata" { print $2 }')
$arm-nm -S -C -t d --defined-only "$library" | awk -v rodata="$rodata" '
    NF < 4 { next }
    {
        name = $4
        for (i = 5; i <= NF; ++i) name = name " " $i
        size = $2 + 0
        if ($3 ~ /[rR]/) named += size
        if ($3 ~ /[bBdD]/ && name ~ /binding|methodNames|g_stServerAddr/) kind = "writable: bindings, names, addresses"
        else if ($3 !~ /[tT]/) kind = "tables: shapes, proxies, interfaces"
        else if (name ~ /_pack_fixed|_fixed_size|[Ff]ixed/) kind = "fixed form"
        else if (name ~ /_free_unpacked|Release/) kind = "release"
        else if (name ~ /_unpack|Decode|Open|Unpack|TableDriven|AllocArray|CopyS|TablePosition|Abandon|NewElements/)
            kind = "decode"
        else if (name ~ /_wrapper|server::|Dispatch/) kind = "wrappers"
        else if (name ~ /^TarnSysdiag|client::/) kind = "proxies"
        else if (name ~ /_pack|Write|Size|Pack|Reverse|CopyBlock/) kind = "encode"
        else kind = "other"
        bytes[kind] += size
        number[kind]++
    }
    END {
        for (kind in bytes) printf "| %-40s | %6d | %7d |\n", kind, bytes[kind], number[kind]
        printf "| %-40s | %6d | %7s |\n", "strings and unnamed constants", rodata - named, ""
    }' | sort -k1
