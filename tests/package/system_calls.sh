#!/usr/bin/env bash
# system_calls.sh UNIT: the system calls that a unit's filter allows, one a line.
set -euo pipefail

# Groups have calls and groups in them.
expand() {
    local word
    for word in "$@"; do
        if [[ $word == @* ]]; then
            expand $(systemd-analyze syscall-filter "$word" | sed -n 's/^ \+\([@a-z0-9_-]*\)$/\1/p')
        else
            echo "$word"
        fi
    done
}

allowed=$(sed -n 's/^SystemCallFilter=\([^~].*\)/\1/p' "$1")
denied=$(sed -n 's/^SystemCallFilter=~\(.*\)/\1/p' "$1")
comm -23 <(expand @default $allowed | sort -u) <(expand $denied | sort -u)
