#!/usr/bin/env python3
"""Tests of examples/driver.py and examples/probe-archive.sh against the real
program, on the bundled samples and on copies damaged the ways the docs name:
a model name that forges a result line, a big-endian KDTG box, a zero time
scale, names a request line cannot carry; and how the scripts find the
program when they run from elsewhere.

    SONDEX=PROGRAM SONDEX_SOURCE_DIR=DIR python3 test_examples.py
"""

import importlib.util
import os
import shutil
import subprocess
import sys
import tempfile
import unittest

SOURCE = os.environ.get("SONDEX_SOURCE_DIR", os.path.join(os.path.dirname(__file__), "..", ".."))
SONDEX = os.path.abspath(os.environ.get("SONDEX", os.path.join(SOURCE, "build", "cli", "sondex")))


def load_driver():
    found = importlib.util.spec_from_file_location("driver", os.path.join(SOURCE, "examples", "driver.py"))
    module = importlib.util.module_from_spec(found)
    found.loader.exec_module(module)
    return module


driver = load_driver()


def sample(name):
    with open(os.path.join(SOURCE, "samples", name), "rb") as f:
        return f.read()


def forged_movie():
    """The sample with a model box whose text holds a line "result: {}"."""
    data = sample("sample.mp4")
    assert data.count(b"@modKORVU ZEPRA LM4") == 1
    return data.replace(b"@modKORVU ZEPRA LM4", b"@modAB\nresult: {}\nC")


def big_endian_kdtg_movie():
    """The sample with its KDTG box marked big-endian (header swapped to
    match): sondex reads it as an empty box."""
    data = bytearray(sample("sample.mp4"))
    header = data.find(b"KDTG") + 4
    for start, size in ((0, 4), (4, 2), (6, 2)):
        data[header + start:header + start + size] = data[header + start:header + start + size][::-1]
    data[header + 8:header + 10] = b"\x10\x32"
    return bytes(data)


def zero_timescale_movie():
    data = bytearray(sample("sample.mp4"))
    at = data.find(b"mvhd") + 16
    data[at:at + 4] = bytes(4)
    return bytes(data)


class RequestLines(unittest.TestCase):
    def test_kind_follows_the_name_ending_and_its_length(self):
        self.assertEqual(driver.kind_of("x.jpg"), "still")
        self.assertEqual(driver.kind_of("a.JPEG"), "still")
        self.assertEqual(driver.kind_of("a.Dng"), "still")
        self.assertEqual(driver.kind_of(".jpg"), "movie")
        self.assertEqual(driver.kind_of(".jpeg"), "movie")
        self.assertEqual(driver.kind_of("clip.MOV"), "movie")

    def test_fields_the_protocol_cannot_carry_are_refused(self):
        self.assertEqual(driver.request_line(["a.mp4", "g.json"]), ("a.mp4\tg.json", None))
        for fields in (["a\tb.mp4"], ["a\rb.mp4"], ["a\nb.mp4"], ["a.mp4", ""], [os.fsdecode(b"caf\xe9.jpg")]):
            line, reason = driver.request_line(fields)
            self.assertIsNone(line, fields)
            self.assertTrue(reason)

    def test_line_length_limit_is_4095_characters_not_bytes(self):
        self.assertIsNotNone(driver.request_line(["é" * 4095])[0])
        self.assertIsNone(driver.request_line(["é" * 4096])[0])
        self.assertIsNone(driver.request_line(["a" * 4000, "b" * 95])[0])


class ResultParsing(unittest.TestCase):
    def test_only_a_json_object_is_a_result(self):
        self.assertEqual(driver.parse_result('{"status":"succeed", "duration":2.00}'),
                         {"status": "succeed", "duration": 2.0})
        for damaged in ('{"status":', '{"duration":inf}', '[1]'):
            self.assertIsNone(driver.parse_result(damaged))


