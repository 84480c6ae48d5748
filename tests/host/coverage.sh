#!/usr/bin/env bash
# coverage.sh BUILD JOBS: runs the host kit's tests and prints how many lines of each room of host/ they run, in the
# programs that they start as well. What a process has counted is lost when a signal kills it.
set -euo pipefail
source=$(realpath "$(dirname "$0")/../..") build=$(realpath "$1") jobs=$2
raw=$build/raw data=$build/coverage.data

# Processes of a program add to the same few files, whoever's they are.
rm -rf "$raw"
mkdir "$raw"
chmod 1777 "$raw"
umask 0
status=0
LLVM_PROFILE_FILE=$raw/%4m.profraw ctest --test-dir "$build/tests/host" -j "$jobs" \
    --output-on-failure --no-label-summary --no-tests=error || status=$?
llvm-profdata merge "$raw"/*.profraw -o "$data"

mapfile -t objects < <(find "$build" -maxdepth 1 -type f -executable \( -name 'tarn*' -o -name '*.so' \)
    find "$build/host" -name '*.so'
    find "$build/tests/host" -maxdepth 1 -name '*_test' -type f)
# Paths lead through the build directory where a compiler cache has made them relative.
others="($source|/[.][.])/(client|library|platform|server|tests|types|velto)/"
llvm-cov report -instr-profile="$data" -ignore-filename-regex="$others" "${objects[0]}" "${objects[@]/#/-object=}" |
    awk '
    $1 ~ /\.(cpp|h|c)$/ {
        room = $1
        sub(/\/[^\/]*$/, "", room)
        lines[room] += $8; missed[room] += $9; allLines += $8; allMissed += $9
    }
    END {
        printf "%-24s %8s %8s %9s\n", "room of host/", "lines", "missed", "covered"
        row = "%-24s %8d %8d %8.1f%%\n"
        for (room in lines)
            printf row, room, lines[room], missed[room], 100 * (1 - missed[room] / lines[room]) | "sort"
        close("sort")
        printf row, "total", allLines, allMissed, 100 * (1 - allMissed / allLines)
    }'
exit "$status"
