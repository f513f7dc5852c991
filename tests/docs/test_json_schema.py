#!/usr/bin/env python3
"""Checks the --json objects against docs/sondex-json.schema.json: the
schema itself, the objects of the bundled samples, of the real-world files,
of the fuzz corpora and of the JSON test fixtures (tests/cli/golden/json.txt),
and that docs/json.md describes every key the schema has.

    SONDEX=PROGRAM SONDEX_SOURCE_DIR=DIR python3 test_json_schema.py

Needs Debian's python3-jsonschema.
"""

import glob
import json
import os
import subprocess
import tempfile
import unittest

import jsonschema

SOURCE = os.environ.get("SONDEX_SOURCE_DIR", os.path.join(os.path.dirname(__file__), "..", ".."))
SONDEX = os.path.abspath(os.environ.get("SONDEX", os.path.join(SOURCE, "build", "cli", "sondex")))


def source(name):
    return os.path.join(SOURCE, name)


def refuse(word):
    raise ValueError("%s is not JSON" % word)


def keys(schema):
    """Every property name in the schema, at any depth."""
    found = set()
    if isinstance(schema, dict):
        found |= set(schema.get("properties", {}))
        for value in schema.values():
            found |= keys(value)
    elif isinstance(schema, list):
        for value in schema:
            found |= keys(value)
    return found


class Schema(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        with open(source("docs/sondex-json.schema.json"), encoding="utf-8") as f:
            cls.schema = json.load(f)
        jsonschema.Draft202012Validator.check_schema(cls.schema)
        cls.validator = jsonschema.Draft202012Validator(cls.schema)

    def check(self, lines, where):
        self.assertTrue(lines, where)
        for line in lines:
            value = json.loads(line, parse_constant=refuse)
            errors = [error.message for error in self.validator.iter_errors(value)]
            self.assertEqual(errors, [], "%s: %s" % (where, line[:200]))

    def test_objects_of_samples_real_world_files_and_fuzz_corpora(self):
        files = sorted(glob.glob(source("samples/*")) + glob.glob(source("tests/data/realworld/*")))
        files = [f for f in files if not f.endswith(".md")]
        with tempfile.TemporaryDirectory() as scratch:
            # The fuzz inputs under the names the program reads them by.
            for i, name in enumerate(sorted(glob.glob(source("fuzz/corpus/*/*")))):
                with open(name, "rb") as f:
                    data = f.read()
                for ending in (".mp4", ".jpg", ".dng"):
                    copy = os.path.join(scratch, "%d%s" % (i, ending))
                    with open(copy, "wb") as f:
                        f.write(data)
                    files.append(copy)
            run = subprocess.run([SONDEX, "--json", "-q", "--dumps", scratch] + files, capture_output=True, timeout=240)
        self.assertIn(run.returncode, (0, 1))
        lines = run.stdout.decode("utf-8").splitlines()
        self.assertEqual(len(lines), len(files))
        self.check(lines, "sondex --json")

    def test_objects_of_the_json_fixtures(self):
        with open(source("tests/cli/golden/json.txt"), encoding="utf-8") as f:
            self.check(f.read().splitlines(), "tests/cli/golden/json.txt")

    def test_docs_describe_every_key(self):
        with open(source("docs/json.md"), encoding="utf-8") as f:
            page = f.read()
        missing = sorted(key for key in keys(self.schema) if "`%s`" % key not in page)
        self.assertEqual(missing, [])


if __name__ == "__main__":
    unittest.main()
