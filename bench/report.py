"""Tables and charts of a run."""

import dataclasses
import pathlib
import platform
import re
import statistics
import subprocess
import tempfile

FLOOR = "bare"
TITLES = {"event": "event-driven mode", "kit": "the kit", "polling": "polling mode",
          "bare": "bare daemon", "suspend": "bare daemon, suspending", "civetweb": "civetweb", "beast": "Boost.Beast",
          "libwebsockets": "libwebsockets"}
COLOURS = {"event": "#1f5fa8", "kit": "#2f9e9e", "polling": "#9cc0e6", "bare": "#8a8a8a",
           "suspend": "#bdbdbd", "civetweb": "#c05a00", "beast": "#5a8f3c",
           "libwebsockets": "#8a4fa0"}
FIELDS = {"rate": "rate", "cpu_seconds": "processor time", "p99_ms": "p99"}
# The label and the factor of each field of many connections.
CROWD_FIELDS = {"ping_p99_ms": ("p99 of another client, ms", 1),
                "core_share": ("share of a core, %", 100),
                "response_seconds": ("event to last response, s", 1),
                "bytes_each": ("kB each", 0.001)}
BEGIN = "<!-- results: written by bench/run.sh -->"
END = "<!-- end of results -->"
MEBIBYTE = 1 << 20
HELD_ON = "one core"


def number(value):
    if value is None:
        return ""
    if value >= 100:
        return f"{value:,.0f}"
    return f"{value:.3g}"


def median(values):
    known = [value for value in values if value is not None]
    return statistics.median(known) if known else None


def ratio(measurements, server, other, field):
    """The median of the rounds' ratios of one server to another."""
    pairs = [(getattr(ours, field), getattr(floor, field))
             for ours, floor in zip(measurements[server], measurements[other])]
    return median([ours / floor if ours is not None and floor else None for ours, floor in pairs])


@dataclasses.dataclass
class Target:
    name: str
    wanted: str
    got: str
    met: bool


def at_least(name, value, limit):
    return Target(name, f"≥ {limit:.2f}", f"{value:.2f}", value >= limit)


def at_most(name, value, limit):
    return Target(name, f"≤ {limit:.2f}", f"{value:.2f}", value <= limit)


def targets_of(crowd):
    for field, limit in crowd.maxima.items():
        label, factor = CROWD_FIELDS[field]
        yield at_most(f"{crowd.name}: {label}", getattr(crowd, field) * factor, limit * factor)