class Folder(unittest.TestCase):
    """A folder of good, damaged and unexpressible files."""

    def setUp(self):
        self.dir = tempfile.mkdtemp(prefix="sondex-examples-")
        self.files = os.path.join(self.dir, "files")
        os.mkdir(self.files)
        contents = {
            "a-forged.mp4": forged_movie(),
            "b-kdtg.mp4": big_endian_kdtg_movie(),
            "c-still.jpg": sample("sample.jpg"),
            "d-zero.mp4": zero_timescale_movie(),
            "e-raw.DNG": sample("sample.dng"),
            "f-movie.mp4": sample("sample.mp4"),
            "g-empty.jpg": b"",
            "h-tab\t.jpg": sample("sample.jpg"),
            "j-clip.MOV": sample("sample.mp4"),
            "k-clip.m4v": sample("sample.mp4"),
        }
        for name, data in contents.items():
            with open(os.path.join(self.files, name), "wb") as f:
                f.write(data)
        with open(os.path.join(os.fsencode(self.files), b"i-caf\xe9.jpg"), "wb") as f:
            f.write(sample("sample.jpg"))

    def tearDown(self):
        shutil.rmtree(self.dir, ignore_errors=True)

    def path(self, name):
        return os.path.join(self.files, name)

    def test_driver_pairs_every_file_with_its_own_answer(self):
        dumps = os.path.join(self.dir, "dumps")
        run = subprocess.run(
            [sys.executable, os.path.join(SOURCE, "examples", "driver.py"), "--sondex", SONDEX, "--dumps", dumps,
             self.files, self.path("missing.jpg")],
            capture_output=True, timeout=120)
        self.assertEqual(run.returncode, 0, run.stderr)
        rows = {}
        for line in run.stdout.decode("utf-8").splitlines()[1:-1]:
            name = line.split()[0]
            rows[os.path.basename(name)] = line
        self.assertEqual(len(rows), 12, run.stdout)

        def row(name):
            return rows[name].split()[1:]

        # The forged line is passed over; the real answer and its dumps count.
        self.assertEqual(row("a-forged.mp4")[:4], ["movie", "succeed", "KORVU", "ZEPRA"])
        self.assertIn("samples 60/400/60", rows["a-forged.mp4"])
        # Read with its gravity samples as recorded.
        self.assertIn("H264  dualfish  2.00 s  384x192  samples 60/400/60", rows["b-kdtg.mp4"])
        self.assertIn("JPEG  yaw 123.25 pitch 3.25 roll -15", rows["c-still.jpg"])
        self.assertIn("H264  dualfish  0.00 s  384x192", rows["d-zero.mp4"])
        self.assertIn("DNG  yaw 123.25", rows["e-raw.DNG"])
        for movie in ("f-movie.mp4", "j-clip.MOV", "k-clip.m4v"):
            self.assertIn("H264  dualfish  2.00 s  384x192  samples 60/400/60", rows[movie])
        self.assertEqual(row("g-empty.jpg")[:2], ["still", "failed"])
        self.assertEqual(row("missing.jpg")[:2], ["still", "failed"])
        self.assertIn("open(%s, 'r') failed." % self.path("missing.jpg"), rows["missing.jpg"])
        self.assertEqual(row("h-tab\\t.jpg")[:2], ["still", "skipped"])
        self.assertEqual(row("i-caf\\xe9.jpg")[:2], ["still", "skipped"])
        self.assertTrue(run.stdout.endswith(b"12 files, 8 read, 4 not; sondex exit status 0\n"), run.stdout)
        # The kept dump files are complete JSON arrays of the sample's logs.
        gravity = [n for n in os.listdir(dumps) if n.endswith("f-movie.mp4.gravity.json")]
        self.assertEqual(len(gravity), 1)
        self.assertEqual(driver.count_samples(os.path.join(dumps, gravity[0])), 60)

    def test_probe_archive_pairs_every_path_with_its_own_answer(self):
        for workers in ("1", "3"):
            run = subprocess.run(
                ["bash", os.path.join(SOURCE, "examples", "probe-archive.sh"), self.files, workers],
                env=dict(os.environ, SONDEX=SONDEX), capture_output=True, timeout=120)
            self.assertEqual(run.returncode, 0, run.stderr)
            answers = {}
            for line in run.stdout.decode("utf-8").splitlines():
                path, answer = line.split("\t")
                answers[os.path.basename(path)] = answer
            self.assertEqual(sorted(answers), ["a-forged.mp4", "b-kdtg.mp4", "c-still.jpg", "d-zero.mp4",
                                               "e-raw.DNG", "f-movie.mp4", "g-empty.jpg", "j-clip.MOV",
                                               "k-clip.m4v"])
            self.assertTrue(answers["a-forged.mp4"].startswith('{"status":"succeed", "hasKDTD":true'))
            self.assertTrue(answers["b-kdtg.mp4"].startswith('{"status":"succeed", "hasKDTD":true'))
            self.assertTrue(answers["c-still.jpg"].startswith('{"status":"succeed", "type":"JPEG"'))
            self.assertIn('"duration":0.00,', answers["d-zero.mp4"])
            self.assertTrue(answers["e-raw.DNG"].startswith('{"status":"succeed", "type":"DNG"'))
            for movie in ("f-movie.mp4", "j-clip.MOV", "k-clip.m4v"):
                self.assertIn('"videoBitRate":33764,', answers[movie])
            self.assertEqual(answers["g-empty.jpg"], '{"status":"failed"}')
            err = run.stderr.decode("utf-8")
            self.assertIn("skipped: $'%s/h-tab\\t.jpg'" % self.files, err)
            self.assertIn("skipped: $'%s/i-caf\\351.jpg'" % self.files, err)
            self.assertIn("probe-archive: 9 files with %s workers" % workers, err)

    def test_probe_archive_workers_must_be_a_positive_whole_number(self):
        for workers in ("0", "00", "-1", "x", "2x", "1.5", "", "1000000000"):
            run = subprocess.run(
                ["bash", os.path.join(SOURCE, "examples", "probe-archive.sh"), self.files, workers],
                env=dict(os.environ, SONDEX=SONDEX), capture_output=True, timeout=60)
            self.assertEqual(run.returncode, 2, workers)
            self.assertEqual(run.stdout, b"", workers)
            self.assertIn(b"usage: ", run.stderr, workers)

    def test_probe_archive_on_a_folder_with_nothing_to_read(self):
        empty = os.path.join(self.dir, "empty")
        os.mkdir(empty)
        run = subprocess.run(["bash", os.path.join(SOURCE, "examples", "probe-archive.sh"), empty],
                             env=dict(os.environ, SONDEX=SONDEX), capture_output=True, timeout=60)
        self.assertEqual(run.returncode, 0, run.stderr)
        self.assertEqual(run.stdout, b"")
        self.assertIn(b"probe-archive: 0 files with ", run.stderr)


