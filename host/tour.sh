# Sourced by the tours: shows commands as a user would type them, and what they print. They have a directory $work.

if [[ -t 1 && -z ${NO_COLOR:-} && ${TERM:-dumb} != dumb ]]; then bold=$'\e[1m' dim=$'\e[2m' plain=$'\e[0m'; else bold='' dim='' plain=''; fi

say() { printf '\n%s%s%s\n' "$bold" "$*" "$plain"; }

# Shows a command as a user would type it.
show() {
    local word text=''
    for word in "$@"; do
        [[ $word != *[\{\ \*]* ]] || word="'$word'"
        text+=" $word"
    done
    printf '%s$%s%s\n' "$dim" "$text" "$plain"
}

# Shows a command and runs it.
run() {
    show "$@"
    "$@" 2>&1
}

# The same, but only the first lines of what it prints.
run_head() {
    local lines=$1 out=$work/out
    shift
    show "$@"
    "$@" >"$out" 2>&1
    head -n "$lines" "$out"
    [[ $(wc -l <"$out") -le $lines ]] || printf '... and %s lines more\n' $(($(wc -l <"$out") - lines))
}

# Waits until a command succeeds, on a busy machine as well.
await() {
    local end=$((SECONDS + 60))
    until "$@" >/dev/null 2>&1; do
        ((SECONDS < end)) || { printf 'this did not come true within a minute: %s\n' "$*" >&2; return 1; }
        sleep 0.1
    done
}
