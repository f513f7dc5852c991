#!/usr/bin/env python3
"""Checks that the manual page renders cleanly and that the docs keep up with
the program: every option in the manual page and the README, every key the
report code can print in docs/report.md, every usage line the program prints
quoted nowhere differently.

    SONDEX=PROGRAM SONDEX_SOURCE_DIR=DIR python3 test_docs_content.py
"""

import glob
import os
import re
import shutil
import subprocess
import unittest

SOURCE = os.environ.get("SONDEX_SOURCE_DIR", os.path.join(os.path.dirname(__file__), "..", ".."))
SONDEX = os.path.abspath(os.environ.get("SONDEX", os.path.join(SOURCE, "build", "cli", "sondex")))
OPTIONS = ("-kdtd:", "-kdtb:", "-kdtc:", "-set1", "-dump", "-h")


def read(name):
    with open(os.path.join(SOURCE, name), encoding="utf-8") as f:
        return f.read()


class ManualPage(unittest.TestCase):
    @unittest.skipUnless(shutil.which("groff"), "groff not installed")
    def test_renders_without_warnings(self):
        run = subprocess.run(["groff", "-ww", "-man", "-Tutf8", os.path.join(SOURCE, "sondex.1")],
                             capture_output=True, timeout=60)
        self.assertEqual(run.returncode, 0)
        self.assertEqual(run.stderr, b"")
        text = re.sub(r".\x08", "", run.stdout.decode("utf-8"))
        for heading in ("NAME", "SYNOPSIS", "DESCRIPTION", "OPTIONS", "REQUEST STREAM", "EXIT STATUS"):
            self.assertIn("\n" + heading + "\n", text)

    def test_names_every_option(self):
        page = read("sondex.1").replace("\\-", "-")
        for option in OPTIONS:
            self.assertIn(".B" + ("I " if option.endswith(":") else " ") + option, page)

    def test_version_matches_the_project(self):
        version = re.search(r"project\(sondex VERSION (\S+)", read("CMakeLists.txt")).group(1)
        self.assertIn('"Sondex %s"' % version, read("sondex.1"))


class Readme(unittest.TestCase):
    def test_options_table_has_every_option(self):
        readme = read("README.md")
        for option in OPTIONS:
            self.assertRegex(readme, r"\n\| `%s[A-Z]*` \|" % re.escape(option))

    def test_usage_text_is_as_the_program_prints_it(self):
        run = subprocess.run([SONDEX, "-h"], capture_output=True, timeout=60)
        self.assertEqual(run.returncode, 1)
        usage = run.stdout.decode("utf-8")
        # The README says which options the usage text leaves out.
        self.assertIn("-kdtd:", usage)
        self.assertIn("-set1", usage)
        for option in ("-kdtb:", "-kdtc:", "-dump", "-h "):
            self.assertNotIn(option, usage)
        self.assertIn("mentions only `-kdtd:` and `-set1`", read("README.md"))


class ReportKeys(unittest.TestCase):
    def test_every_key_the_program_prints_is_documented(self):
        code = ""
        for path in glob.glob(os.path.join(SOURCE, "report", "*.cpp")) + glob.glob(os.path.join(SOURCE, "cli", "*.cpp")):
            with open(path, encoding="utf-8") as f:
                code += f.read()
        keys = set(re.findall(r'\\"([A-Za-z][A-Za-z:]*)\\":', code))
        self.assertGreater(len(keys), 30)  # the extraction still finds the report's keys
        report = read("docs/report.md")
        documented = set(re.findall(r"^\| `([A-Za-z][A-Za-z:]*)` \|", report, re.M))
        jpeg = re.search(r"^\| `jpeg` \|.*$", report, re.M).group(0)
        documented |= set(re.findall(r"`(offset|bytes)`", jpeg))
        sensors = read("docs/sensors.md")
        for row in re.findall(r"^\| (?:gravity|gyro|e-compass) \|.*$", sensors, re.M):
            documented |= set(re.findall(r"`([a-z]+)`", row.rsplit("|", 2)[1]))
        self.assertEqual(sorted(keys - documented), [])
        self.assertEqual(sorted(documented - keys), [])


class Messages(unittest.TestCase):
    CONVERSION = re.compile(r"%[-#0 +]*\d*(?:\.\d+)?(?:hh|h|ll|l|L|z|j|t)?[diouxXeEfgGcsp%]")

    def test_every_console_message_is_in_the_catalogue(self):
        """Each message format of the program, by its longest literal part,
        is in docs/messages.md (the box-tree lines of the tools and the
        result lines, which report.md describes, aside)."""
        code = ""
        for folder in ("cli", "gltk", "mp4", "h264", "exif", "sensor", "report"):
            for path in glob.glob(os.path.join(SOURCE, folder, "*.cpp")):
                with open(path, encoding="utf-8") as f:
                    code += f.read()
        formats = re.findall(r'(?:Console::out|complaintLine)\(\s*L"((?:[^"\\]|\\.)*)"', code)
        self.assertGreater(len(formats), 60)  # the extraction still finds the messages
        catalogue = read("docs/messages.md")
        missing = []
        for text in formats:
            if text.startswith(("MP4: ", "result: ")):
                continue
            parts = [part.replace("\\n", "").strip() for part in self.CONVERSION.split(text)]
            longest = max(parts, key=len)
            if len(longest) >= 4 and longest not in catalogue:
                missing.append(text)
        self.assertEqual(missing, [])


class Package(unittest.TestCase):
    def test_install_rules_name_files_that_exist(self):
        rules = read("cmake/packaging.cmake")
        for name in re.findall(r"\b((?:docs|examples)/[\w.-]+|README\.md)\b", rules):
            self.assertTrue(os.path.isfile(os.path.join(SOURCE, name)), name)
        self.assertIn('"${PROJECT_SOURCE_DIR}/sondex.1"', rules)


if __name__ == "__main__":
    unittest.main(verbosity=2)
