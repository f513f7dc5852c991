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
ctest --test-dir "$build" -j"$(nproc)" > "$build/ctest.log" 2>&1 || { tail -n 30 "$build/ctest.log"; exit 1; }
# Branches the compiler adds for exceptions are left out: they say nothing
# about the tests. gcov prints a few call counts as negative numbers, which
# gcovr 5.2 cannot parse: it skips those lines instead of giving up.
gcovr --root . --object-directory "$build" --gcov-ignore-parse-errors --exclude-throw-branches \
  --exclude-unreachable-branches --filter '(cli|gltk|mp4|h264|exif|sensor|report)/' --print-summary \
  --txt "$build/coverage.txt" 2> "$build/gcovr.log" | tail -n 3
echo "per file: $build/coverage.txt"
