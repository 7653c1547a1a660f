#!/bin/sh
# Installs, only where missing, every Debian package that the build, the tests,
# the benchmarks and the demo need. Quiet and quick when everything is there.
set -eu

PACKAGES="
build-essential cmake pkg-config
libthrift-dev thrift-compiler libevent-dev
libboost-thread-dev libboost-filesystem-dev libboost-system-dev libboost-chrono-dev
libgoogle-glog-dev libjson-c-dev libsqlite3-dev sqlite3 libconfig++-dev
libexif-dev libavformat-dev libavutil-dev
libjpeg62-turbo-dev libpng-dev libmagickwand-6.q16-dev imagemagick
libssl-dev googletest libgtest-dev libgmock-dev
ffmpeg libimage-exiftool-perl python3 python3-thrift
clang libclang-rt-14-dev inotify-tools procps
"

missing=""
for p in $PACKAGES; do
    status=$(dpkg-query -W -f='${Status}' "$p" 2>/dev/null || true)
    case "$status" in
        *"ok installed"*) ;;
        *) missing="$missing $p" ;;
    esac
done

[ -z "$missing" ] && exit 0

if [ "$(id -u)" -ne 0 ]; then
    echo "install-deps: missing packages:$missing (run as root to install them)" >&2
    exit 1
fi

echo "install-deps: installing$missing"
export DEBIAN_FRONTEND=noninteractive
apt-get update -qq
# shellcheck disable=SC2086
apt-get install -y -qq --no-install-recommends $missing >/dev/null
