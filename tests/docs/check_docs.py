#!/usr/bin/env python3
"""Runs the commands that README.md and docs/*.md show, as written.

Every fenced block with the info string "sh" is run with bash in a fresh
folder that looks like a built checkout: samples/, examples/, tools/ and
build/cli/sondex (the program under test). The blocks of one document run in
order in the same folder, so later ones see what earlier ones wrote. When a
"text" block follows a "sh" block, the command's standard output must equal
it exactly.

Blocks that cannot run here say so in a comment line right above them:
    <!-- docs-test: run by scripts/check-package.sh -->
and then every line of the block must appear in that script. The two set-up
commands at the top of README.md are checked against .ci/run, and the
program run at the end of the first one is run here.

    check_docs.py --source DIR --sondex PROGRAM [DOCUMENT...]
"""

import argparse
import os
import re
import shutil
import subprocess
import sys
import tempfile

DOCUMENTS = ("README.md", "docs/report.md", "docs/sensors.md")
MARKER = re.compile(r"<!-- docs-test: run by (\S+) -->")


class Block:
    def __init__(self, info, text, line, marker):
        self.info = info
        self.text = text
        self.line = line
        self.marker = marker
        self.expected = None  # the text block that follows, if any


def blocks_of(path):
    """The fenced blocks of a Markdown file, each sh block paired with the
    text block right after it."""
    lines = open(path, encoding="utf-8").read().split("\n")
    blocks = []
    i = 0
    previous = ""  # the last non-blank line outside blocks
    between = 0  # non-blank lines since the last block
    while i < len(lines):
        fence = re.match(r"^```(\S*)\s*$", lines[i])
        if not fence:
            if lines[i].strip():
                previous = lines[i].strip()
                between += 1
            i += 1
            continue
        start = i + 1
        end = start
        while end < len(lines) and lines[end] != "```":
            end += 1
        if end == len(lines):
            raise SystemExit("%s:%d: unclosed code block" % (path, i + 1))
        marker = MARKER.fullmatch(previous)
        block = Block(fence.group(1), "\n".join(lines[start:end]) + "\n", i + 1, marker.group(1) if marker else None)
        if block.info == "text" and blocks and blocks[-1].info == "sh" and between == 0:
            blocks[-1].expected = block
        blocks.append(block)
        previous = ""
        between = 0
        i = end + 1
    return blocks


def sandbox(source, sondex):
    root = tempfile.mkdtemp(prefix="sondex-docs-")
    for folder in ("samples", "examples", "tools"):
        shutil.copytree(os.path.join(source, folder), os.path.join(root, folder))
    os.makedirs(os.path.join(root, "build", "cli"))
    os.symlink(os.path.abspath(sondex), os.path.join(root, "build", "cli", "sondex"))
    return root


def run(block, cwd, where):
    done = subprocess.run(
        ["bash", "-euo", "pipefail", "-c", block.text],
        cwd=cwd,
        stdin=subprocess.DEVNULL,
        capture_output=True,
        timeout=120,
    )
    out = done.stdout.decode("utf-8", "replace")
    if done.returncode != 0:
        return "%s: exit status %d\n--- command\n%s--- stdout\n%s--- stderr\n%s" % (
            where, done.returncode, block.text, out, done.stderr.decode("utf-8", "replace"))
    if block.expected is not None and out != block.expected.text:
        return "%s: output differs from the text block at line %d\n--- expected\n%s--- got\n%s" % (
            where, block.expected.line, block.expected.text, out)
    return None


def check_setup(source, block, root):
    """The two set-up commands at the top of README.md."""
    problems = []
    commands = block.text.splitlines()
    if block.info != "sh" or len(commands) != 2:
        return ["README.md:%d: the first block must hold exactly two commands" % block.line]
    ci = open(os.path.join(source, ".ci", "run"), encoding="utf-8").read().splitlines()
    if commands[1] not in ci:
        problems.append("README.md: the second set-up command is not what .ci/run runs")
    last = commands[0].split(" && ")[-1]
    if not last.startswith("./build/cli/sondex samples/"):
        problems.append("README.md: the first command does not end by running build/cli/sondex on a sample")
    else:
        done = subprocess.run(["bash", "-c", last], cwd=root, capture_output=True, timeout=60)
        lines = done.stdout.decode("utf-8", "replace").splitlines()
        if done.returncode != 0 or not lines or not lines[-1].startswith('result: {"status":"succeed"'):
            problems.append("README.md: '%s' shows no result line" % last)
    return problems


def check_document(source, sondex, name):
    path = os.path.join(source, name)
    problems = []
    root = sandbox(source, sondex)
    try:
        blocks = blocks_of(path)
        if name == "README.md":
            if not blocks or blocks[0].line != 3:
                problems.append("README.md must start with its title and the set-up block")
            else:
                problems += check_setup(source, blocks[0], root)
                blocks = blocks[1:]
        ran = 0
        for block in blocks:
            where = "%s:%d" % (name, block.line)
            if block.info != "sh":
                continue
            if block.marker:
                script = open(os.path.join(source, block.marker), encoding="utf-8").read()
                for command in block.text.splitlines():
                    if command.strip() and command.strip() not in script:
                        problems.append("%s: '%s' is not run by %s" % (where, command.strip(), block.marker))
                continue
            problem = run(block, root, where)
            ran += 1
            if problem:
                problems.append(problem)
        print("%s: %d command blocks run" % (name, ran))
    finally:
        shutil.rmtree(root, ignore_errors=True)
    return problems


def main(argv):
    parser = argparse.ArgumentParser()
    parser.add_argument("--source", required=True)
    parser.add_argument("--sondex", required=True)
    parser.add_argument("documents", nargs="*", default=list(DOCUMENTS))
    args = parser.parse_args(argv)
    problems = []
    for name in args.documents:
        problems += check_document(args.source, args.sondex, name)
    for problem in problems:
        print(problem, file=sys.stderr)
    return 1 if problems else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
