#!/bin/bash
# Renders every manual page (*.8) in DIR as man(1) does, tables through tbl
# first, and fails on any warning or error of groff:
#
#   check-pages.sh DIR
#
# Each page is rendered twice: with -z for groff's default device, and for a
# terminal (utf8) with the output thrown away, since a table wider than the
# terminal's line is only reported while the output is written.
set -u
dir="${1:?usage: check-pages.sh DIR}"
if ! command -v groff >/dev/null 2>&1; then
    echo "check-pages.sh: groff is missing (Debian package groff-base; scripts/install-deps.sh installs it)" >&2
    exit 1
fi
shopt -s nullglob
pages=("$dir"/*.8)
if [ "${#pages[@]}" -eq 0 ]; then
    echo "check-pages.sh: no manual page in $dir" >&2
    exit 1
fi
failed=0
for page in "${pages[@]}"; do
    messages=$({ groff -t -man -ww -z "$page" && groff -t -man -ww -Tutf8 "$page" >/dev/null; } 2>&1)
    status=$?
    if [ "$status" -ne 0 ] || [ -n "$messages" ]; then
        echo "FAILED $page (groff status $status)"
        [ -z "$messages" ] || printf '%s\n' "$messages"
        failed=1
    else
        echo "ok     $page"
    fi
done
exit "$failed"
