#!/usr/bin/env bash
# Line and branch coverage of the program code (cli, gltk, mp4, h264, exif,
# sensor, report) by the whole ctest suite, with gcovr. Builds into
# build-coverage/ and prints gcovr's summary, then one line per file.
#
#   scripts/coverage.sh
#
# Not run by CI. Installs gcovr (a Debian package) when it is missing.
set -euo pipefail
cd "$(dirname "$0")/.."

if ! command -v gcovr > /dev/null; then
  sudo=()
  [ "$(id -u)" -eq 0 ] || sudo=(sudo)
  "${sudo[@]}" apt-get install -y --no-install-recommends gcovr > /dev/null
fi
build=build-coverage
cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=None -DCMAKE_CXX_FLAGS="-O0 --coverage" \
  -DCMAKE_EXE_LINKER_FLAGS=--coverage > /dev/null
cmake --build "$build" -j"$(nproc)" > "$build/build.log" 2>&1 || { tail -n 30 "$build/build.log"; exit 1; }
find "$build" -name '*.gcda' -delete
# A program run under a file-size limit (the tests use prlimit --fsize)
# cannot write its counters whole, and a cut counter file spoils the counts
# of every later run. A prlimit first on PATH sends those runs' counters to a
# scratch folder: what they alone reach is not counted.
shim=$PWD/$build/prlimit-shim
mkdir -p "$shim"
printf '#!/bin/sh\nGCOV_PREFIX=%s exec %s "$@"\n' "$shim/counters" "$(command -v prlimit)" > "$shim/prlimit"
chmod +x "$shim/prlimit"
PATH="$shim:$PATH" ctest --test-dir "$build" -j"$(nproc)" > "$build/ctest.log" 2>&1 ||
  { tail -n 30 "$build/ctest.log"; exit 1; }
# Branches the compiler adds for exceptions are left out: they say nothing
# about the tests. gcov prints a few call counts as negative numbers, which
# gcovr 5.2 cannot parse: it skips those lines instead of giving up.
gcovr --root . --object-directory "$build" --gcov-ignore-parse-errors --exclude-throw-branches \
  --exclude-unreachable-branches --filter '(cli|gltk|mp4|h264|exif|sensor|report)/' --print-summary \
  --txt "$build/coverage.txt" 2> "$build/gcovr.log" | tail -n 3
echo "per file: $build/coverage.txt"
