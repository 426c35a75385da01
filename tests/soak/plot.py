#!/usr/bin/env python3
"""Draws the tables of a run with gnuplot: DIRECTORY/soak.svg.

    python3 plot.py DIRECTORY
"""

import csv
import json
import pathlib
import re
import statistics
import subprocess
import sys
import tempfile

from verdict import warm_up_seconds

MAX_POINTS = 200
COLOURS = {"filedrop": ("#1f5fa8", "#9cc0e6"), "chat": ("#c05a00", "#f0b98a")}  # strong, pale
PROBES = {"get": ("GET small file", "filedrop"), "chat": ("chat message", "chat")}


def read(path, key):
    """Rows by the value of the column `key`."""
    rows = {}
    with open(path, newline="", encoding="utf-8") as file:
        for row in csv.DictReader(file):
            rows.setdefault(row[key], []).append(row)
    return rows


def thin(points, choose):
    """At most MAX_POINTS of (minutes, value): one for each stretch of time."""
    size = -(-len(points) // MAX_POINTS)
    return [(statistics.mean(time for time, _ in part), choose([value for _, value in part]))
            for part in (points[start:start + size] for start in range(0, len(points), size))]


def points_of(rows, column, scale, choose):
    return thin([(float(row["seconds"]) / 60, float(row[column]) * scale) for row in rows], choose)


class Panel:
    def __init__(self, title, unit, logarithmic=False):
        self.title = title
        self.unit = unit
        self.logarithmic = logarithmic
        self.curves = []

    def add(self, name, colour, points):
        self.curves.append((name, colour, points))

    def script(self, directory, number, is_last):
        lines = [f'set title "{self.title}" offset 0,-0.6', f'set ylabel "{self.unit}"']
        lines.append("set logscale y; set yrange [*:*]" if self.logarithmic
                     else "unset logscale y; set yrange [0:*<1e9]")
        lines.append('set xlabel "minutes since the start"' if is_last else 'set xlabel ""')
        curves = []
        for index, (name, colour, points) in enumerate(self.curves):
            file = directory / f"curve-{number}-{index}"
            file.write_text("".join(f"{time:.3f} {value:.4g}\n" for time, value in points))
            curves.append(f'"{file}" with lines lw 1.3 lc rgb "{colour}" title "{name}"')
        return lines + ["plot " + ", ".join(curves)]


def panels_of(directory):
    servers = read(directory / "servers.csv", "server")
    memory = Panel("Memory", "MiB")
    descriptors = Panel("Open descriptors", "number")
    threads = Panel("Threads", "number")
    latency = Panel("Latency of a well-behaved client", "ms, logarithmic", logarithmic=True)
    for name, rows in servers.items():
        strong, pale = COLOURS[name]
        memory.add(f"{name}, resident", strong,
                   points_of(rows, "rss_kib", 1 / 1024, statistics.median))
        memory.add(f"{name}, anonymous", pale,
                   points_of(rows, "anonymous_kib", 1 / 1024, statistics.median))
        descriptors.add(name, strong, points_of(rows, "descriptors", 1, statistics.median))
        threads.add(name, strong, points_of(rows, "threads", 1, max))
    for name, rows in read(directory / "latencies.csv", "probe").items():
        title, server = PROBES[name]
        strong, pale = COLOURS[server]
        latency.add(f"{title}, p99", pale, points_of(rows, "p99_ms", 1, max))
        latency.add(f"{title}, median", strong,
                    points_of(rows, "median_ms", 1, statistics.median))
    # The pale ones lie below.
    latency.curves.sort(key=lambda curve: "p99" not in curve[0])
    return [memory, descriptors, threads, latency]


def script_of(directory, work):
    phases = json.loads((directory / "phases.json").read_text())
    start, end = phases["load_start"], phases["load_end"]
    last = max(float(row["seconds"]) for rows in
               read(directory / "servers.csv", "server").values() for row in rows)
    lines = ['set terminal svg size 900,1040 dynamic background "#ffffff" font "sans-serif,13"',
             f'set output "{directory / "soak.svg"}"',
             f'set multiplot layout 4,1 title "filedrop and chat under a mixed load of '
             f'{(end - start) / 60:.2g} minutes"',
             "set grid lc rgb '#dddddd' lt 1", "set key outside right top Left reverse",
             "set lmargin 10", "set rmargin 30", "set border 3 lc rgb '#444444'",
             "set tics nomirror", "unset mytics", f"set xrange [0:{last / 60:.3f}]"]
    marks = [(start, "load begins"), (end, "load ends")]
    if warm_up_seconds(end - start) < end - start:
        marks.append((start + warm_up_seconds(end - start), "warm-up ends"))
    for number, (seconds, _) in enumerate(marks):
        lines.append(f"set arrow {number + 1} from {seconds / 60:.3f}, graph 0 to "
                     f"{seconds / 60:.3f}, graph 1 nohead lc rgb '#888888' dt 2")
    panels = panels_of(directory)
    for number, panel in enumerate(panels):
        if number == 0:
            for mark, (seconds, name) in enumerate(marks):
                # The end is near the right edge.
                side = "right" if name == "load ends" else "left"
                offset = "-0.5" if side == "right" else "0.5"
                lines.append(f'set label {mark + 1} "{name}" at {seconds / 60:.3f}, graph 0.06 '
                             f'{side} offset {offset},0 textcolor rgb "#666666" font ",10"')
        elif number == 1:
            lines.append("unset label")
        lines += panel.script(work, number, number == len(panels) - 1)
    return "\n".join(lines + ["unset multiplot", ""])


def draw(directory):
    directory = pathlib.Path(directory)
    with tempfile.TemporaryDirectory() as work:
        subprocess.run(["gnuplot", "-"], input=script_of(directory, pathlib.Path(work)), text=True,
                       check=True, timeout=120)
    drawn = directory / "soak.svg"
    drawn.write_text(without_empty_groups(drawn.read_text()))
    return drawn


def without_empty_groups(svg):
    """Gnuplot leaves a third of the file empty."""
    return re.sub(r"<g [^>]*>\s*</g>\s*", "", svg)


if __name__ == "__main__":
    if len(sys.argv) != 2:
        sys.exit(__doc__)
    print(draw(sys.argv[1]))
