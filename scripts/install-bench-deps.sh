#!/usr/bin/env bash
# Installs what the whole-process benchmark (bench/run.sh) needs on top of
# what the build and the tests need (Google Benchmark among them): the peers
# it is compared with and the measuring tools. Idempotent; run as root (or through sudo).
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/install-test-deps.sh

packages=(hyperfine mediainfo libimage-exiftool-perl ffmpeg strace time python3)
missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
done
[ ${#missing[@]} -eq 0 ] && exit 0
SUDO=
if [ "$(id -u)" -ne 0 ]; then SUDO=sudo; fi
export DEBIAN_FRONTEND=noninteractive
$SUDO apt-get -o DPkg::Lock::Timeout=600 update -qq
$SUDO apt-get -o DPkg::Lock::Timeout=600 install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
