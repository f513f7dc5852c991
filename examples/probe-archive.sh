#!/usr/bin/env bash
# Probes every movie and still under a folder on all cores: the file list is
# dealt round-robin into one share per worker, and xargs -P runs each share
# through ONE sondex in request-stream mode.
#
#   examples/probe-archive.sh FOLDER [WORKERS] > answers.tsv
#
# Writes "path<TAB>JSON" lines, sorted by path; a count and the time taken go
# to standard error. The files are those sondex reads: .mp4, .mov, .m4v, .jpg,
# .jpeg and .dng, in any case. WORKERS, a positive whole number, defaults to
# the number of cores. The program is $SONDEX, else sondex on the PATH, else
# build/cli/sondex in the checkout this script lives in; when there is none,
# or it does not run, the script says so and exits with status 1.
#
# Every request line is answered with one "result: " line, but a console
# message may quote a file's own text (a movie's model name) and so look like
# a result line too. Each path is therefore followed by a fence: a request
# for a still that does not exist, under a random name, answered by its open
# failure and a failed result. A path's answer is the last result line before
# its fence. A file during which sondex ends (killed or crashed) gets
# {"status":"no answer"}, written by this script, and its
# share goes on with a new sondex. Paths a request line cannot carry (a tab,
# carriage return or line feed in the name, a name that is not UTF-8, more
# than 4095 characters) are listed on standard error and left out.
set -euo pipefail

usage() {
  echo "usage: $0 FOLDER [WORKERS] > answers.tsv" >&2
  exit 2
}
[ $# -ge 1 ] && [ $# -le 2 ] && [ -d "$1" ] || usage
folder=$1
workers=${2-$(nproc)}
[[ $workers =~ ^[1-9][0-9]{0,8}$ ]] || usage

# The program, as a path that the workers can run from anywhere.
fail() {
  echo "probe-archive: $*" >&2
  exit 1
}
sondex=${SONDEX:-}
if [ -n "$sondex" ]; then
  if [[ $sondex != */* ]]; then
    sondex=$(type -P -- "$sondex") || fail "no program $SONDEX on the PATH"
  fi
else
  built=$(cd "$(dirname "$(readlink -f -- "$0")")/.." && pwd)/build/cli/sondex
  sondex=$(type -P sondex) || sondex=$built
  [ -e "$sondex" ] || fail "no sondex on the PATH nor in $built; name one with SONDEX=PROGRAM"
fi
[[ $sondex == /* ]] || sondex=$PWD/$sondex
version=$("$sondex" --version < /dev/null 2>/dev/null) && [[ $version == "sondex "* ]] ||
  fail "cannot run $sondex: its --version did not answer as sondex does"
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
start=$(date +%s.%N)

FENCE="$work/fence-$(od -A n -t x8 -N 8 /dev/urandom | tr -d ' ').jpg"
export SONDEX=$sondex FENCE FENCE_LINE="open($FENCE, 'r') failed." LC_ALL=C.UTF-8

# Every movie and still, NUL-separated, split into the paths a request line
# can carry and those it cannot.
find "$folder" -type f \( -iname '*.mp4' -o -iname '*.mov' -o -iname '*.m4v' -o -iname '*.jpg' -o -iname '*.jpeg' -o -iname '*.dng' \) -print0 \
  > "$work/all"
expressible='^[^\t\r\n]{1,4095}\z'
grep -zaP -e "$expressible" "$work/all" > "$work/paths" || true
if grep -zavP -e "$expressible" "$work/all" > "$work/rejected"; then
  while IFS= read -r -d '' path; do
    printf 'probe-archive: cannot be a request line, skipped: %q\n' "$path" >&2
  done < "$work/rejected"
fi

# One share per worker (no more shares than files), dealt round-robin so
# that big and small files mix.
count=$(tr -cd '\0' < "$work/paths" | wc -c)
shares=$(( workers < count ? workers : count ))
mkdir "$work/shares"
if [ "$shares" -gt 0 ]; then
  split -e -n "r/$shares" -t '\0' -d -a "${#shares}" "$work/paths" "$work/shares/"
fi

probe_share() {
  local share=$1 answered total
  tr '\0' '\n' < "$share" > "$share.paths"
  : > "$share.tsv"
  while [ -s "$share.paths" ]; do
    awk '{ print; print ENVIRON["FENCE"] }' "$share.paths" | "$SONDEX" | awk '
      $0 == ENVIRON["FENCE_LINE"] { print (last == "" ? "{\"status\":\"no answer\"}" : last); last = ""; fence = 1; next }
      /^result: / { if (fence) fence = 0; else last = substr($0, 9) }
    ' > "$share.results" || true
    answered=$(wc -l < "$share.results")
    total=$(wc -l < "$share.paths")
    head -n "$answered" "$share.paths" | paste - "$share.results" >> "$share.tsv"
    [ "$answered" -lt "$total" ] || break
    # sondex ended while reading the next path: mark it and go on after it.
    sed -n "$((answered + 1))s/\$/\t{\"status\":\"no answer\"}/p" "$share.paths" >> "$share.tsv"
    tail -n +"$((answered + 2))" "$share.paths" > "$share.rest"
    mv "$share.rest" "$share.paths"
  done
}
export -f probe_share

if [ "$shares" -gt 0 ]; then
  printf '%s\0' "$work"/shares/* | xargs -0 -n 1 -P "$shares" bash -c 'probe_share "$1"' _
  cat "$work"/shares/*.tsv | sort
fi
end=$(date +%s.%N)
awk -v n="$count" -v w="$workers" -v s="$start" -v e="$end" 'BEGIN {
  t = e - s; printf "probe-archive: %d files with %d workers in %.2f s (%.0f files/s)\n", n, w, t, (t > 0 ? n / t : 0)
}' >&2
