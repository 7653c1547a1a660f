#!/bin/sh
# Makes a demo device root for `make run`: a user disk whose data folder holds
# a few media files made here with ImageMagick, exiftool and ffmpeg, the
# sample localisation folder, the stand-in device tools and their values.
# Usage: make-demo-root.sh ROOT   (ROOT is made if missing). Every run starts
# from a fresh user disk, so the index and the folders are as the printed
# commands expect; the media are made once and kept in ROOT/demo-media, so a
# second run is quick. Prints two quorvia-cli commands that work against a
# daemon started on it from the source tree's top.
set -eu

root=${1:?usage: make-demo-root.sh ROOT}
here=$(cd "$(dirname "$0")/.." && pwd)
mkdir -p "$root"
root=$(cd "$root" && pwd)
data="$root/userdisk/data"
media="$root/demo-media"
tools="$here/tools/device"

mkdir -p "$media" "$root/etc/talvernconfig" "$root/sbin" "$root/usr/sbin" "$root/tmp"

# Photos with the dates a camera writes.
make_photo() { # file colours exif-date
    [ -f "$media/$1" ] && return 0
    convert -size 320x240 "gradient:$2" "$media/$1"
    exiftool -q -overwrite_original "-DateTimeOriginal=$3" "$media/$1"
}
make_photo photo.jpg skyblue-white "2021:05:06 07:08:09"
make_photo sunset.jpg orange-purple "2019:08:15 19:45:00"
[ -f "$media/drawing.png" ] || convert -size 64x64 xc:seagreen "$media/drawing.png"

# Ten seconds of video with a creation time, and five of audio.
[ -f "$media/clip.mp4" ] || ffmpeg -v error -y -f lavfi -i testsrc=duration=10:size=160x120:rate=10 \
    -metadata creation_time=2022-03-04T10:20:30Z -c:v mpeg4 "$media/clip.mp4"
[ -f "$media/song.mp3" ] || ffmpeg -v error -y -f lavfi -i sine=frequency=440:duration=5 \
    -metadata title=Tone "$media/song.mp3"

# A fresh user disk: no index, no folders left from an earlier run.
rm -rf "$root/userdisk"
mkdir -p "$data"
cp -p "$media"/* "$data/"

# Localised folder names, and the device's tools with what they answer.
[ -d "$root/etc/talvernconfig/localization" ] ||
    cp -r "$here/data/localization" "$root/etc/talvernconfig/localization"
ln -sf "$tools/uci" "$root/sbin/uci"
ln -sf "$tools/sysapi" "$root/usr/sbin/sysapi"
set_tool_value() { # tool key value
    mkdir -p "$root/device/$1"
    printf '%s\n' "$3" > "$root/device/$1/$(printf '%s' "$2" | tr / _)"
}
set_tool_value uci brendle_version.version.ROM 2.10.3
set_tool_value uci brendle_version.version.CHANNEL release
set_tool_value nvram SN DEMO0001
set_tool_value nvram CountryCode CN

cat <<EOT
Demo device root: $root
Try, from $here in another shell:
  build/bin/quorvia-cli '{"api":0,"path":"$data/photo.jpg","name":"photo.jpg","hash":"demo-photo","defaultModifyTime":0}'
  build/bin/quorvia-cli '{"api":2,"path":"$data/clip.mp4","name":"clip.mp4","hash":"demo-clip","defaultModifyTime":0}'
Then move a file and watch its row follow within about a second:
  mkdir "$data/album" && mv "$data/photo.jpg" "$data/album/"
  sqlite3 "$data/.systemconfig/DataBase/quorvia.db" 'SELECT HASH, PATH FROM quorvia'
EOT
