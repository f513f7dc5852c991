#!/usr/bin/env bash
# How many faults the tests catch: applies a fixed, seeded sample of single
# mutations to the program code (a comparison flipped, an arithmetic
# operator swapped, a constant moved by one, a boolean or a logical
# operator inverted, a statement deleted), rebuilds, runs the whole test
# suite and counts the mutants it kills (a test fails or times out).
# Mutants that do not compile are skipped and the next site in the sample
# is taken, so every run on the same program code tries the same mutants.
#
#   scripts/mutation-score.sh [count] [seed]     (default: 80 mutants, seed 1)
#
# With KILLED_IN=<log of an earlier run>, only the mutants that run killed are
# tried again (the others count as surviving): a quick check that a changed
# test suite still catches what the earlier one caught, on the same program.
# With RESUME=<log of a run that was stopped>, the mutants that log gives a
# verdict keep it and the run goes on from where that one ended.
#
# It works on a copy of the working tree in build-mutation/ (the tree itself
# is never changed) and prints one line per mutant, then the score. Not run
# by CI: about a minute per mutant on two cores.
set -euo pipefail
cd "$(dirname "$0")/.."

count=${1:-80}
seed=${2:-1}
work=$PWD/build-mutation
src=$work/src
build=$work/build
# The copy follows the working tree: tracked and new files, nothing ignored.
# Every copied file is newer than the build (a run stopped in the middle may
# have left an object built from a mutant); ccache keeps the rebuild short.
rm -rf "$src"
mkdir -p "$src"
git ls-files --cached --others --exclude-standard -z | tar --null -T - -cf - | tar -xmf - -C "$src"
launcher=()
command -v ccache > /dev/null && launcher=(-DCMAKE_CXX_COMPILER_LAUNCHER=ccache)
cmake -S "$src" -B "$build" -DCMAKE_BUILD_TYPE=None -DCMAKE_CXX_FLAGS="-O1" "${launcher[@]}" > /dev/null
cmake --build "$build" -j"$(nproc)" > "$work/build.log" 2>&1 || { tail -n 30 "$work/build.log"; exit 1; }

python3 - "$src" "$build" "$count" "$seed" "${KILLED_IN:-}" "${RESUME:-}" <<'EOF'
import glob, os, random, re, subprocess, sys

src, build, count, seed = sys.argv[1], sys.argv[2], int(sys.argv[3]), int(sys.argv[4])
# The mutants an earlier run tried, and those it killed (by their lines).
tried_before = killed_before = None
if sys.argv[5]:
    lines_before = [line.split(None, 1) for line in open(sys.argv[5], encoding="utf-8")]
    tried_before = {rest.rstrip("\n") for word, rest in lines_before if word in ("killed", "LIVED")}
    killed_before = {rest.rstrip("\n") for word, rest in lines_before if word == "killed"}
# Verdicts of a stopped run, by mutant.
resumed = {}
if sys.argv[6]:
    for line in open(sys.argv[6], encoding="utf-8"):
        word, _, rest = line.rstrip("\n").partition(" ")
        if word in ("killed", "LIVED"):
            resumed[rest.strip().removesuffix("(before)").strip()] = word == "killed"
folders = ("cli", "gltk", "mp4", "h264", "exif", "sensor", "report")
jobs = str(os.cpu_count() or 2)


def code_spans(line):
    """The parts of a line outside string and character literals and comments."""
    spans, start, i, quote = [], 0, 0, None
    while i < len(line):
        c = line[i]
        if quote:
            if c == "\\":
                i += 2
                continue
            if c == quote:
                quote, start = None, i + 1
        elif c in "\"'":
            spans.append((start, i))
            quote = c
        elif line.startswith("//", i):
            spans.append((start, i))
            return spans
        i += 1
    if not quote:
        spans.append((start, len(line)))
    return spans


REPLACE = [(" < ", " <= "), (" <= ", " < "), (" > ", " >= "), (" >= ", " > "), (" == ", " != "),
           (" != ", " == "), (" + ", " - "), (" - ", " + "), (" * ", " / "), (" && ", " || "),
           (" || ", " && "), ("true", "false"), ("false", "true")]
