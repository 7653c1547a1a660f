#!/bin/sh
# Installs, only where missing, every Debian package that the build, the tests,
# the benchmarks and the demo need. Quiet and quick when everything is there.
#
# --cross ARCH (arm64 or armhf) also installs Debian's cross compilers for ARCH
# and qemu-user, and makes build-sysroot-ARCH/root from ARCH's packages of
# the libraries below and everything they depend on, unpacked, not installed:
# the -dev packages of two architectures can't all be installed side by side.
set -eu

# What the code builds with; a cross build takes these for its architecture.
LIBRARIES="
libthrift-dev libevent-dev
libboost-thread-dev libboost-filesystem-dev libboost-system-dev libboost-chrono-dev
libgoogle-glog-dev libjson-c-dev libsqlite3-dev libconfig++-dev
libexif-dev libavformat-dev libavcodec-dev libavutil-dev
libjpeg62-turbo-dev libpng-dev libmagickwand-6.q16-dev
libssl-dev libgtest-dev libgmock-dev
"

PACKAGES="
build-essential cmake pkg-config thrift-compiler sqlite3 imagemagick googletest
ffmpeg libimage-exiftool-perl python3 python3-thrift
clang libclang-rt-14-dev inotify-tools procps
$LIBRARIES
"

arch=""
if [ "${1:-}" = --cross ]; then
    arch=${2:-}
    case "$arch" in
        arm64) qemu=aarch64 ;;
        armhf) qemu=arm ;;
        *) echo "install-deps: --cross takes arm64 or armhf" >&2; exit 2 ;;
    esac
    # The native packages stay: the thrift compiler and the tools the tests run.
    PACKAGES="$PACKAGES crossbuild-essential-$arch qemu-user-static"
fi

install_missing() {
    missing=""
    for p in $PACKAGES; do
        status=$(dpkg-query -W -f='${Status}' "$p" 2>/dev/null || true)
        case "$status" in
            *"ok installed"*) ;;
            *) missing="$missing $p" ;;
        esac
    done
    [ -z "$missing" ] && return 0
    if [ "$(id -u)" -ne 0 ]; then
        echo "install-deps: missing packages:$missing (run as root to install them)" >&2
        exit 1
    fi
    echo "install-deps: installing$missing"
    export DEBIAN_FRONTEND=noninteractive
    apt-get update -qq
    # shellcheck disable=SC2086
    apt-get install -y -qq --no-install-recommends $missing >/dev/null
}

# build-sysroot-ARCH/root, made again when the library list changes or the
# checkout moved (its dpkg lists name the sysroot's own paths). apt runs
# with state of its own there, as if ARCH were the machine's architecture and
# nothing were installed, so that it downloads the whole dependency closure.
make_sysroot() {
    top=$(cd "$(dirname "$0")/.." && pwd)
    dir=$top/build-sysroot-$arch
    [ "$(cat "$dir/done" 2>/dev/null)" = "$(echo "$dir" $LIBRARIES)" ] && return 0
    echo "install-deps: making $dir from Debian's $arch packages"
    rm -rf "$dir"
    mkdir -p "$dir/apt/lists/partial" "$dir/apt/archives/partial" "$dir/root" "$dir/dpkg/info"
    : > "$dir/apt/status"
    echo 1 > "$dir/dpkg/info/format"  # info/PACKAGE:ARCH.list for Multi-Arch: same
    cat > "$dir/apt/apt.conf" <<CONF
APT::Architecture "$arch";
APT::Architectures { "$arch"; };
APT::Install-Recommends "false";
Dir::State "$dir/apt";
Dir::State::status "$dir/apt/status";
Dir::Cache "$dir/apt";
CONF
    export APT_CONFIG="$dir/apt/apt.conf"
    # A list that can't be fetched (a mirror in sync) leaves the older
    # packages of the lists that could; with none, the download below fails.
    apt-get update -qq ||
        echo "install-deps: going on with the $arch package lists that could be fetched" >&2
    # shellcheck disable=SC2086
    apt-get install -qq -y --download-only $LIBRARIES >/dev/null
    for deb in "$dir"/apt/archives/*.deb; do
        register "$deb"
    done
    rm -rf "$dir/apt"
    # Links to /lib/... would leave the sysroot for the machine's own files.
    find "$dir/root" -lname '/*' | while read -r link; do
        ln -sfn "$(realpath -m --relative-to="$(dirname "$link")" "$dir/root$(readlink "$link")")" "$link"
    done
    echo "$dir" $LIBRARIES > "$dir/done"
}

# Unpacks a package into the sysroot and enters it in build-sysroot-ARCH/dpkg,
# a dpkg database where the sysroot's packages are installed at their paths
# in the sysroot: what dpkg-shlibdeps reads to give a cross-built package its
# dependencies.
register() {
    name=$(dpkg-deb -f "$1" Package)
    [ "$(dpkg-deb -f "$1" Multi-Arch)" = same ] && name="$name:$arch"
    dpkg-deb -f "$1" Package Version Architecture Multi-Arch Maintainer Description >> "$dir/dpkg/status"
    printf 'Status: install ok installed\n\n' >> "$dir/dpkg/status"
    dpkg-deb -X "$1" "$dir/root" | sed "s|^\./|$dir/root/|; s|/$||" > "$dir/dpkg/info/$name.list"
    control=$(mktemp -d)
    dpkg-deb -e "$1" "$control"
    for file in shlibs symbols; do
        if [ -f "$control/$file" ]; then
            cp "$control/$file" "$dir/dpkg/info/$name.$file"
        fi
    done
    rm -rf "$control"
}

# The daemon's tests start built programs, which run here through qemu once
# the kernel hands it ARCH's executables (binfmt_misc). Where that can't be
# set up, those tests say so and skip.
register_qemu() {
    [ -e "/proc/sys/fs/binfmt_misc/qemu-$qemu" ] && return 0
    [ "$(id -u)" -eq 0 ] || return 0
    [ -e /proc/sys/fs/binfmt_misc/register ] ||
        mount -t binfmt_misc binfmt_misc /proc/sys/fs/binfmt_misc 2>/dev/null || true
    cat "/usr/lib/binfmt.d/qemu-$qemu.conf" > /proc/sys/fs/binfmt_misc/register 2>/dev/null ||
        echo "install-deps: qemu could not be registered for $arch executables" >&2
}

install_missing
if [ -n "$arch" ]; then
    make_sysroot
    register_qemu
fi
