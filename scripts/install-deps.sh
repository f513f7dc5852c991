#!/usr/bin/env bash
# Installs what building and running sondex needs on Debian 12, and the
# further packages named as arguments (scripts/install-test-deps.sh names
# what the tests, benchmarks and fuzzers need).
#
#   scripts/install-deps.sh [PACKAGE...]
#
# Idempotent: packages already present are left alone; run as root (or through sudo).
set -euo pipefail

packages=(
  # build
  build-essential cmake pkg-config git
  # the movie description's FFmpeg: scripts/build-ffmpeg.sh fetches Debian's
  # source (apt-get source unpacks it with dpkg-dev) and assembles with nasm;
  # -DSONDEX_FFMPEG=system links Debian's libraries through the -dev packages,
  # which bring the shared libraries the program then runs with
  nasm dpkg-dev xz-utils libavformat-dev libavcodec-dev libavutil-dev
  "$@"
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
