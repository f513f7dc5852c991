#!/usr/bin/env python3
"""Drive sondex's request stream the way a desktop application would.

One long-lived sondex process answers every file: the driver writes one
request line, reads standard output up to that request's "result: " line,
and only then writes the next request. Movies are asked for their three
sensor dump files (gravity with yaw, gyro, e-compass). At the end a summary
table is printed, one row per file.

    python3 examples/driver.py [--sondex PROGRAM] [--dumps FOLDER] [-v] PATH...

A PATH that is a folder is searched for the files sondex reads: .mp4, .mov,
.m4v, .jpg, .jpeg and .dng, in any case. The program is --sondex, else
$SONDEX, else sondex on the PATH, else build/cli/sondex in the checkout this
script lives in; when there is none, or it does not run, the driver says so
and exits with status 1. Uses the Python standard library only.
"""

import argparse
import json
import os
import secrets
import shutil
import subprocess
import sys
import tempfile
import unicodedata

RESULT = b"result: "
STILL_SUFFIXES = (".jpg", ".jpeg", ".dng")
MOVIE_SUFFIXES = (".mp4", ".mov", ".m4v")
# One request line holds at most this many characters before its newline;
# a longer one would be read as two requests and answered twice.
MAX_LINE = 4095
DUMP_KINDS = ("gravity", "gyro", "compass")


class NoProgram(Exception):
    pass


def find_program(chosen):
    """The sondex to run: the one chosen (--sondex or $SONDEX), else sondex
    on the PATH, else the build folder of the checkout this script is in.
    Raises NoProgram when there is none or it does not answer --version."""
    if chosen:
        program = shutil.which(chosen) if os.sep not in chosen else chosen
        if program is None:
            raise NoProgram("no program %s on the PATH" % chosen)
    else:
        here = os.path.dirname(os.path.realpath(__file__))
        built = os.path.join(os.path.dirname(here), "build", "cli", "sondex")
        program = shutil.which("sondex") or (built if os.path.exists(built) else None)
        if program is None:
            raise NoProgram("no sondex on the PATH nor in %s; name one with --sondex PROGRAM or SONDEX=PROGRAM"
                            % built)
    try:
        done = subprocess.run([program, "--version"], stdin=subprocess.DEVNULL, capture_output=True, timeout=30)
    except (OSError, subprocess.SubprocessError) as error:
        raise NoProgram("cannot run %s: %s" % (program, error))
    if done.returncode != 0 or not done.stdout.startswith(b"sondex "):
        raise NoProgram("cannot run %s: its --version did not answer as sondex does (exit status %d)"
                        % (program, done.returncode))
    return program


def kind_of(path):
    """Which reader sondex picks for a path: by its ending, any case."""
    lower = path.lower()
    if len(path) >= 5 and lower.endswith((".dng", ".jpg")):
        return "still"
    if len(path) >= 6 and lower.endswith(".jpeg"):
        return "still"
    return "movie"


def request_line(fields):
    """The request line for the fields (source path, then dump paths), or
    None with the reason when the protocol cannot carry them."""
    for field in fields:
        if field == "":
            return None, "empty field"
        if any(c in field for c in "\t\r\n"):
            return None, "tab, carriage return or line feed in the path"
        try:
            field.encode("utf-8")
        except UnicodeEncodeError:
            return None, "path is not valid UTF-8"
    line = "\t".join(fields)
    if len(line) > MAX_LINE:
        return None, "request line longer than %d characters" % MAX_LINE
    return line, None


def parse_result(text):
    """Parse the JSON behind "result: "; None when it is not a JSON object."""
    try:
        result = json.loads(text)
    except json.JSONDecodeError:
        return None
    return result if isinstance(result, dict) else None


class Sondex:
    """One sondex process in request-stream mode."""

    def __init__(self, program, fence_dir):
        self.program = program
        self.fence_dir = fence_dir
        self.process = None

    def start(self):
        try:
            self.process = subprocess.Popen(
                [self.program], stdin=subprocess.PIPE, stdout=subprocess.PIPE, bufsize=0
            )
        except OSError as error:
            raise EOFError("cannot start %s: %s" % (self.program, error))

    def _send(self, line):
        try:
            self.process.stdin.write(line.encode("utf-8") + b"\n")
            self.process.stdin.flush()
        except BrokenPipeError:
            pass

    def _read_line(self):
        # Lines end with a line feed only: a carriage return inside a
        # message is part of that message.
        raw = self.process.stdout.readline()
        if not raw:
            status = self.process.wait()
            self.process = None
            how = "killed by signal %d" % -status if status < 0 else "exit status %d" % status
            raise EOFError("sondex ended (%s)" % how)
        return raw.rstrip(b"\n")

    def ask(self, line):
        """Send one request; return (result text or None, console lines).

        Console messages can quote text taken from the file (a movie's model
        name), so a file can make a message line that starts with "result: ".
        The genuine result line is the last one the request prints. To know
        where a request's output ends, a fence follows each request: a
        request for a still that does not exist, under a random name, which
        is answered with exactly two lines, its open failure and a failed
        result. None means the process ended without answering; a new one
        is started for the next request."""
        messages = []
        result = None
        try:
            if self.process is None:
                self.start()
            self._send(line)
            while result is None:  # up to the first result line
                raw = self._read_line()
                if raw.startswith(RESULT):
                    result = raw[len(RESULT):]
                else:
                    messages.append(raw)
            fence = os.path.join(self.fence_dir, "fence-%s.jpg" % secrets.token_hex(8))
            self._send(fence)
            fence_message = ("open(%s, 'r') failed." % fence).encode("utf-8")
            while True:  # up to the fence's message; later result lines win
                raw = self._read_line()
                if raw == fence_message:
                    break
                if raw.startswith(RESULT):
                    messages.append(RESULT + result)
                    result = raw[len(RESULT):]
                else:
                    messages.append(raw)
            self._read_line()  # the fence's own failed result
        except EOFError as end:
            messages.append(str(end).encode("utf-8"))
            result = None
        return (
            None if result is None else result.decode("utf-8", "replace"),
            [m.decode("utf-8", "replace") for m in messages],
        )

    def close(self):
        """End the stream; sondex exits with status 0 at end of input."""
        if self.process is None:
            return 0
        self.process.stdin.close()
        status = self.process.wait()
        self.process = None
        return status


