#!/bin/sh
# Runs every benchmark executable, then every bench/*.sh script, with the build
# directory as argument. Each prints its own figures; one that fails (its
# daemon did not start, its requests failed) says so, the others still run,
# and the run ends with status 1.
set -u
build_dir=$1
here=$(cd "$(dirname "$0")" && pwd)
# The device's tools (uci, nvram, ...) are the stand-ins, as in the tests.
PATH="$here/../tools/device:$PATH"
export PATH
status=0
for program in "$build_dir"/bench/*Bench; do
    [ -x "$program" ] || continue
    echo "== $(basename "$program")"
    "$program" || { echo "== $(basename "$program") FAILED"; status=1; }
done
for script in "$here"/*.sh; do
    [ "$(basename "$script")" = run.sh ] && continue
    [ -f "$script" ] || continue
    echo "== $(basename "$script")"
    sh "$script" "$build_dir" || { echo "== $(basename "$script") FAILED"; status=1; }
done
exit $status