@dataclasses.dataclass
class Result:
    found: dict  # {(row, placement): {server: [Measured]}}
    used: list
    crowds: list
    checks: list
    small: list
    rounds: int
    seconds: int
    minutes: float = 0

    def targets(self):
        for (row, placement), measurements in self.found.items():
            for goal in row.goals if placement == HELD_ON else ():
                check = at_least if goal.field == "rate" else at_most
                yield check(f"{row.name}: {FIELDS[goal.field]}, {TITLES[goal.server]} to "
                            f"{TITLES[goal.other]}",
                            ratio(measurements, goal.server, goal.other, goal.field), goal.limit)
        yield from self.targets_of_microbenchmarks()
        for used in self.used:
            if used.max_growth_bytes is None:
                continue
            growth, limit = used.growth_bytes / MEBIBYTE, used.max_growth_bytes / MEBIBYTE
            yield Target(f"{used.name}: resident memory grows by, MiB", f"< {limit:.0f}",
                         f"{growth:.2f}", growth < limit)

        for crowd in self.crowds:
            yield from targets_of(crowd)
        for check in self.checks:
            yield (at_least if check.is_minimum else at_most)(check.name, check.value, check.limit)

    def targets_of_microbenchmarks(self):
        benchmarks = {benchmark.name: benchmark for benchmark in self.small}
        for name, limit in (("Utf8/ascii/65536", 4), ("Utf8/mixed/65536", 1)):
            if name in benchmarks:
                rate = benchmarks[name].bytes_per_second / 1e9
                yield Target(f"{name}: GB/s", f"≥ {limit}", f"{rate:.1f}", rate >= limit)
        if "WebSocket/Unmask/1024" in benchmarks:
            yield at_least("WebSocket/Unmask/1024: rate, ratio to memcpy",
                        benchmarks["WebSocket/Unmask/1024"].bytes_per_second
                        / benchmarks["WebSocket/memcpy/1024"].bytes_per_second, 0.8)
        for level in (6, 8):
            if f"compressJson/{level}" in benchmarks:
                yield at_least(f"deflate of 10 KiB of JSON, level {level}: rate, to Boost.Beast",
                               benchmarks[f"compressJsonWithBeast/{level}"].nanoseconds
                               / benchmarks[f"compressJson/{level}"].nanoseconds, 1)
        if "Log/disabled" in benchmarks:
            spent = benchmarks["Log/disabled"].nanoseconds
            yield Target("Log/disabled: ns", "≤ 5", f"{spent:.1f}", spent <= 5)

    def machine(self):
        cpu = re.search(r"Model name:\s*(.*)", run("lscpu"))
        packages = [f"{name} {version(name)}" for name in (
            "libmicrohttpd12", "libcivetweb-dev", "libboost1.81-dev", "libssl3", "wrk", "curl",
            "g++-12")]
        return (f"{cpu[1].strip() if cpu else platform.machine()}, {run('nproc').strip()} "
                f"processors, Linux {platform.release()}; {', '.join(packages)}; "
                f"commit {run('git', 'rev-parse', '--short=12', 'HEAD').strip()}. "
                f"{self.rounds} rounds of {self.seconds} s, {self.minutes:.0f} minutes in total.")

    def table(self, placement):
        lines = ["| Workload | Server | Rate, median | min–max | p50 ms | p99 ms "
                 "| CPU s per 100,000 | ratio to bare |", "|---|---|---|---|---|---|---|---|"]
        for (row, where), measurements in self.found.items():
            if where != placement:
                continue
            for name, measured in measurements.items():
                if not measured:
                    continue
                rates = [each.rate for each in measured]
                compared = ""
                if name != FLOOR and FLOOR in measurements:
                    compared = f"{ratio(measurements, name, FLOOR, 'rate'):.2f}"
                lines.append(
                    f"| {row.name} | {TITLES[name]} | {number(median(rates))} {row.unit} | "
                    f"{number(min(rates))}–{number(max(rates))} | "
                    f"{number(median([each.p50_ms for each in measured]))} | "
                    f"{number(median([each.p99_ms for each in measured]))} | "
                    f"{number(median([each.cpu_seconds for each in measured]))} | {compared} |")
        return lines

    def markdown(self):
        lines = [self.machine(), "", "### Targets", "", "| Target | limit | measured | |",
                 "|---|---|---|---|"]
        lines += [f"| {target.name} | {target.wanted} | {target.got} | "
                  f"{'met' if target.met else '**missed**'} |" for target in self.targets()]
        for placement in dict.fromkeys(where for _, where in self.found):
            lines += ["", f"### Server and client on {placement}", ""] + self.table(placement)
        if self.used:
            lines += ["", "### Memory", "",
                      "| Transfer | resident before | maximum | growth | duration |",
                      "|---|---|---|---|---|"]
            lines += [f"| {used.name} | {used.before_bytes / MEBIBYTE:.1f} MiB | "
                      f"{used.max_bytes / MEBIBYTE:.1f} MiB | "
                      f"{used.growth_bytes / MEBIBYTE:.2f} MiB | {used.seconds:.0f} s |"
                      for used in self.used]
        if self.crowds:
            lines += ["", "### Many connections", "",
                      "| Connections | Server | another client: p50 ms | p99 ms | share of a core "
                      "| kB each | event to last response |", "|---|---|---|---|---|---|---|"]
            lines += [f"| {crowd.name} | {crowd.server} | {number(crowd.ping_p50_ms)} | "
                      f"{number(crowd.ping_p99_ms)} | {crowd.core_share:.1%} | "
                      f"{number(scaled(crowd.bytes_each, 1000))} | "
                      f"{number(scaled(crowd.response_seconds, 1))}"
                      f"{' s' if crowd.response_seconds is not None else ''} |"
                      for crowd in self.crowds]
        if self.small:
            lines += ["", "### Microbenchmarks", "",
                      "| Microbenchmark | ns | GB/s | millions per second |", "|---|---|---|---|"]
            lines += [f"| {benchmark.name} | {number(benchmark.nanoseconds)} | "
                      f"{number(scaled(benchmark.bytes_per_second, 1e9))} | "
                      f"{number(scaled(benchmark.items_per_second, 1e6))} |" for benchmark in self.small]
        return "\n".join(lines) + "\n"

    def as_json(self):
        return {"rounds": self.rounds, "seconds": self.seconds, "machine": self.machine(),
                "rows": [{"row": row.name, "placement": placement, "unit": row.unit,
                          "servers": {name: [dataclasses.asdict(each) for each in measured]
                                      for name, measured in measurements.items()}}
                         for (row, placement), measurements in self.found.items()],
                "memory": [dataclasses.asdict(used) for used in self.used],
                "checks": [dataclasses.asdict(check) for check in self.checks],
                "connections": [dataclasses.asdict(crowd) for crowd in self.crowds],
                "microbenchmarks": [dataclasses.asdict(benchmark) for benchmark in self.small],
                "targets": [dataclasses.asdict(target) for target in self.targets()]}

    def draw(self, folder):
        """One chart for the rows that share a unit and an order of magnitude."""
        charts = {}
        for (row, placement), measurements in self.found.items():
            if placement == HELD_ON and not row.is_secure:
                charts.setdefault(chart_name(row), []).append((row, measurements))
        return [draw_chart(folder / f"{name.replace(' ', '-')}.svg", name, rows)
                for name, rows in charts.items()]

    def write_into(self, page, folder):
        folder.mkdir(parents=True, exist_ok=True)
        charts = self.draw(folder)
        text = page.read_text()
        pictures = "".join(f"![{chart.stem}]({folder.name}/{chart.name})\n\n" for chart in charts)
        page.write_text(text[:text.index(BEGIN)] + f"{BEGIN}\n\n{self.markdown()}\n{pictures}{END}"
                        + text[text.index(END) + len(END):])