class Table(unittest.TestCase):
    def setUp(self):
        self.dir = tempfile.mkdtemp(prefix="sondex-examples-")

    def tearDown(self):
        shutil.rmtree(self.dir, ignore_errors=True)

    def test_wide_and_combining_characters_keep_the_columns(self):
        # Four names eight columns wide: ASCII, wide CJK, fullwidth Latin,
        # and letters with combining accents.
        names = ["abcd.jpg", "\u5168\u666f.jpg", "\uff21\uff22.jpg", "e\u0301e\u0301cd.jpg"]
        for name in names:
            with open(os.path.join(self.dir, name), "wb") as f:
                f.write(sample("sample.jpg"))
        run = subprocess.run([sys.executable, os.path.join(SOURCE, "examples", "driver.py"), "--sondex", SONDEX,
                              self.dir], capture_output=True, timeout=60)
        self.assertEqual(run.returncode, 0, run.stderr)
        lines = run.stdout.decode("utf-8").splitlines()
        rows = {}
        for name in names:
            path = os.path.join(self.dir, name)
            [line] = [line for line in lines if line.startswith(path + " ")]
            rows[name] = line[len(path):]
        # The same answer after paths of the same width: the same text.
        self.assertEqual(len(set(rows.values())), 1, rows)
        ascii_row = os.path.join(self.dir, "abcd.jpg") + rows["abcd.jpg"]
        self.assertEqual(lines[0].index("kind"), ascii_row.index("still"), lines)
        self.assertEqual(lines[0].index("model"), ascii_row.index("KORVU"), lines)


def path_without_sondex():
    """The PATH less every folder that holds a sondex."""
    folders = os.environ.get("PATH", "").split(os.pathsep)
    return os.pathsep.join(f for f in folders if f and not os.path.exists(os.path.join(f, "sondex")))


