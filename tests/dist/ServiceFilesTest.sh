#!/bin/sh
# The service files parse: the procd script as shell, the systemd unit by
# systemd's own check (which reports a bad setting but still exits 0), where
# systemd is installed.
set -eu
source_dir=$1
binary_dir=$2
sh -n "$source_dir/dist/openwrt/quorvia.init"
if ! command -v systemd-analyze >/dev/null 2>&1; then
    echo "SKIP: systemd-analyze is not installed: the unit is not verified"
    exit 77
fi
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
# The unit names the installed daemon; the check wants a program that exists.
sed "s|^ExecStart=.*|ExecStart=$binary_dir/bin/quorvia|" "$binary_dir/dist/quorvia.service" \
    > "$work/quorvia.service"
said=$(systemd-analyze verify "$work/quorvia.service" 2>&1)
if [ -n "$said" ]; then
    echo "$said"
    exit 1
fi
