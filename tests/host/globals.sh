#!/usr/bin/env bash
# globals.sh FILE... -- NAME...: objects and archives have no writable variables of their own but the named ones. What
# the compiler makes of inline functions and templates is none of them, nor is what marks data among ARM's code ($d).
set -euo pipefail
files=()
while [[ $1 != -- ]]; do
    files+=("$1")
    shift
done
shift
found=$(nm -f sysv -C "${files[@]}" | awk -F'|' '
    { gsub(/ +$/, "", $1); gsub(/ /, "", $3); gsub(/ /, "", $7) }
    $7 ~ /^\.t?(bss|data)(\.[^r]|$)/ && $3 ~ /^[bBdD]$/ { print $1 }' | grep -v '^guard variable\|::Unit::binding$\|^\$d$' | sort)
expected=$(printf '%s\n' "$@" | sort)
if [[ $found != "$expected" ]]; then
    printf 'found the variables\n%s\nexpected\n%s\n' "$found" "$expected" >&2
    exit 1
fi
