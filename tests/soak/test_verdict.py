#!/usr/bin/env python3
"""The verdict about curves that were made for it."""

import csv
import json
import pathlib
import random
import subprocess
import sys
import tempfile
import unittest

import verdict
from verdict import MIB

HERE = pathlib.Path(__file__).resolve().parent
MINUTES = 30
SAMPLE_INTERVAL_SECONDS = 5


def curve(memory=lambda t: 50 * MIB, descriptors=lambda t: 40, threads=lambda t: 76,
          minutes=MINUTES):
    """Samples of a load of so many minutes; each quantity is given by the share of it that is over."""
    end = 60 * minutes
    return [{"seconds": float(second), "memory": memory(second / end),
             "descriptors": descriptors(second / end), "threads": threads(second / end)}
            for second in range(0, end + 1, SAMPLE_INTERVAL_SECONDS)]


def complaints_about(samples, minutes=MINUTES):
    return verdict.judge_growth("server", samples, 0, 60 * minutes)[1]


class Growth(unittest.TestCase):
    def test_steady_curves_pass(self):
        noise = random.Random(1)
        curves = {
            "flat": curve(),
            "noisy": curve(lambda t: (50 + noise.gauss(0, 5)) * MIB,
                           lambda t: round(40 + noise.gauss(0, 6))),
            "bursts": curve(lambda t: (200 if noise.random() < 0.2 else 50) * MIB,
                            lambda t: 120 if noise.random() < 0.2 else 40),
            "rises in the warm-up only": curve(lambda t: min(50, 10 + 300 * t) * MIB,
                                               lambda t: min(40, int(10 + 250 * t))),
            "falls": curve(lambda t: (90 - 40 * t) * MIB, lambda t: 90 - int(50 * t),
                           lambda t: 90 - int(20 * t)),
            "saw": curve(lambda t: (50 + 20 * (t * 17 % 1)) * MIB),
        }
        for name, samples in curves.items():
            with self.subTest(name):
                self.assertEqual(complaints_about(samples), [])

    def test_growing_curves_fail(self):
        noise = random.Random(2)
        curves = {
            "memory, steadily": ("memory", curve(lambda t: (50 + 12 * t) * MIB)),
            "memory under noise": ("memory", curve(lambda t: (50 + 20 * t + noise.gauss(0, 5)) * MIB)),
            "memory between bursts": (
                "memory", curve(lambda t: (50 + 20 * t + (99 if noise.random() < 0.2 else 0)) * MIB)),
            "memory in one step": ("memory", curve(lambda t: (50 if t < 0.65 else 60) * MIB)),
            "descriptors, steadily": ("descriptors", curve(descriptors=lambda t: 40 + int(15 * t))),
            "descriptors in one step": (
                "descriptors", curve(descriptors=lambda t: 40 if t < 0.65 else 50)),
            "one thread": ("threads", curve(threads=lambda t: 76 if t < 0.65 else 77)),
        }
        for name, (quantity, samples) in curves.items():
            with self.subTest(name):
                complaints = complaints_about(samples)
                self.assertEqual(len(complaints), 1, complaints)
                self.assertIn(f"server: {quantity} grew from", complaints[0])

    def test_the_allowance_is_the_limit(self):
        for rise, count in ((5.9, 0), (6.1, 1)):
            with self.subTest(rise):
                # The warm-up of 15 % is not part of the rise.
                samples = curve(lambda t: (40 + rise / 0.85 * t) * MIB)
                self.assertEqual(len(complaints_about(samples)), count)
        for rise, count in ((19.5, 0), (20.5, 1)):
            with self.subTest(f"{rise} of 200"):
                samples = curve(lambda t: (200 if t < 0.65 else 200 + rise) * MIB)
                self.assertEqual(len(complaints_about(samples)), count)

    def test_findings_are_printed_with_numbers(self):
        text, = complaints_about(curve(descriptors=lambda t: 40 if t < 0.65 else 55))
        self.assertEqual(text, "server: descriptors grew from 40 to 55 (first and last third), "
                               "by slope 0 in all; allowed are 6")

    def test_short_runs_are_not_judged(self):
        rising = {"memory": lambda t: (50 + 90 * t) * MIB}
        for minutes, judged in ((1, False), (3, False), (4, True)):
            with self.subTest(minutes):
                growths, complaints = verdict.judge_growth(
                    "server", curve(**rising, minutes=minutes), 0, 60 * minutes)
                self.assertEqual(bool(growths), judged)
                self.assertEqual(bool(complaints), judged)

    def test_samples_outside_the_load_do_not_count(self):
        samples = curve()
        for second in range(60 * MINUTES + SAMPLE_INTERVAL_SECONDS, 60 * MINUTES + 900, SAMPLE_INTERVAL_SECONDS):
            samples.append({"seconds": float(second), "memory": 500 * MIB, "descriptors": 400,
                            "threads": 99})
        self.assertEqual(complaints_about(samples), [])

    def test_slope_is_the_median_of_slopes(self):
        self.assertEqual(verdict.theil_sen_slope([(0, 1), (1, 3), (2, 5), (3, 7)]), 2)
        self.assertEqual(verdict.theil_sen_slope([(0, 0), (1, 1), (2, 2), (3, 3), (4, 400)]), 1)
        self.assertEqual(verdict.theil_sen_slope([(0, 5)]), 0)


