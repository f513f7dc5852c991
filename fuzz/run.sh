#!/usr/bin/env bash
# Builds the libFuzzer targets and fuzzes one or all of them, one after
# another, each for the given number of seconds (one process, so seconds of
# wall time are about seconds of CPU time).
#
#   fuzz/run.sh <target|all> <seconds> [libFuzzer options...]
#   fuzz/run.sh list
#
# Targets: mp4_container, h264_avcc, exif_attach, sensor_loader,
# cli_process_file (the fuzz/<target>_fuzzer.cpp files), and cli_described:
# the whole program as cli_process_file, with FFmpeg's description in place
# of the fake; its inputs may take the description's 2 s deadline, so its
# time limit per input is 5 s. Each starts from its
# committed corpus (fuzz/corpus/<target>_fuzzer) and writes what it finds to
# <build>/corpus/<target>_fuzzer; crashes, leaks, timeouts and out-of-memory
# inputs go to <build>/findings/<target>_fuzzer/<time>/. Limits: 512 MB and
# 1 s per input (5 s for cli_described, which starts from cli_process_file's
# corpus). The build folder <build> is build-fuzz unless SONDEX_FUZZ_BUILD
# names another.
# A summary line per target gives executions, coverage and corpus size;
# the status is 1 when any target found something.
set -euo pipefail
cd "$(dirname "$0")/.."

targets=(mp4_container h264_avcc exif_attach sensor_loader cli_process_file cli_described)
build=${SONDEX_FUZZ_BUILD:-build-fuzz}

usage() {
  awk 'NR > 1 && /^#/ { sub(/^# ?/, ""); print; next } NR > 1 { exit }' "$0"
  exit 2
}
[ $# -ge 1 ] || usage
if [ "$1" = list ]; then
  printf '%s\n' "${targets[@]}"
  exit 0
fi
[ $# -ge 2 ] || usage
which=$1
seconds=$2
shift 2
case $which in
  all) chosen=("${targets[@]}") ;;
  *)
    chosen=("${which%_fuzzer}")
    [[ " ${targets[*]} " == *" ${chosen[0]} "* ]] || { echo "run.sh: no target $which" >&2; usage; }
    ;;
esac

# The dictionaries each target uses.
dictionaries() {
  case $1 in
    mp4_container) echo fuzz/mp4.dict fuzz/h264.dict ;;
    h264_avcc) echo fuzz/h264.dict ;;
    exif_attach) echo fuzz/exif.dict ;;
    sensor_loader) echo fuzz/sensor.dict fuzz/mp4.dict ;;
    cli_process_file | cli_described) echo fuzz/mp4.dict fuzz/sensor.dict fuzz/exif.dict fuzz/h264.dict fuzz/report.dict ;;
  esac
}

if [ ! -f "$build/CMakeCache.txt" ]; then
  CC=clang CXX=clang++ cmake -S . -B "$build" -DSONDEX_BUILD_FUZZERS=ON -DSONDEX_BUILD_TESTS=OFF \
    -DCMAKE_BUILD_TYPE=RelWithDebInfo > /dev/null
fi
cmake --build "$build" -j"$(nproc 2>/dev/null || echo 2)" --target "${chosen[@]/%/_fuzzer}" > /dev/null

# The files the targets write live in a scratch folder, in memory when
# possible, removed at the end whatever happens to the targets.
scratch_base=/dev/shm
[ -d "$scratch_base" ] && [ -w "$scratch_base" ] || scratch_base=${TMPDIR:-/tmp}
scratch=$(mktemp -d "$scratch_base/sondex-fuzz-run.XXXXXX")
trap 'rm -rf "$scratch"' EXIT

found=0
for target in "${chosen[@]}"; do
  name=${target}_fuzzer
  corpus=$build/corpus/$name
  seeds=fuzz/corpus/$name
  limit=1
  if [ "$target" = cli_described ]; then
    seeds=fuzz/corpus/cli_process_file_fuzzer
    limit=5
  fi
  findings=$build/findings/$name/$(date +%Y%m%d-%H%M%S)
  log=$build/logs/$name.log
  mkdir -p "$corpus" "$findings" "$(dirname "$log")"
  dict=$scratch/$name.dict
  # shellcheck disable=SC2046
  cat $(dictionaries "$target") > "$dict"
  started=$(date +%s)
  status=0
  # ASan holds freed memory in a quarantine of 256 MB by default; a smaller
  # one leaves the 512 MB limit to the program under test.
  ASAN_OPTIONS=${ASAN_OPTIONS:-quarantine_size_mb=64} TMPDIR=$scratch \
    "$build/fuzz/$name" "$corpus" "$seeds" -dict="$dict" -max_total_time="$seconds" \
    -rss_limit_mb=512 -malloc_limit_mb=512 -timeout="$limit" -artifact_prefix="$findings/" -print_final_stats=1 \
    "$@" > "$log" 2>&1 || status=$?
  elapsed=$(( $(date +%s) - started ))
  last=$(grep -E '^#[0-9]+' "$log" | tail -n 1 || true)
  execs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log")
  cov=$(sed -n 's/.* cov: \([0-9]*\).*/\1/p' <<< "$last")
  ft=$(sed -n 's/.* ft: \([0-9]*\).*/\1/p' <<< "$last")
  corp=$(sed -n 's/.* corp: \([0-9]*\/[0-9]*[a-zA-Z]*\).*/\1/p' <<< "$last")
  rss=$(sed -n 's/^stat::peak_rss_mb: *//p' "$log")
  slowest=$(sed -n 's/^stat::slowest_unit_time_sec: *//p' "$log")
  printf '%-17s %ss  executions %s  coverage %s edges / %s features  corpus %s  peak RSS %s MB  slowest %s s\n' \
    "$target" "$elapsed" "${execs:-?}" "${cov:-?}" "${ft:-?}" "${corp:-?}" "${rss:-?}" "${slowest:-?}"
  if [ "$status" -ne 0 ] || compgen -G "$findings/*" > /dev/null; then
    found=1
    echo "  FOUND: see $log and $findings/" >&2
    grep -E '^(==[0-9]+==ERROR|SUMMARY|==sondex-fuzz==)' "$log" | head -n 5 | sed 's/^/  /' >&2 || true
  fi
done
exit "$found"
