#!/bin/sh
# Runs every fuzz target for a bounded time, each on its seed corpus
# (fuzz/corpus/NAME, copied so the repo's seeds stay as they are).
set -eu
build_dir=$1
seconds=$2
here=$(cd "$(dirname "$0")" && pwd)
status=0
export LSAN_OPTIONS="suppressions=$here/lsan.supp"
for target in "$build_dir"/fuzz/*Fuzz; do
    [ -f "$target" ] && [ -x "$target" ] || continue
    name=$(basename "$target")
    work="$build_dir/fuzz/work-$name"
    mkdir -p "$work"
    [ -d "$here/corpus/$name" ] && cp -r "$here/corpus/$name/." "$work/"
    echo "== $name for ${seconds}s"
    "$target" -max_total_time="$seconds" -print_final_stats=1 -artifact_prefix="$work/" "$work" || status=1
done
exit $status