def collect(paths):
    files = []
    for path in paths:
        if os.path.isdir(path):
            for root, dirs, names in os.walk(path):
                dirs.sort()
                for name in sorted(names):
                    if name.lower().endswith(STILL_SUFFIXES + MOVIE_SUFFIXES):
                        files.append(os.path.join(root, name))
        else:
            files.append(path)
    return files


def count_samples(path):
    """Objects in a dump file; an empty stream is the lone "["."""
    try:
        with open(path, "rb") as f:
            data = f.read()
    except OSError:
        return None
    if data.strip() == b"[":
        return 0
    return len(json.loads(data))


def shown(path):
    """A path as the table shows it: undecodable bytes and line-breaking
    characters escaped."""
    text = os.fsencode(path).decode("utf-8", "backslashreplace")
    return text.translate({9: "\\t", 10: "\\n", 13: "\\r"})


def width(text):
    """Terminal columns of a text: East Asian wide and fullwidth characters
    take two, combining marks none."""
    columns = 0
    for c in text:
        if unicodedata.combining(c) or unicodedata.category(c) in ("Mn", "Me"):
            continue
        columns += 2 if unicodedata.east_asian_width(c) in ("W", "F") else 1
    return columns


def pad(text, columns):
    return text + " " * (columns - width(text))


def describe(result, kind, counts):
    if kind == "still":
        angles = ["%s %g" % (k, result[k]) for k in ("yaw", "pitch", "roll") if k in result]
        detail = result.get("type", "") + ("  " + " ".join(angles) if angles else "")
        if "jpeg" in result:
            detail += "  preview %d bytes" % result["jpeg"]["bytes"]
        return detail
    duration = result.get("duration")
    parts = [
        result.get("codec", "?"),
        result.get("type", "?"),
        "?" if duration is None else "%.2f s" % duration,
    ]
    if "frameWidth" in result and "frameHeight" in result:
        parts.append("%dx%d" % (result["frameWidth"], result["frameHeight"]))
    parts.append("samples %s" % "/".join("-" if c is None else str(c) for c in counts))
    return "  ".join(parts)


def main(argv):
    parser = argparse.ArgumentParser(description="Probe files through one sondex process.")
    parser.add_argument("paths", nargs="+", metavar="PATH", help="files or folders")
    parser.add_argument("--sondex", default=os.environ.get("SONDEX"),
                        help="the sondex program (default: $SONDEX, sondex on the PATH, build/cli/sondex)")
    parser.add_argument("--dumps", help="keep the sensor dump files in this folder")
    parser.add_argument("-v", "--verbose", action="store_true", help="show console messages")
    args = parser.parse_args(argv)
    try:
        program = find_program(args.sondex)
    except NoProgram as error:
        print("driver.py: %s" % error, file=sys.stderr)
        return 1

    dump_dir = args.dumps or tempfile.mkdtemp(prefix="sondex-dumps-")
    os.makedirs(dump_dir, exist_ok=True)
    sondex = Sondex(program, dump_dir)
    rows = []
    try:
        for index, path in enumerate(collect(args.paths)):
            kind = kind_of(path)
            fields = [path]
            dumps = []
            if kind == "movie":
                stem = "%03d-%s" % (index, os.path.basename(path))
                dumps = [os.path.join(dump_dir, "%s.%s.json" % (stem, k)) for k in DUMP_KINDS]
                fields += dumps
            line, reason = request_line(fields)
            if line is None:
                rows.append((path, kind, "skipped", "", reason))
                continue
            text, messages = sondex.ask(line)
            if args.verbose:
                for message in messages:
                    print("  %s: %s" % (path, message), file=sys.stderr)
            if text is None:
                rows.append((path, kind, "no answer", "", messages[-1]))
                continue
            result = parse_result(text)
            if result is None:
                rows.append((path, kind, "unreadable", "", text))
                continue
            status = result.get("status", "?")
            if status != "succeed":
                rows.append((path, kind, status, "", messages[-1] if messages else ""))
                continue
            counts = [count_samples(d) for d in dumps]
            detail = describe(result, kind, counts)
            rows.append((path, kind, status, result.get("model", ""), detail))
        exit_status = sondex.close()
    finally:
        if sondex.process is not None:
            sondex.process.kill()
        if not args.dumps:
            shutil.rmtree(dump_dir, ignore_errors=True)

    rows = [(shown(row[0]),) + row[1:] for row in rows]
    header = ("file", "kind", "status", "model", "details")
    widths = [max(width(str(row[i])) for row in rows + [header]) for i in range(4)]
    for row in [header] + rows:
        cells = [pad(str(cell), columns) for cell, columns in zip(row, widths)]
        print("  ".join(cells + [str(row[4])]).rstrip())
    answered = sum(1 for row in rows if row[2] == "succeed")
    print("%d files, %d read, %d not; sondex exit status %d" % (len(rows), answered, len(rows) - answered, exit_status))
    return 0 if exit_status == 0 else 1


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
