#!/bin/bash
# Sourced by the commands that take long, to tell how far they are: a line that renews itself on a terminal, a plain
# line every 30 s elsewhere; always on standard error, so that standard output holds the results alone.

progress_told=$SECONDS

# progress TEXT
progress() {
    if [ -t 2 ]; then
        printf '\r\033[K%s' "${1:0:79}" >&2
    elif [ $((SECONDS - progress_told)) -ge 30 ]; then
        progress_told=$SECONDS
        echo "$1" >&2
    fi
}

# Takes the line away again, once there is something else to say.
progress_done() {
    [ ! -t 2 ] || printf '\r\033[K' >&2
}

# watched WHAT LOG COMMAND...: runs a command with its output added to LOG; its latest line shows how far it is. Returns
# the command's exit status, given that the caller has set pipefail.
watched() {
    local status=0 line
    "${@:3}" 2>&1 | while IFS= read -r line; do
        echo "$line" >>"$2"
        progress "$1: $line"
    done || status=$?
    progress_done
    return $status
}
