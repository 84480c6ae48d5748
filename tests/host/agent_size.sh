#!/usr/bin/env bash
# agent_size.sh LIBRARY [BYTES]: what an application carries for its agent needs nothing but the C library and the
# unwinder that every exception passes, shows its C functions only, and has at most so many bytes of code and constants.
set -euo pipefail
library=$1 most=${2:-}
needed=$(readelf -d "$library" | sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p')
if [[ $needed != *libc.so* ]] || grep -vE '^(libc|libm|libgcc_s|ld-linux[^.]*)\.so\.[0-9]+$' <<<"$needed"; then
    printf 'needs\n%s\nexpected libc and, of its own, libm and the loader, and libgcc_s\n' "$needed" >&2
    exit 1
fi
others=$(nm -D --defined-only "$library" | awk '$3 !~ /^TarnAgent_/ { print $3 }')
if [[ -n $others ]]; then
    printf 'exports\n%s\nexpected functions of agent.h only\n' "$others" >&2
    exit 1
fi
found=$(size -A "$library" | awk '/^\.(text|rodata|eh_frame|ARM\.ex[a-z]*) / { sum += $2 } END { print sum }')
printf '%d bytes of code and constants\n' "$found"
if [[ -n $most && $found -gt $most ]]; then
    printf 'expected at most %d\n' "$most" >&2
    exit 1
fi
