#!/usr/bin/env python3
"""The stamps of a build: which values are accepted, and that a new commit brings new ones.

A project of two files includes the module that the libraries use, in a repository of its own.
"""

import os
import pathlib
import shutil
import subprocess
import tempfile
import unittest

import tree

PROJECT = """cmake_minimum_required(VERSION 3.25)
project(stamped VERSION 3.0.0 LANGUAGES NONE)
include(cmake/WendrelVersion.cmake)
configure_file(VersionStamp.h.in stamp.txt @ONLY)
"""


class VersionStamp(unittest.TestCase):
    def setUp(self):
        directory = tempfile.TemporaryDirectory(prefix="wendrel-stamp-")
        self.addCleanup(directory.cleanup)
        self.source = pathlib.Path(directory.name) / "source"
        self.build = pathlib.Path(directory.name) / "build"
        (self.source / "cmake").mkdir(parents=True)
        shutil.copy(tree.ROOT / "cmake/WendrelVersion.cmake", self.source / "cmake")
        shutil.copy(tree.ROOT / "src/streaming/VersionStamp.h.in", self.source)
        (self.source / "CMakeLists.txt").write_text(PROJECT, encoding="utf-8")

    def run_quietly(self, *command):
        return subprocess.run(command, capture_output=True, text=True, check=False, cwd=self.source,
                              timeout=600, env={**os.environ, "GIT_CONFIG_GLOBAL": "/dev/null"})

    def git(self, *arguments):
        result = self.run_quietly("git", "-c", "user.name=Tester", "-c", "user.email=tester@localhost",
                                  *arguments)
        self.assertEqual(result.returncode, 0, result.stderr)
        return result.stdout.strip()

    def commit(self):
        self.git("commit", "--quiet", "--allow-empty", "-m", "a commit")

    def configure(self, *options):
        return self.run_quietly("cmake", "-G", "Ninja", "-S", str(self.source), "-B", str(self.build),
                                *options)

    def stamp(self, name):
        for line in (self.build / "stamp.txt").read_text(encoding="utf-8").splitlines():
            if line.startswith(f"#define WENDREL_STAMP_{name} "):
                return line.split(" ", 2)[2].strip('"')
        raise AssertionError(f"no stamp {name}")

    def test_accepts_decimal_revisions(self):
        for given, stamped in (("0", "0"), ("0017", "17"), ("08", "8"), ("000", "0"),
                               ("4294967295", "4294967295")):
            with self.subTest(given):
                result = self.configure(f"-DWENDREL_REVISION={given}")
                self.assertEqual(result.returncode, 0, result.stderr)
                self.assertEqual(self.stamp("REVISION"), stamped)
                self.assertEqual(self.stamp("REVISION_TEXT"), stamped)

    def test_refuses_other_revisions(self):
        for given in ("4294967296", "99999999999999999999", "0x17", "-1", "1.5", "17a"):
            with self.subTest(given):
                result = self.configure(f"-DWENDREL_REVISION={given}")
                self.assertNotEqual(result.returncode, 0)
                self.assertIn("WENDREL_REVISION must be", result.stderr)

    def test_needs_no_repository(self):
        result = self.configure()
        self.assertEqual(result.returncode, 0, result.stderr)
        self.assertEqual(self.stamp("REVISION"), "0")
        self.assertEqual(self.stamp("COMMIT_ID"), "0" * 16)

    def test_stamps_a_new_commit_without_configuring_by_hand(self):
        for has_log in ("true", "false"):
            with self.subTest(log_of_head=has_log):
                shutil.rmtree(self.source / ".git", ignore_errors=True)
                shutil.rmtree(self.build, ignore_errors=True)
                self.check_new_commit(has_log)

    def check_new_commit(self, has_log):
        self.git("init", "--quiet")
        self.git("config", "core.logAllRefUpdates", has_log)
        self.commit()
        self.assertEqual(self.configure().returncode, 0)
        self.assertEqual(self.stamp("REVISION"), "1")
        self.assertEqual(self.stamp("COMMIT_ID"), self.git("rev-parse", "HEAD")[:16])
        self.commit()
        built = self.run_quietly("cmake", "--build", str(self.build))
        self.assertEqual(built.returncode, 0, built.stderr)
        self.assertEqual(self.stamp("REVISION"), "2")
        self.assertEqual(self.stamp("COMMIT_ID"), self.git("rev-parse", "HEAD")[:16])
        # Nothing is done again without a new commit.
        again = self.run_quietly("cmake", "--build", str(self.build))
        self.assertIn("no work to do", again.stdout)


if __name__ == "__main__":
    unittest.main(verbosity=2)
