#!/bin/sh
# Runs every benchmark executable, then every bench/*.sh script, with the build
# directory as argument. Each prints its own figures.
set -eu
build_dir=$1
here=$(cd "$(dirname "$0")" && pwd)
for program in "$build_dir"/bench/*Bench; do
    [ -x "$program" ] || continue
    echo "== $(basename "$program")"
    "$program"
done
for script in "$here"/*.sh; do
    [ "$(basename "$script")" = run.sh ] && continue
    [ -f "$script" ] || continue
    echo "== $(basename "$script")"
    sh "$script" "$build_dir"
done
