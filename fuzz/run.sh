#!/usr/bin/env bash
# run.sh FUZZER SECONDS: fuzzes one target that long, from its committed corpus. Inputs that are new to it go to found/
# beside the fuzzer. After a finding it fails, and shows the end of the log.
set -euo pipefail
fuzzer=$1 seconds=$2
target=$(basename "$fuzzer")
corpus=$(dirname "$0")/corpus/$target
found=$(dirname "$fuzzer")/found/$target
mkdir -p "$found"
if ! "$fuzzer" -max_total_time="$seconds" -max_len=32768 -timeout=25 -print_final_stats=1 \
    -artifact_prefix="$found-" "$found" "$corpus" >"$fuzzer.log" 2>&1; then
    tail -n 40 "$fuzzer.log" >&2
    printf '%s: a finding; the input is in %s-*\n' "$target" "$found" >&2
    exit 1
fi
grep -E '^Done|^stat::number' "$fuzzer.log"
