#!/usr/bin/env bash
# Whole-process benchmark: sondex against ffprobe, ExifTool and MediaInfo on
# the same files, beside the floors that bound what any probe of these files
# must spend. Prints one table of medians and the target ratios, then peak
# memory and read system calls of sondex on the one-hour movie, and the rate
# of --json over the batch against the request stream's.
#
#   bench/run.sh [corpus folder]     (default: build-bench/corpus, made if missing)
#   RUNS=10 bench/run.sh             (timed runs per command)
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/install-bench-deps.sh
build=build-bench
cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=Release -DSONDEX_BUILD_BENCHMARKS=ON -DSONDEX_BUILD_TESTS=OFF >/dev/null
cmake --build "$build" -j"$(nproc)" --target sondex make_corpus floor_ffmpeg_start floor_describe_open \
  floor_read_moov floor_sensor_math >/dev/null

corpus=${1:-$build/corpus}
[ -f "$corpus/long/long.mp4" ] || "$build/bench/make_corpus" "$corpus" long
[ -f "$corpus/batch/clip_199.mp4" ] || "$build/bench/make_corpus" "$corpus" batch
[ -f "$corpus/full/h265.mp4" ] || "$build/bench/make_corpus" "$corpus" full

sondex=$PWD/$build/cli/sondex
floors=$PWD/$build/bench
long=$corpus/long/long.mp4
clip=$corpus/batch/clip_000.mp4
runs=${RUNS:-10}
out=$(mktemp -d)
trap 'rm -rf "$out"' EXIT

ls "$corpus"/batch/clip_*.mp4 > "$out/batch.txt"
# ExifTool's stay-open protocol: one request (-j and a file) per -execute.
# The last command lets it exit.
{
  while read -r f; do printf -- '-j\n%s\n-execute\n' "$f"; done < "$out/batch.txt"
  printf -- '-stay_open\nFalse\n'
} > "$out/exiftool.args"

measure() {  # name, command...
  local name=$1
  shift
  hyperfine --style none --warmup 2 --runs "$runs" -N --export-json "$out/$name.json" "$@" >/dev/null 2>&1 ||
    hyperfine --style none --warmup 2 --runs "$runs" --export-json "$out/$name.json" "$*" >/dev/null
}
measure_shell() {  # name, shell command
  hyperfine --style none --warmup 1 --runs "$runs" --export-json "$out/$1.json" "$2" >/dev/null
}

echo "measuring (runs per command: $runs) ..." >&2
measure floor_start "$floors/floor_ffmpeg_start"
measure floor_describe_long "$floors/floor_describe_open $long"
measure floor_read_long "$floors/floor_read_moov $long"
measure sondex_long "$sondex $long"
measure_shell dump_long "$sondex -kdtb:$out/gyro.json $long"
measure ffprobe_long "ffprobe -v error -show_format -show_streams -of json $long"
measure exiftool_long "exiftool -j $long"
measure mediainfo_long "mediainfo --Output=JSON $long"

measure floor_describe_clip "$floors/floor_describe_open $clip"
measure sondex_clip "$sondex $clip"
measure ffprobe_clip "ffprobe -v error -show_format -show_streams -of json $clip"
measure exiftool_clip "exiftool -j $clip"
measure mediainfo_clip "mediainfo --Output=JSON $clip"
for codec in h264 h265; do
  measure "floor_describe_$codec" "$floors/floor_describe_open $corpus/full/$codec.mp4"
  measure "sondex_$codec" "$sondex $corpus/full/$codec.mp4"
done

measure_shell sondex_stream "$sondex < $out/batch.txt"
measure_shell sondex_json "xargs -a $out/batch.txt $sondex --json -q"
measure_shell sondex_per_file "xargs -n1 $sondex < $out/batch.txt"
measure_shell exiftool_stay_open "exiftool -stay_open True -@ $out/exiftool.args"
measure_shell mediainfo_batch "mediainfo --Output=JSON $corpus/batch"

for i in 1 2 3; do "$floors/floor_sensor_math" "$long"; done | sort -n | sed -n 2p > "$out/sensor_math.txt"
"$sondex" -kdtb:"$out/gyro.json" "$long" >/dev/null
stat -c %s "$out/gyro.json" > "$out/gyro_bytes.txt"
/usr/bin/time -f %M "$sondex" "$long" 2>"$out/rss_long.txt" >/dev/null
/usr/bin/time -f %M "$sondex" < "$out/batch.txt" 2>"$out/rss_batch.txt" >/dev/null
head -20 "$out/batch.txt" > "$out/batch20.txt"
/usr/bin/time -f %M "$sondex" < "$out/batch20.txt" 2>"$out/rss_batch20.txt" >/dev/null
strace -f -c -e trace=read,pread64,readv,preadv "$sondex" "$long" 2>"$out/strace.txt" >/dev/null