WORD = re.compile(r"\b(true|false)\b")
NUMBER = re.compile(r"(?<![\w.])(\d+)(?![\w.])")
STATEMENT = re.compile(r"^\s+[A-Za-z_][\w:.\->]*(\(.*\))?( *[-+*/|&]?= .*)?;\s*$")

sites = []
for folder in folders:
    for name in sorted(os.listdir(os.path.join(src, folder))):
        if not name.endswith((".cpp", ".h")):
            continue
        path = os.path.join(folder, name)
        lines = open(os.path.join(src, path), encoding="utf-8").read().split("\n")
        for n, line in enumerate(lines):
            stripped = line.strip()
            if not stripped or stripped.startswith(("#", "//", "*", "/*", "static_assert")):
                continue
            for a, b in code_spans(line):
                part = line[a:b]
                for old, new in REPLACE:
                    if old in ("true", "false"):
                        found = [m.start() for m in WORD.finditer(part) if m.group(1) == old]
                    else:
                        found = [m.start() for m in re.finditer(re.escape(old), part)]
                    for at in found:
                        sites.append((path, n, a + at, old, new))
                for m in NUMBER.finditer(part):
                    sites.append((path, n, a + m.start(), m.group(1), str(int(m.group(1)) + 1)))
            if STATEMENT.match(line) and not stripped.startswith(("return", "break", "continue")):
                sites.append((path, n, 0, line, ""))



def suite_passes():
    """Each test binary in one process (far quicker than one process per
    test), the unit tests first and the whole-program tests last, stopping at
    the first failure; then the documentation tests."""
    env = dict(os.environ, SONDEX_SOURCE_DIR=src)
    binaries = glob.glob(os.path.join(build, "tests", "*", "sondex_*_tests"))
    for binary in sorted(binaries, key=lambda path: (path.endswith("sondex_cli_tests"), path)):
        run = subprocess.run(["timeout", "300", binary, "--gtest_fail_fast", "--gtest_brief=1"], env=env,
                             capture_output=True, cwd=os.path.dirname(binary))
        if run.returncode != 0:
            return False
    docs = subprocess.run(["ctest", "--test-dir", build, "-R", "^docs[.]", "--timeout", "300", "--stop-on-failure"],
                          capture_output=True)
    return docs.returncode == 0


if not suite_passes():
    sys.exit("mutation-score: the tests fail before any mutation")
random.Random(seed).shuffle(sites)
print(f"{len(sites)} mutation sites; trying them in seeded order until {count} mutants compile", flush=True)
tried = killed = skipped = 0
for path, n, at, old, new in sites:
    if tried == count:
        break
    full = os.path.join(src, path)
    original = open(full, encoding="utf-8").read()
    lines = original.split("\n")
    if new == "" and old == lines[n]:
        what = "delete: " + old.strip()
        lines[n] = ""
    else:
        what = f"{old.strip()} -> {new.strip()}: {lines[n].strip()}"
        lines[n] = lines[n][:at] + new + lines[n][at + len(old):]
    name = f"{path}:{n + 1}  {what[:110]}"
    if name.strip() in resumed:
        tried += 1
        killed += resumed[name.strip()]
        print(f"{'killed ' if resumed[name.strip()] else 'LIVED  '} {name}", flush=True)
        continue
    if tried_before is not None and name not in killed_before:
        if name in tried_before:
            tried += 1
            print(f"LIVED   {name}  (before)", flush=True)
        else:
            skipped += 1
        continue
    open(full, "w", encoding="utf-8").write("\n".join(lines))
    try:
        built = subprocess.run(["cmake", "--build", build, "-j", jobs], capture_output=True).returncode == 0
        if not built:
            skipped += 1
            continue
        tried += 1
        dead = not suite_passes()
        killed += dead
        print(f"{'killed ' if dead else 'LIVED  '} {name}", flush=True)
    finally:
        open(full, "w", encoding="utf-8").write(original)
subprocess.run(["cmake", "--build", build, "-j", jobs], capture_output=True)
print(f"mutants {tried} (not compiling, skipped: {skipped}), killed {killed}: "
      f"{100.0 * killed / max(tried, 1):.1f} %")
EOF
