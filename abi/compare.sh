#!/bin/sh
# compare.sh RECORDED LIBRARY          fails when a library's interface is not the recorded one
# compare.sh --update RECORDED LIBRARY records it anew
# 77 says that it can't tell here.
set -eu

describe() {
    abidw --no-comp-dir-path --no-corpus-path --no-show-locs --no-elf-needed --no-parameter-names \
        --exported-interfaces-only --out-file "$1" "$2"
}

if ! command -v abidw >/dev/null || ! command -v abidiff >/dev/null; then
    echo "skipped: abidw and abidiff are not installed (package abigail-tools)"
    exit 77
fi
if [ "$1" = --update ]; then
    mkdir -p "$(dirname "$2")"
    describe "$2" "$3"
    exit
fi
if [ ! -s "$1" ]; then
    echo "$1: missing or empty, expected the recorded description of $2"
    exit 1
fi
now=$(mktemp)
trap 'rm -f "$now"' EXIT
describe "$now" "$2"
if ! abidiff --harmless "$1" "$now"; then
    echo "the interface of $2 is not the one recorded in $1; if that is meant, build the target update-abi"
    exit 1
fi