def scaled(value, by):
    return None if value is None else value / by


def run(*command):
    return subprocess.run(command, stdout=subprocess.PIPE, text=True, check=True).stdout


def version(package):
    found = subprocess.run(["dpkg-query", "-W", "-f=${Version}", package], text=True,
                           stdout=subprocess.PIPE, stderr=subprocess.DEVNULL)
    return found.stdout or "?"


def chart_name(row):
    if row.kind == "hello":
        return f"hello {row.mode}"
    if row.kind == "websocket":
        return "websocket " + ("64 B" if row.size == 64 else "1 MiB")
    return row.kind


def draw_chart(file, name, rows):
    """Bars of the median with a whisker from minimum to maximum."""
    with tempfile.TemporaryDirectory() as work:
        plots = []
        for position, server in enumerate(COLOURS):
            points = pathlib.Path(work) / server
            lines = []
            for place, (_, measurements) in enumerate(rows):
                rates = [each.rate for each in measurements.get(server, [])]
                if rates:
                    x = place + (position - (len(COLOURS) - 1) / 2) * 0.12
                    lines.append(f"{x:.3f} {median(rates):.6g} {min(rates):.6g} {max(rates):.6g}\n")
            if lines:
                points.write_text("".join(lines))
                plots.append(f'"{points}" using 1:2 with boxes fill solid 0.85 noborder '
                             f'lc rgb "{COLOURS[server]}" title "{TITLES[server]}", "{points}" '
                             'using 1:3:(0):($4-$3) with vectors nohead lw 1.5 lc rgb "#222222" '
                             'notitle')
        tics = ", ".join(f'"{row.name}" {place}' for place, (row, _) in enumerate(rows))
        script = "\n".join([
            'set terminal svg size 760,340 dynamic background "#ffffff" font "sans-serif,13"',
            f'set output "{file}"', f'set title "{name}, server and client on one core"',
            f'set ylabel "{rows[0][0].unit}"', "set yrange [0:*]", "set boxwidth 0.105",
            f"set xrange [-0.6:{len(rows) - 0.4}]", f"set xtics ({tics}) nomirror scale 0",
            "set ytics nomirror", 'set format y "%.1s%c"', "set grid y lc rgb '#dddddd' lt 1",
            "set border 3 lc rgb '#444444'", "set key outside right top Left reverse",
            "plot " + ", ".join(plots), ""])
        subprocess.run(["gnuplot", "-"], input=script, text=True, check=True, timeout=120)
    file.write_text(re.sub(r"<g [^>]*>\s*</g>\s*", "", file.read_text()))
    return file
