"""Runs the microbenchmarks."""

import dataclasses
import json
import subprocess

import drive

REPETITIONS = 5


@dataclasses.dataclass
class Small:
    name: str
    nanoseconds: float  # of processor time for one round, median
    bytes_per_second: float | None
    items_per_second: float | None


def measure(build, quick):
    command = [str(build / "micro" / "wendrel-bench-micro"), "--benchmark_format=json",
               f"--benchmark_repetitions={REPETITIONS}", "--benchmark_report_aggregates_only=true",
               f"--benchmark_min_time={0.02 if quick else 0.1}"]
    print("  microbenchmarks", flush=True)
    done = subprocess.run(command, stdout=subprocess.PIPE, text=True, timeout=900)
    if done.returncode != 0:
        raise drive.Failed(f"{command[0]} ended with {done.returncode}")
    return [Small(row["run_name"], row["cpu_time"], row.get("bytes_per_second"),
                  row.get("items_per_second"))
            for row in json.loads(done.stdout)["benchmarks"]
            if row.get("aggregate_name") == "median"]
