#!/usr/bin/env bash
# Probes every movie and still under a folder on all cores: the file list is
# dealt round-robin into one share per worker, and xargs -P runs each share
# through ONE sondex in request-stream mode.
#
#   examples/probe-archive.sh FOLDER [WORKERS] > answers.tsv
#
# Writes "path<TAB>JSON" lines, sorted by path; a count and the time taken go
# to standard error. The program is $SONDEX, else build/cli/sondex when it
# exists, else sondex on the PATH.
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

if [ $# -lt 1 ] || [ $# -gt 2 ] || [ ! -d "$1" ]; then
  echo "usage: $0 FOLDER [WORKERS] > answers.tsv" >&2
  exit 2
fi
folder=$1
workers=${2:-$(nproc)}
sondex=${SONDEX:-}
if [ -z "$sondex" ]; then
  if [ -x build/cli/sondex ]; then sondex=$PWD/build/cli/sondex; else sondex=sondex; fi
fi
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
start=$(date +%s.%N)

FENCE="$work/fence-$(od -A n -t x8 -N 8 /dev/urandom | tr -d ' ').jpg"
export SONDEX=$sondex FENCE FENCE_LINE="open($FENCE, 'r') failed." LC_ALL=C.UTF-8

# Every movie and still, NUL-separated, split into the paths a request line
# can carry and those it cannot.
find "$folder" -type f \( -iname '*.mp4' -o -iname '*.jpg' -o -iname '*.jpeg' -o -iname '*.dng' \) -print0 \
  > "$work/all"
expressible='^[^\t\r\n]{1,4095}\z'
grep -zaP -e "$expressible" "$work/all" > "$work/paths" || true
if grep -zavP -e "$expressible" "$work/all" > "$work/rejected"; then
  while IFS= read -r -d '' path; do
    printf 'probe-archive: cannot be a request line, skipped: %q\n' "$path" >&2
  done < "$work/rejected"
fi

# One share per worker, dealt round-robin so that big and small files mix.
mkdir "$work/shares"
if [ -s "$work/paths" ]; then
  split -e -n "r/$workers" -t '\0' -d -a 4 "$work/paths" "$work/shares/"
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

shares=("$work"/shares/*)
if [ -e "${shares[0]}" ]; then
  printf '%s\0' "${shares[@]}" | xargs -0 -n 1 -P "$workers" bash -c 'probe_share "$1"' _
fi

count=$(tr -cd '\0' < "$work/paths" | wc -c)
cat "$work"/shares/*.tsv 2>/dev/null | sort
end=$(date +%s.%N)
awk -v n="$count" -v w="$workers" -v s="$start" -v e="$end" 'BEGIN {
  t = e - s; printf "probe-archive: %d files with %d workers in %.2f s (%.0f files/s)\n", n, w, t, (t > 0 ? n / t : 0)
}' >&2