class Return(unittest.TestCase):
    def test_descriptors_and_threads_come_back_exactly(self):
        before = {"descriptors": 18, "threads": 76}
        rows = {
            "the same": (18, 76, 0), "one descriptor more": (19, 76, 1),
            "one descriptor fewer": (17, 76, 1), "one thread more": (18, 77, 1),
            "both": (20, 77, 2),
        }
        for name, (descriptors, threads, count) in rows.items():
            with self.subTest(name):
                after = {"descriptors": descriptors, "threads": threads}
                self.assertEqual(len(verdict.judge_return("server", before, after, 60)), count)

    def test_it_is_said_what_is_left(self):
        text, = verdict.judge_return("chat", {"descriptors": 10, "threads": 27},
                                     {"descriptors": 12, "threads": 27}, 60)
        self.assertEqual(text, "chat: descriptors did not come back within 60 s: "
                               "10 before the load, 12 after it")


class Files(unittest.TestCase):
    """From the tables of a run to an exit code."""

    def judge(self, samples, after):
        with tempfile.TemporaryDirectory() as name:
            directory = pathlib.Path(name)
            with open(directory / "servers.csv", "w", newline="") as file:
                writer = csv.writer(file)
                writer.writerow(["seconds", "server", "rss_kib", "descriptors", "threads"])
                for each in samples:
                    writer.writerow([each["seconds"], "chat", int(each["memory"] // 1024),
                                     each["descriptors"], each["threads"]])
            phases = {"load_start": 0, "load_end": 60 * MINUTES, "drain_seconds": 60,
                      "before": {"chat": {"descriptors": 10, "threads": 27}},
                      "after": {"chat": after}}
            (directory / "phases.json").write_text(json.dumps(phases))
            done = subprocess.run([sys.executable, HERE / "verdict.py", name], text=True,
                                  capture_output=True, check=False, timeout=600)
            return done.returncode, done.stdout

    def test_a_clean_run_passes(self):
        code, text = self.judge(curve(), {"descriptors": 10, "threads": 27})
        self.assertEqual(code, 0, text)
        self.assertIn("nothing grew", text)

    def test_a_leak_fails(self):
        code, text = self.judge(curve(lambda t: (50 + 30 * t) * MIB), {"descriptors": 11, "threads": 27})
        self.assertEqual(code, 1, text)
        self.assertIn("chat: memory grew from", text)
        self.assertIn("10 before the load, 11 after it", text)


if __name__ == "__main__":
    unittest.main(verbosity=2)
