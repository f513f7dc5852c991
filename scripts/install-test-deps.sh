#!/usr/bin/env bash
# Installs what the tests, the benchmarks, the fuzzers and the documentation
# checks need on Debian 12, on top of what building and running needs
# (scripts/install-deps.sh installs both, in one apt-get call).
# Idempotent: packages already present are left alone; run as root (or through sudo).
set -euo pipefail
cd "$(dirname "$0")/.."

packages=(
  # tests
  libgtest-dev libgmock-dev ffmpeg libimage-exiftool-perl exiv2 python3 python3-jsonschema
  # benchmarks and fuzzing
  libbenchmark-dev clang libclang-rt-14-dev
  # documentation checks, the sensor plot and the Debian package (dpkg-dev
  # comes with the build's packages)
  groff-base gnuplot-nox file
)
bash scripts/install-deps.sh "${packages[@]}"
