#!/usr/bin/env bash
# exports.sh LIBRARY SCRIPT: a library of the host kit exports the C functions that its version script lists, and
# besides them nothing but the kit's own.
set -euo pipefail
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT

sed -nE 's/^    ([A-Za-z_0-9]+);$/\1/p' "$2" | sort >"$scratch/listed"
nm -D --defined-only "$1" | awk '{ print $NF }' | sort >"$scratch/exported"
diff "$scratch/listed" <(grep -v '^_Z' "$scratch/exported")
others=$(grep '^_Z' "$scratch/exported" | c++filt | grep -vE '^((guard variable|typeinfo|typeinfo name|vtable) for )?host::' || true)
[[ -z $others ]] || { printf "exported, though not the kit's own:\n%s\n" "$others"; exit 1; }
