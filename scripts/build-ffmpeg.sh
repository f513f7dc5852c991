#!/usr/bin/env bash
# Builds the lean, static FFmpeg that sondex links (the default,
# -DSONDEX_FFMPEG=lean): the source of Debian's own `ffmpeg` package,
# fetched with apt-get source, configured with nothing but the MP4 demuxer,
# the file protocol and the decoders listed below, without external
# libraries, programs or documentation.
#
#   scripts/build-ffmpeg.sh                  build if needed; print the prefix
#   scripts/build-ffmpeg.sh --update         build again if Debian has a newer source
#   scripts/build-ffmpeg.sh --configure-line print the configure options only
#
# The result is installed once per machine under
# ${XDG_CACHE_HOME:-$HOME/.cache}/sondex/ffmpeg-<Debian version>-<hash of
# the options>, outside any build folder, so that every build folder (normal,
# sanitizers, fuzzing, CI) shares it. The last line printed on standard
# output is that folder (lib/, include/, lib/pkgconfig/). Concurrent runs
# wait for each other; a build runs in a temporary folder that is renamed
# into place only once it is complete.
#
# The source comes through a private apt source list, written from the
# Debian entries of the machine's own apt sources (same mirrors, same
# suites) as deb-src entries, with its own lists and caches under the cache
# folder: the machine's apt configuration and state are left alone.
set -euo pipefail

configure_options=(
  --disable-everything
  --disable-autodetect --disable-iconv
  --disable-network
  --disable-programs
  --disable-doc
  --disable-debug
  --disable-avdevice --disable-avfilter --disable-swscale --disable-swresample --disable-postproc
  --enable-static --disable-shared --enable-pic
  --enable-demuxer=mov
  --enable-protocol=file
  --enable-decoder=h264,hevc,mpeg4,vp9,prores,mjpeg
  --enable-parser=h264,hevc,mpeg4video,vp9,mjpeg
)

update=no
case "${1:-}" in
  --configure-line)
    echo "${configure_options[*]}"
    exit 0
    ;;
  --update) update=yes ;;
  "") ;;
  *)
    echo "usage: $0 [--update | --configure-line]" >&2
    exit 2
    ;;
esac

home=${HOME:-$(getent passwd "$(id -u)" | cut -d: -f6)}
cache=${XDG_CACHE_HOME:-$home/.cache}/sondex
hash=$(printf '%s\n' "${configure_options[@]}" | sha256sum | cut -c1-12)
mkdir -p "$cache"

# The newest finished build with these options, if any.
finished() {
  local dirs
  dirs=$(find "$cache" -mindepth 1 -maxdepth 1 -type d -name "ffmpeg-*-$hash" -printf '%f\n' | sort -V | tail -n 1)
  [ -n "$dirs" ] && echo "$cache/$dirs"
}

if [ "$update" = no ] && done_dir=$(finished); then
  echo "$done_dir"
  exit 0
fi

exec 9> "$cache/ffmpeg.lock"
flock 9
# Another run may have finished it while this one waited.
if [ "$update" = no ] && done_dir=$(finished); then
  echo "$done_dir"
  exit 0
fi
# Folders of runs that were interrupted (the lock is ours, so none is live).
rm -rf "$cache"/.ffmpeg-build.*

work=$(mktemp -d "$cache/.ffmpeg-build.XXXXXX")
trap 'rm -rf "$work"' EXIT
log=$cache/ffmpeg-build.log
: > "$log"
fail() {
  echo "build-ffmpeg: $1; the end of $log:" >&2
  tail -n 40 "$log" >&2
  exit 1
}

