#!/usr/bin/env bash
# Builds the libFuzzer targets (clang, ASan + UBSan) and runs every
# committed corpus file, seeds and regression inputs alike, once through
# every target, under the fuzzing limits: 512 MB and 1 s per input. No
# fuzzing: the same files give the same runs every time. A target that
# crashes, reports, leaks, runs out of time or memory, or breaks one of its
# own checks on any file fails the script.
set -euo pipefail
cd "$(dirname "$0")/.."

jobs=$(nproc 2>/dev/null || echo 2)
build=${SONDEX_FUZZ_BUILD:-build-fuzz}
mapfile -t targets < <(bash fuzz/run.sh list)
if [ ! -f "$build/CMakeCache.txt" ]; then
  CC=clang CXX=clang++ cmake -S . -B "$build" -DSONDEX_BUILD_FUZZERS=ON -DSONDEX_BUILD_TESTS=OFF \
    -DCMAKE_BUILD_TYPE=RelWithDebInfo > /dev/null
fi
mkdir -p "$build"
if ! cmake --build "$build" -j"$jobs" --target "${targets[@]/%/_fuzzer}" > "$build/replay-build.log" 2>&1; then
  cat "$build/replay-build.log"
  exit 1
fi

files=(fuzz/corpus/*/*)
# The files the targets write go to a scratch folder, in memory when possible.
scratch_base=/dev/shm
[ -d "$scratch_base" ] && [ -w "$scratch_base" ] || scratch_base=${TMPDIR:-/tmp}
scratch=$(mktemp -d "$scratch_base/sondex-replay.XXXXXX")
trap 'rm -rf "$scratch"' EXIT
failed=0
for target in "${targets[@]}"; do
  name=${target}_fuzzer
  log=$scratch/$name.log
  if ASAN_OPTIONS=quarantine_size_mb=64 TMPDIR=$scratch \
    "$build/fuzz/$name" -rss_limit_mb=512 -malloc_limit_mb=512 -timeout=1 "${files[@]}" > "$log" 2>&1; then
    echo "replay: $name ran ${#files[@]} files"
  else
    failed=1
    echo "replay: $name FAILED" >&2
    grep -B2 -A40 -m1 -E '^(==[0-9]+== ?ERROR|==sondex-fuzz==|.*runtime error)' "$log" >&2 || tail -n 40 "$log" >&2
  fi
done
exit "$failed"
