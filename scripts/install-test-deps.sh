#!/usr/bin/env bash
# Installs what the tests, the benchmarks, the fuzzers and the documentation
# checks need on Debian 12, on top of what building and running needs
# (scripts/install-deps.sh, run first).
# Idempotent: packages already present are left alone; run as root (or through sudo).
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/install-deps.sh

packages=(
  # tests
  libgtest-dev libgmock-dev ffmpeg libimage-exiftool-perl exiv2 python3 python3-jsonschema
  # benchmarks and fuzzing
  libbenchmark-dev clang libclang-rt-14-dev
  # documentation checks, the sensor plot and the Debian package (dpkg-dev
  # comes with the build's packages)
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