# The private source list: every Debian entry of the machine's apt sources
# (one-line .list or deb822 .sources), as deb-src.
keyring=/usr/share/keyrings/debian-archive-keyring.gpg
eval "$(apt-config shell source_list Dir::Etc::SourceList/f source_parts Dir::Etc::SourceParts/d)"
apt_dir=$cache/apt
mkdir -p "$apt_dir/lists/partial" "$apt_dir/cache/archives/partial"
# deb [options] URI suite components...
one_line='
  $1 == "deb" || $1 == "deb-src" {
    signed = ""; i = 2
    if ($2 ~ /^\[/) {
      for (; i <= NF; i++) {
        if ($i ~ /^\[?signed-by=/) { signed = $i; sub(/^\[?signed-by=/, "", signed); sub(/\]$/, "", signed) }
        if ($i ~ /\]$/) { i++; break }
      }
    }
    if (signed != "" && signed !~ /debian-archive-/) next
    if ($(i + 1) ~ /backports/) next
    line = "deb-src [signed-by=" keyring "] " $i " " $(i + 1)
    for (j = i + 2; j <= NF && $j !~ /^#/; j++) line = line " " $j
    print line
  }'
{
  for f in "${source_list:-}" "${source_parts:-/etc/apt/sources.list.d/}"*.list; do
    if [ -f "$f" ]; then awk -v keyring="$keyring" "$one_line" "$f"; fi
  done
  for f in "${source_parts:-/etc/apt/sources.list.d/}"*.sources; do
    [ -f "$f" ] || continue
    # deb822: one paragraph per entry; an inline key (a continued
    # Signed-By field) is not Debian's archive key.
    awk -v keyring="$keyring" -v RS= '
      {
        types = uris = suites = components = signed = ""; enabled = "yes"; key = ""
        n = split($0, lines, "\n")
        for (l = 1; l <= n; l++) {
          line = lines[l]
          if (line ~ /^#/) continue
          if (line ~ /^[ \t]/) { if (key == "signed-by") signed = "inline"; continue }
          key = tolower(line); sub(/:.*/, "", key)
          value = line; sub(/^[^:]*:[ \t]*/, "", value)
          if (key == "types") types = value
          else if (key == "uris") uris = value
          else if (key == "suites") suites = value
          else if (key == "components") components = value
          else if (key == "signed-by") signed = value
          else if (key == "enabled") enabled = tolower(value)
        }
        if (enabled == "no" || types !~ /deb/ || uris == "") next
        if (signed != "" && signed !~ /debian-archive-/) next
        nu = split(uris, u, /[ \t]+/); ns = split(suites, s, /[ \t]+/)
        for (a = 1; a <= nu; a++) for (b = 1; b <= ns; b++) {
          if (s[b] == "" || s[b] ~ /backports/) continue
          print "deb-src [signed-by=" keyring "] " u[a] " " s[b] " " components
        }
      }' "$f"
  done
} | sort -u > "$apt_dir/sources.list"
[ -s "$apt_dir/sources.list" ] || {
  echo "build-ffmpeg: no Debian entry in the machine's apt sources to fetch FFmpeg's source from" >&2
  exit 1
}

apt_options=(
  -o Dir::Etc::SourceList="$apt_dir/sources.list"
  -o Dir::Etc::SourceParts=/dev/null
  -o Dir::State::Lists="$apt_dir/lists"
  -o Dir::Cache="$apt_dir/cache"
  -o APT::Sandbox::User="$(id -un)"
)
# An entry that cannot be read (a third-party one without a signed-by of its
# own, which the Debian keyring cannot check) does not matter as long as
# Debian's own entries give the source.
apt-get "${apt_options[@]}" update >> "$log" 2>&1 || echo "build-ffmpeg: apt-get update reported errors" >> "$log"
version=$(apt-cache "${apt_options[@]}" showsrc ffmpeg 2>> "$log" | sed -n 's/^Version: //p' | sort -V | tail -n 1)
[ -n "$version" ] || fail "Debian's ffmpeg source package was not found"
# The folder name leaves out the epoch: a colon would split the folder in
# PKG_CONFIG_PATH.
final=$cache/ffmpeg-${version#*:}-$hash
if [ -d "$final" ]; then
  echo "$final"
  exit 0
fi

echo "build-ffmpeg: building FFmpeg $version (Debian source, lean static configuration; a few minutes, once per machine)" >&2
(cd "$work" && apt-get "${apt_options[@]}" source "ffmpeg=$version") >> "$log" 2>&1 ||
  fail "apt-get source ffmpeg=$version failed"
source_dir=$(find "$work" -mindepth 1 -maxdepth 1 -type d -name 'ffmpeg-*' | head -n 1)
[ -n "$source_dir" ] || fail "apt-get source left no ffmpeg folder"

jobs=$(nproc 2> /dev/null || echo 2)
(
  cd "$source_dir"
  ./configure --prefix="$final" "${configure_options[@]}"
  make -j"$jobs"
  make install DESTDIR="$work/stage"
) >> "$log" 2>&1 || fail "FFmpeg's build failed"
# FFmpeg's licence and Debian's copyright file go with the libraries, for
# the package to ship; the configure line too.
doc=$work/stage$final/share/doc/ffmpeg
mkdir -p "$doc"
cp "$source_dir/COPYING.LGPLv2.1" "$source_dir/LICENSE.md" "$source_dir/debian/copyright" "$doc/"
echo "${configure_options[*]}" > "$doc/configure-line.txt"
echo "Debian source package ffmpeg $version" > "$doc/source.txt"
mv "$work/stage$final" "$final"
echo "$final"
