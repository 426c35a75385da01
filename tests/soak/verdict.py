#!/usr/bin/env python3
"""Whether memory, descriptors or threads of a server grew under a steady load.

    python3 verdict.py DIRECTORY   judges the servers.csv and phases.json that a run has left there
    python3 verdict.py --rule      prints the rule
"""

import csv
import dataclasses
import json
import pathlib
import statistics
import sys

MIB = 1024 * 1024
MIN_SAMPLES = 18
MIN_JUDGED_SECONDS = 90
MAX_SLOPE_SAMPLES = 400


@dataclasses.dataclass(frozen=True)
class Allowance:
    """How much more than at first there may be: a share of it, but at least `floor`."""
    share: float
    floor: float

    def of(self, level):
        return max(self.floor, self.share * level)


ALLOWANCES = {
    "memory": Allowance(0.10, 6 * MIB),
    "descriptors": Allowance(0.10, 6),
    "threads": Allowance(0, 0),
}

RULE = """\
Growth: what is sampled in a warm-up of 2 minutes, or 15 % of the time if that is more, does not
count. Of the rest, the median of the last third may be above that of the first third, and the
Theil-Sen slope (the median of the slopes between all pairs of samples) may rise over the time, by
  resident memory  10 %, at least 6 MiB
  descriptors      10 %, at least 6
  threads          nothing
Judged when 90 s and 18 samples remain after the warm-up: from 4 minutes on.
After the load, with all connections closed, descriptors and threads must be exactly as many as
before it; they have 60 s for that, or 420 s if the load lasts more than 2 minutes (the daemon's
timeout is 360 s)."""


def warm_up_seconds(duration):
    return max(120.0, 0.15 * duration)


def thinned(samples, most):
    """Evenly spaced ones of many."""
    if len(samples) <= most:
        return list(samples)
    return [samples[index * len(samples) // most] for index in range(most)]


def theil_sen_slope(samples):
    """The median of the slopes between all pairs of (time, value)."""
    samples = thinned(samples, MAX_SLOPE_SAMPLES)
    slopes = [(later[1] - earlier[1]) / (later[0] - earlier[0])
              for number, earlier in enumerate(samples)
              for later in samples[number + 1:] if later[0] > earlier[0]]
    return statistics.median(slopes) if slopes else 0.0


@dataclasses.dataclass
class Growth:
    quantity: str
    first: float  # level of the first third
    last: float  # level of the last third
    rise: float  # over the whole time, by the slope
    allowed: float

    @property
    def too_much(self):
        return max(self.last - self.first, self.rise) > self.allowed


def shown(quantity, value):
    return f"{value / MIB:.1f} MiB" if quantity == "memory" else f"{round(value, 1):g}"


def measure_growth(quantity, samples):
    """`samples`: (seconds, value), in order, of the time after the warm-up; None when too few."""
    if len(samples) < MIN_SAMPLES or samples[-1][0] - samples[0][0] < MIN_JUDGED_SECONDS:
        return None
    third = len(samples) // 3
    first = statistics.median(value for _, value in samples[:third])
    last = statistics.median(value for _, value in samples[-third:])
    rise = theil_sen_slope(samples) * (samples[-1][0] - samples[0][0])
    return Growth(quantity, first, last, rise, ALLOWANCES[quantity].of(first))


def describe_growth(server, growth):
    name = growth.quantity
    return (f"{server}: {name} grew from {shown(name, growth.first)} to {shown(name, growth.last)}"
            f" (first and last third), by slope {shown(name, growth.rise)} in all;"
            f" allowed are {shown(name, growth.allowed)}")


def judge_growth(server, samples, load_start, load_end):
    """Growths by quantity, and complaints. `samples`: dictionaries with seconds and quantities."""
    begin = load_start + warm_up_seconds(load_end - load_start)
    counted = [sample for sample in samples if begin <= sample["seconds"] <= load_end]
    growths = {}
    complaints = []
    for quantity in ALLOWANCES:
        growth = measure_growth(
            quantity, [(sample["seconds"], sample[quantity]) for sample in counted])
        if growth is None:
            continue
        growths[quantity] = growth
        if growth.too_much:
            complaints.append(describe_growth(server, growth))
    return growths, complaints


def judge_return(server, before, after, seconds):
    """Complaints about resources that were not released. Both: dictionaries of quantities."""
    return [f"{server}: {quantity} did not come back within {seconds:.0f} s: "
            f"{before[quantity]} before the load, {after[quantity]} after it"
            for quantity in ("descriptors", "threads") if before[quantity] != after[quantity]]


def read_samples(path):
    """Samples by server."""
    samples = {}
    with open(path, newline="") as file:
        for row in csv.DictReader(file):
            samples.setdefault(row["server"], []).append({
                "seconds": float(row["seconds"]),
                "memory": int(row["rss_kib"]) * 1024,
                "descriptors": int(row["descriptors"]),
                "threads": int(row["threads"]),
            })
    return samples


def judge_directory(directory):
    directory = pathlib.Path(directory)
    phases = json.loads((directory / "phases.json").read_text())
    complaints = []
    growths = {}
    for server, samples in read_samples(directory / "servers.csv").items():
        growths[server], found = judge_growth(
            server, samples, phases["load_start"], phases["load_end"])
        complaints += found
        if server in phases["before"] and server in phases["after"]:
            complaints += judge_return(server, phases["before"][server], phases["after"][server],
                                       phases["drain_seconds"])
    return growths, complaints


def main():
    if len(sys.argv) != 2:
        sys.exit(__doc__)
    if sys.argv[1] == "--rule":
        print(RULE)
        return
    growths, complaints = judge_directory(sys.argv[1])
    for server, found in growths.items():
        for quantity, growth in found.items():
            print(f"{server}: {quantity} {shown(quantity, growth.first)} -> "
                  f"{shown(quantity, growth.last)}, by slope {shown(quantity, growth.rise)}, "
                  f"allowed {shown(quantity, growth.allowed)}")
        if not found:
            print(f"{server}: growth is not judged, the run was too short")
    print("\n".join(complaints) or "nothing grew")
    sys.exit(1 if complaints else 0)


if __name__ == "__main__":
    main()
