#!/usr/bin/env bash
# Installs everything the build, the tests and the benchmarks need on Debian 12.
# Idempotent: packages already present are left alone; run as root (or through sudo).
set -euo pipefail

packages=(
  # build
  build-essential cmake pkg-config git
  # the movie description's FFmpeg: scripts/build-ffmpeg.sh fetches Debian's
  # source (apt-get source unpacks it with dpkg-dev) and assembles with nasm;
  # -DSONDEX_FFMPEG=system links Debian's libraries through the -dev packages
  nasm dpkg-dev xz-utils libavformat-dev libavcodec-dev libavutil-dev
  # tests
  libgtest-dev libgmock-dev ffmpeg libimage-exiftool-perl exiv2 python3 python3-jsonschema
  # benchmarks and fuzzing
  libbenchmark-dev clang libclang-rt-14-dev
  # documentation checks, the sensor plot and the Debian package (dpkg-dev above)
  groff-base gnuplot-nox file
)

missing=()
for p in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed'; then
    missing+=("$p")
  fi
done

if [ ${#missing[@]} -eq 0 ]; then
  exit 0
fi

SUDO=
if [ "$(id -u)" -ne 0 ]; then SUDO=sudo; fi
export DEBIAN_FRONTEND=noninteractive
$SUDO apt-get update -qq
$SUDO apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