python3 - "$out" <<'PY'
import json, statistics, sys, os
out = sys.argv[1]
def med(name):
    with open(os.path.join(out, name + ".json")) as f:
        return statistics.median(json.load(f)["results"][0]["times"]) * 1000
def text(name):
    with open(os.path.join(out, name)) as f:
        return f.read().strip()
rows = ["floor_start", "floor_describe_long", "floor_read_long", "sondex_long", "dump_long", "ffprobe_long",
        "exiftool_long", "mediainfo_long", "floor_describe_clip", "sondex_clip", "ffprobe_clip", "exiftool_clip",
        "mediainfo_clip", "floor_describe_h264", "sondex_h264", "floor_describe_h265", "sondex_h265",
        "sondex_stream", "sondex_json", "sondex_per_file", "exiftool_stay_open", "mediainfo_batch"]
m = {r: med(r) for r in rows}
math = float(text("sensor_math.txt"))
print(f"{'command':<22}{'median ms':>12}")
for r in rows:
    print(f"{r:<22}{m[r]:>12.1f}")
print(f"{'sensor maths (in-process)':<22}{math:>9.1f}")
floor_long = m["floor_describe_long"] + m["floor_read_long"] + math
print()
print("targets (ratios from this run)")
print(f"T1 long vs floors   {m['sondex_long']:.1f} / ({m['floor_describe_long']:.1f} + {m['floor_read_long']:.1f} + {math:.1f})"
      f" = {m['sondex_long'] / floor_long:.2f}  (<= 1.5);  ffprobe x{m['ffprobe_long'] / m['sondex_long']:.1f},"
      f" exiftool x{m['exiftool_long'] / m['sondex_long']:.1f}, mediainfo x{m['mediainfo_long'] / m['sondex_long']:.1f} slower")
print(f"T2 4K clip vs floor {m['sondex_clip'] / m['floor_describe_clip']:.2f}  (<= 1.25);  H.264 full {m['sondex_h264'] / m['floor_describe_h264']:.2f},"
      f" H.265 full {m['sondex_h265'] / m['floor_describe_h265']:.2f};  ffprobe x{m['ffprobe_clip'] / m['sondex_clip']:.1f},"
      f" exiftool x{m['exiftool_clip'] / m['sondex_clip']:.1f}, mediainfo x{m['mediainfo_clip'] / m['sondex_clip']:.1f} slower")
rate = 200 / (m["sondex_stream"] / 1000)
print(f"T3 request stream   {rate:.0f} clips/s;  x{m['exiftool_stay_open'] / m['sondex_stream']:.1f} exiftool -stay_open (>= 10),"
      f" x{m['mediainfo_batch'] / m['sondex_stream']:.1f} mediainfo (>= 4);  one process per file {200 / (m['sondex_per_file'] / 1000):.0f} clips/s")
print(f"T7 --json           {200 / (m['sondex_json'] / 1000):.0f} clips/s in one process ="
      f" {m['sondex_stream'] / m['sondex_json']:.2f} of the request stream's rate (>= 0.80)")
gyro = int(text("gyro_bytes.txt"))
dump_ms = m["dump_long"] - m["sondex_long"]
print(f"T4 gyro dump        {gyro / 1e6:.1f} MB of JSON in {dump_ms:.1f} ms over the probe = {gyro / 1e6 / (dump_ms / 1000):.0f} MB/s (>= 200)")
print(f"T5 peak memory      long {int(text('rss_long.txt')) / 1024:.1f} MiB (<= 110); batch of 200 {int(text('rss_batch.txt')) / 1024:.1f} MiB (<= 40),"
      f" of 20 {int(text('rss_batch20.txt')) / 1024:.1f} MiB")
calls = 0
for line in text("strace.txt").splitlines():
    parts = line.split()
    if len(parts) >= 5 and parts[-1] in ("read", "pread64", "readv", "preadv"):
        calls += int(parts[3])
print(f"T6 read calls       {calls} on long (<= 1000)")
PY
