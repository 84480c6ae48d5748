#!/bin/bash
# Builds in release mode, counts ARM instructions, measures, prints the tables, and writes those of calls into
# docs/performance.md: bench.sh. Results are in build/release/bench: codec.json, call.json, roundtrip.json, fleet.json,
# tap.json, instructions.txt, idle.txt, fleet_idle.txt. Options are handed to the codec benchmark, which takes Google
# Benchmark's: --benchmark_filter=velto/Result.
#
# bench.sh --check: measures three times, and fails when a ratio is worse by more than 15 % in each than
# bench/expected.json has it. bench.sh --record: writes bench/expected.json anew, from three runs.
set -euo pipefail
cd "$(dirname "$0")/.."
native=build/release arm=build/arm-bench jobs=${JOBS:-$(nproc)}
nanopb=$PWD/$arm/nanopb
result=$native/bench

# build TARGET...
build() {
    cmake --preset release -DTARN_BENCH=ON -DBUILD_TESTING=OFF >/dev/null
    cmake --build "$native" -j "$jobs" --target "$@"
}

# What other programs do meanwhile falls on the two sides of a ratio alike, mostly.
compare() {
    local command=$1 runs=() run
    build bench_codec bench_roundtrip
    for run in 1 2 3; do
        printf '\n== run %s of 3\n' "$run"
        runs+=("$result/run$run")
        mkdir -p "$result/run$run"
        "$result/bench_codec" "${measure[@]}" --benchmark_filter='^(velto|floor|sent)/' \
            --benchmark_out="$result/run$run/codec.json" >/dev/null
        "$result/bench_roundtrip" "$result/run$run/roundtrip.json"
    done
    python3 bench/report.py "$command" bench/expected.json "${runs[@]}"
}

commit=$(git describe --always --dirty)
measure=(--benchmark_out_format=json "--benchmark_context=commit=$commit" --benchmark_enable_random_interleaving=true
         --benchmark_repetitions=7 --benchmark_min_time=0.02)
if [[ ${1:-} == --check || ${1:-} == --record ]]; then
    [[ $# -eq 1 ]] || { echo "bench.sh: found '$2' behind $1, expected nothing" >&2; exit 2; }
    compare "${1#--}"
    exit
fi

build bench_codec bench_call bench_counter bench_roundtrip bench_fleet bench_fleet_idle \
    bench_tap tarnd tarnctl
[[ -d $nanopb/usr ]] || bench/nanopb_arm.sh "$nanopb"
cmake --preset arm -B "$arm" -DTARN_BENCH=ON -DBUILD_TESTING=OFF -DBENCH_GENERATED="$PWD/$result/generated" \
    -DNANOPB_ROOT="$nanopb" >/dev/null
cmake --build "$arm" -j "$jobs" --target bench_instructions

# The plugin prints "row count" for two passes over a row's pool, then for one.
run_arm() { qemu-arm -L /usr/arm-linux-gnueabihf "$@"; }
run_arm "$arm/bench/bench_instructions" --rows > "$result/rows.txt"
run_arm -plugin "$result/bench_counter.so" "$arm/bench/bench_instructions" 2> "$result/marks.txt"
awk 'NR == FNR { name[$1] = $2; pool[$1] = $3; next }
     $1 == 0 { next }
     $1 in twice { printf "%s %.1f\n", name[$1], (twice[$1] - $2) / pool[$1]; next }
     { twice[$1] = $2 }' "$result/rows.txt" "$result/marks.txt" > "$result/instructions.txt"

printf '\n== calls\n'
"$result/bench_call" "${measure[@]}" --benchmark_out="$result/call.json"
printf '\n== codecs\n'
"$result/bench_codec" "${measure[@]}" --benchmark_out="$result/codec.json" \
    --instructions="$result/instructions.txt" "$@"
printf '\n== round trips, and calls of a fleet\n'
"$result/bench_roundtrip" "$result/roundtrip.json"
"$result/bench_fleet" "$result/fleet.json"
python3 bench/report.py table "$result"
python3 bench/report.py write "$result" docs/performance.md
printf '\n== the tap of captures\n'
"$result/bench_tap" "${measure[@]}" --benchmark_report_aggregates_only=true --benchmark_out="$result/tap.json"
printf '\n== an idle daemon\n'
bench/idle.sh "$native" | tee "$result/idle.txt"
bench/viewers.py "$native" | tee "$result/viewers.txt"
printf '\n== an idle fleet\n'
"$result/bench_fleet_idle" | tee "$result/fleet_idle.txt"
