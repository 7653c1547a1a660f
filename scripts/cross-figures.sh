#!/bin/sh
# Figures of the daemon on the routers' architectures, printed, not checked.
# For each build tree given: the stripped size of quorvia, and of each shared
# library beyond a minimal Debian system (the closure of the essential and
# required packages) that it links, with what those pull in. Then, on arm64
# under qemu-user: what qemu itself holds while it runs a program that does
# nothing, and RpcBench's figures (the daemon's memory idle and after 10,000
# and 100,000 hit-path requests; its hit-path rate as a share of the bare
# server's, both served and loaded under the same qemu).
# Arguments: build trees with quorvia built (build, build-arm64, ...), and
# RpcBench in the arm64 one.
set -u
top=$(cd "$(dirname "$0")/.." && pwd)
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT

# shellcheck disable=SC2046
base=$(apt-cache depends --recurse --installed --no-recommends --no-suggests --no-conflicts \
    --no-breaks --no-replaces --no-enhances $(dpkg-query -W -f '${Package} ${Priority} ${Essential}\n' |
    awk '$2 == "required" || $3 == "yes" { print $1 }') 2>/dev/null | grep -v '^ ' | sed 's/:.*//')

kib() { echo $((($(stat -L -c %s "$1") + 512) / 1024)); }

# Sets arch, root (the sysroot, empty for a native tree) and run (qemu-user
# with the sysroot, or nothing) for the build tree $1.
tree_arch() {
    arch=$(sed -n 's/^QUORVIA_ARCH:[A-Z]*=//p' "$1/CMakeCache.txt")
    root="" run=""
    case "$arch" in
        arm64) root=$top/build-sysroot-arm64/root run="qemu-aarch64-static -L $root" ;;
        armhf) root=$top/build-sysroot-armhf/root run="qemu-arm-static -L $root" ;;
        *) arch=$(dpkg --print-architecture) ;;
    esac
}

sizes() {
    tree_arch "$1"
    admin=/var/lib/dpkg
    [ -n "$root" ] && admin=$top/build-sysroot-$arch/dpkg
    daemon=$1/bin/quorvia
    "$(sed -n 's/^CMAKE_STRIP:FILEPATH=//p' "$1/CMakeCache.txt")" -o "$tmp/quorvia" "$daemon"
    echo "quorvia for $arch: $(kib "$tmp/quorvia") KiB stripped. Libraries beyond a minimal Debian" \
        "system, as Debian ships them (stripped), that it links:"
    linked=$(readelf -d "$daemon" | sed -n 's/.*Shared library: \[\(.*\)\]/\1/p')
    loader=$(readelf -l "$daemon" | sed -n 's/.*interpreter: \(.*\)]$/\1/p')
    : > "$tmp/pulled"
    total=0
    for lib in $($run "$root$loader" --list "$daemon" | sed -n 's/.* => \([^ ]*\) .*/\1/p'); do
        lib=${lib#"$root"}  # the loader, named by its path in the sysroot
        # A merged /usr finds under /lib what the packages list under /usr/lib.
        package=$( (DPKG_ADMINDIR=$admin dpkg-query -S "$root$lib" ||
            DPKG_ADMINDIR=$admin dpkg-query -S "$root/usr$lib") 2>/dev/null | sed 's/:.*//; q')
        echo "$base" | grep -qx "$package" && continue
        name=$(basename "$lib")
        size=$(kib "$root$lib")
        if echo "$linked" | grep -qxF "$name"; then
            total=$((total + size))
            printf '    %-32s %-28s %6d KiB\n' "$name" "$package" "$size"
        else
            echo "$size $name" >> "$tmp/pulled"
        fi
    done
    printf '    %-61s %6d KiB\n' together "$total"
    echo "  and what those pull in: $(wc -l < "$tmp/pulled") libraries," \
        "$(awk '{ sum += $1 } END { print sum }' "$tmp/pulled") KiB; the largest:" \
        "$(sort -rn "$tmp/pulled" | head -5 | awk '{ printf "%s%s %d KiB", (NR > 1 ? ", " : ""), $2, $1 }')"
}

arm64=""
for tree in "$@"; do
    sizes "$tree"
    [ "$arch" = arm64 ] && arm64=$tree
done
[ -n "$arm64" ] || exit 0
tree_arch "$arm64"
if [ ! -e /proc/sys/fs/binfmt_misc/qemu-aarch64 ]; then
    echo "no figures under qemu: the kernel hands no arm64 executable to qemu (binfmt_misc)"
    exit 1
fi
echo 'int main(void) { return pause(); }' |
    aarch64-linux-gnu-gcc -static -include unistd.h -x c -o "$tmp/idle" -
$run "$tmp/idle" &
sleep 1
echo "qemu-user running a static arm64 program that does nothing: RSS" \
    "$(awk '/^VmRSS:/ { print $2 }' /proc/$!/status) KiB"
kill $!
echo "RpcBench for arm64 under qemu-user (its targets are the native ones: left out)"
QEMU_LD_PREFIX=$root $run "$arm64/bench/RpcBench" | grep -v '^target:'
