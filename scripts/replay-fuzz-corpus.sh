#!/usr/bin/env bash
# Builds the libFuzzer targets (clang, ASan + UBSan) and runs every
# committed corpus file, seeds and regression inputs alike, once through
# every target, under the fuzzing limits: 512 MB and 1 s per input (5 s for
# the target with FFmpeg's description, which may take its 2 s deadline). No
# fuzzing: the same files give the same runs every time. A target that
# crashes, reports, leaks, runs out of time or memory, or breaks one of its
# own checks on any file fails the script.
#
# Then the program itself, built the same way, reads the same files: the
# whole-program inputs under their own names in argument mode, and every
# corpus file, sample and test image in one request stream, each with its
# three sensor dump files. Every request must be answered, every result
# line must be a JSON object and every dump file a JSON array, to a strict
# parser (no NaN or Infinity); otherwise the script fails too.
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
if ! cmake --build "$build" -j"$jobs" --target "${targets[@]/%/_fuzzer}" sondex > "$build/replay-build.log" 2>&1; then
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
  limit=1
  [ "$target" = cli_described ] && limit=5
  if ASAN_OPTIONS=quarantine_size_mb=64 TMPDIR=$scratch \
    "$build/fuzz/$name" -rss_limit_mb=512 -malloc_limit_mb=512 -timeout="$limit" "${files[@]}" > "$log" 2>&1; then
    echo "replay: $name ran ${#files[@]} files"
  else
    failed=1
    echo "replay: $name FAILED" >&2
    grep -B2 -A40 -m1 -E '^(==[0-9]+== ?ERROR|==sondex-fuzz==|.*runtime error)' "$log" >&2 || tail -n 40 "$log" >&2
  fi
done

# The whole-program inputs: a control byte (bits 1-2 name the file), then
# the file, read in argument mode as well. Every other file is read as it
# stands, under its own name.
sondex=$PWD/$build/cli/sondex
json=$scratch/json
mkdir "$json"
names=(in.mp4 in.jpg in.dng in.JPEG)
requests=0
inputs=()
for file in "${files[@]}" samples/* tests/data/realworld/*; do
  [[ $file == *.md ]] && continue
  requests=$((requests + 1))
  base=$json/$requests
  if [[ $file == fuzz/corpus/cli_process_file_fuzzer/* ]]; then
    control=$(od -A n -N 1 -t u1 "$file")
    mkdir "$base"
    name=$base/${names[$(((control >> 1) & 3))]}
    tail -c +2 "$file" > "$name"
    (cd "$base" && "$sondex" -kdtd:kdtd.json -kdtb:kdtb.json -kdtc:kdtc.json "$name" > "$base.argument.txt" 2>&1) || true
  else
    name=$base.$(basename "$file")
    cp "$file" "$name"
  fi
  inputs+=("$name")
  printf '%s\t%s\t%s\t%s\n' "$name" "$base.kdtd.json" "$base.kdtb.json" "$base.kdtc.json"
done > "$json/requests"
"$sondex" < "$json/requests" > "$json/stream.txt" 2>&1 || true
# The same files through --json, in one process: one object per file.
"$sondex" --json -q "${inputs[@]}" > "$json/objects.jsonl" || true
if ! python3 - "$json" "$requests" <<'EOF'; then
import glob, json, os, sys

folder, requests = sys.argv[1], int(sys.argv[2])


def refuse(word):
    raise ValueError("%s is not JSON" % word)


def check(text, kind):
    if not isinstance(json.loads(text, parse_constant=refuse), kind):
        raise ValueError("not a JSON " + ("object" if kind is dict else "array"))


bad = []
lines = answers = 0
for output in sorted(glob.glob(os.path.join(folder, "*.txt"))):
    for line in open(output, encoding="utf-8", errors="replace").read().splitlines():
        if line.startswith("result: "):
            lines += 1
            answers += output.endswith("stream.txt")
            try:
                check(line[len("result: "):], dict)
            except ValueError as error:
                bad.append("%s: %s: %s" % (os.path.basename(output), error, line))
dumps = sorted(glob.glob(os.path.join(folder, "*.json")) + glob.glob(os.path.join(folder, "*", "*.json")))
for dump in dumps:
    try:
        with open(dump, encoding="utf-8") as f:
            check(f.read(), list)
    except ValueError as error:
        bad.append("dump file %s: %s" % (os.path.relpath(dump, folder), error))
if answers != requests:
    bad.append("%d requests but %d answers in the request stream" % (requests, answers))
objects = open(os.path.join(folder, "objects.jsonl"), encoding="utf-8").read().splitlines()
for line in objects:
    try:
        check(line, dict)
        if json.loads(line)["status"] not in ("ok", "failed"):
            raise ValueError("a status other than ok or failed")
    except (ValueError, KeyError) as error:
        bad.append("--json: %s: %s" % (error, line))
if len(objects) != requests:
    bad.append("%d files but %d --json objects" % (requests, len(objects)))
for problem in bad:
    print("replay: " + problem, file=sys.stderr)
print("replay: sondex read %d files: %d result lines, %d dump files and %d --json objects checked"
      % (requests, lines, len(dumps), len(objects)))
sys.exit(1 if bad else 0)
EOF
  failed=1
  echo "replay: sondex FAILED the JSON checks" >&2
fi
exit "$failed"
