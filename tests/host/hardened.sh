#!/usr/bin/env bash
# hardened.sh FILE...: programs and libraries of the host kit have what the compiler and the linker have against
# attacks. In what the C library's start-up code is marked for (control-flow enforcement), they are too.
set -euo pipefail
failed=0

# expect FILE WHAT TEXT PATTERN
expect() {
    [[ $3 =~ $4 ]] || { echo "$1: no $2"; failed=1; }
}

startup=$(readelf -n "$(cc -print-file-name=crt1.o)")
[[ $# -gt 0 ]]
for file; do
    header=$(readelf -hW "$file")
    dynamic=$(readelf -dW "$file")
    segments=$(readelf -lW "$file")
    imports=$(nm -D --undefined-only "$file")
    expect "$file" 'place that is random: it is no PIE' "$header" 'Type: +DYN'
    expect "$file" 'binding at the start' "$dynamic" 'BIND_NOW|Flags:.* NOW'
    expect "$file" 'relocations that become read-only' "$segments" 'GNU_RELRO'
    expect "$file" 'stack that is not executable' "$segments" 'GNU_STACK[^\n]* RW '
    expect "$file" 'canary on the stack' "$imports" '__stack_chk_fail'
    expect "$file" 'fortified function' "$imports" '__[a-z_]+_chk'
    for mark in IBT SHSTK; do
        [[ $startup != *"$mark"* ]] || expect "$file" "$mark" "$(readelf -n "$file")" "$mark"
    done
done
exit $failed