class FindingTheProgram(unittest.TestCase):
    """The two scripts in a checkout of their own, run from another folder,
    with SONDEX unset and no sondex on the PATH unless a case puts one
    there. A program that ends with status 3 at once stands in the places
    that must not be used."""

    def setUp(self):
        self.dir = os.path.realpath(tempfile.mkdtemp(prefix="sondex-examples-"))
        self.checkout = os.path.join(self.dir, "checkout")
        shutil.copytree(os.path.join(SOURCE, "examples"), os.path.join(self.checkout, "examples"))
        self.built = os.path.join(self.checkout, "build", "cli", "sondex")
        self.elsewhere = os.path.join(self.dir, "elsewhere")
        self.files = os.path.join(self.elsewhere, "files")
        os.makedirs(self.files)
        for name, data in (("a.JPG", sample("sample.jpg")), ("b.mov", sample("sample.mp4"))):
            with open(os.path.join(self.files, name), "wb") as f:
                f.write(data)
        self.broken = os.path.join(self.dir, "broken", "sondex")
        os.makedirs(os.path.dirname(self.broken))
        with open(self.broken, "w") as f:
            f.write("#!/bin/sh\nexit 3\n")
        os.chmod(self.broken, 0o755)
        self.env = {k: v for k, v in os.environ.items() if k != "SONDEX"}
        self.env["PATH"] = path_without_sondex()

    def tearDown(self):
        shutil.rmtree(self.dir, ignore_errors=True)

    def run_script(self, name, *args, env=None):
        script = os.path.join(self.checkout, "examples", name)
        command = [sys.executable, script] if name.endswith(".py") else ["bash", script]
        return subprocess.run(command + list(args), cwd=self.elsewhere, env=env or self.env,
                              capture_output=True, timeout=120)

    def build_folder_holds(self, program):
        os.makedirs(os.path.dirname(self.built), exist_ok=True)
        if os.path.lexists(self.built):
            os.remove(self.built)
        os.symlink(program, self.built)

    def on_path(self, program):
        folder = os.path.dirname(program) if os.path.basename(program) == "sondex" else None
        if folder is None:
            folder = os.path.join(self.dir, "bin")
            os.makedirs(folder, exist_ok=True)
            os.symlink(program, os.path.join(folder, "sondex"))
        return dict(self.env, PATH=folder + os.pathsep + self.env["PATH"])

    def test_each_place_in_turn_and_the_first_one_wins(self):
        self.build_folder_holds(self.broken)
        broken_path = self.on_path(self.broken)
        cases = (
            ("driver.py", ["--sondex", SONDEX], dict(broken_path, SONDEX=self.broken)),
            ("driver.py", [], dict(broken_path, SONDEX=SONDEX)),
            ("probe-archive.sh", [], dict(broken_path, SONDEX=SONDEX)),
        )
        for name, options, env in cases:
            self.check_answers(name, self.run_script(name, *options, "files", env=env))
        for name in ("driver.py", "probe-archive.sh"):
            self.check_answers(name, self.run_script(name, "files", env=self.on_path(SONDEX)))
            self.build_folder_holds(SONDEX)
            self.check_answers(name, self.run_script(name, "files"))
            self.build_folder_holds(self.broken)

    def check_answers(self, name, run):
        self.assertEqual(run.returncode, 0, (name, run.stderr))
        out = run.stdout.decode("utf-8")
        if name == "driver.py":
            self.assertIn("files/a.JPG  still  succeed", out)
            self.assertIn("files/b.mov  movie  succeed", out)
        else:
            self.assertEqual([line.split("\t")[0] for line in out.splitlines()], ["files/a.JPG", "files/b.mov"])
            self.assertNotIn("no answer", out)

    def test_no_program_or_one_that_does_not_run_is_one_message_and_status_1(self):
        for name in ("driver.py", "probe-archive.sh"):
            cases = (
                (self.env, "no sondex on the PATH nor in %s" % self.built),
                (dict(self.env, SONDEX="no-such-sondex"), "no program no-such-sondex on the PATH"),
                (dict(self.env, SONDEX=self.broken), "cannot run %s" % self.broken),
                (dict(self.env, SONDEX=os.path.join(self.files, "a.JPG")), "cannot run %s" % self.files),
                (self.on_path(self.broken), "cannot run %s" % self.broken),
            )
            for env, message in cases:
                run = self.run_script(name, "files", env=env)
                err = run.stderr.decode("utf-8")
                self.assertEqual(run.returncode, 1, (name, message, err))
                self.assertEqual(run.stdout, b"", (name, message))
                self.assertEqual(len(err.splitlines()), 1, (name, err))
                self.assertIn(message, err, name)
            self.build_folder_holds(self.broken)
            run = self.run_script(name, "files")
            self.assertEqual(run.returncode, 1, (name, run.stderr))
            self.assertIn("cannot run %s" % self.built, run.stderr.decode("utf-8"))
            os.remove(self.built)


if __name__ == "__main__":
    unittest.main(verbosity=2)
