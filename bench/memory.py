"""Memory of long transfers: a slow reader of a stream, a worker that reads an upload."""

import dataclasses
import pathlib
import subprocess
import sys
import tempfile
import time

import drive

STREAM_BYTES = 4 << 30
READER_BYTES_A_SECOND = 10_000_000
UPLOAD_BYTES = 1 << 30
SETTLED_SECONDS = 5
UPLOAD_BYTES_A_SECOND = 200_000_000
SETTLED_SHARE = 0.1  # of an upload
SAMPLE_INTERVAL_SECONDS = 0.05
LIMIT_SECONDS = 900


@dataclasses.dataclass
class Used:
    name: str
    before_bytes: int  # after the start of the transfer
    max_bytes: int
    seconds: float
    max_growth_bytes: int | None  # the target, if any

    @property
    def growth_bytes(self):
        return self.max_bytes - self.before_bytes


def watch(server, client, name, settled, limit_bytes):
    start = time.monotonic()
    before = maximum = None
    while client.poll() is None:
        now = time.monotonic() - start
        if now > LIMIT_SECONDS:
            client.kill()
            raise drive.Failed(f"{name}: no end after {LIMIT_SECONDS} s")
        if settled(now):
            resident = server.resident_bytes()
            before = resident if before is None else before
            maximum = max(maximum or 0, resident)
        time.sleep(SAMPLE_INTERVAL_SECONDS)
    if client.returncode != 0:
        raise drive.Failed(f"{name}: curl ended with {client.returncode}")
    if before is None:
        raise drive.Failed(f"{name}: ended before the first sample")
    return Used(name, before, maximum, time.monotonic() - start, limit_bytes)


def curl(*arguments):
    return subprocess.Popen(["curl", "--silent", "--show-error", "--fail", "--output", "/dev/null",
                             "--max-time", str(LIMIT_SECONDS), *arguments])


def slow_reader(build):
    with drive.Server(build, "server", ["--mode", "worker"], None) as server:
        client = curl("--limit-rate", str(READER_BYTES_A_SECOND),
                      f"http://127.0.0.1:{server.port}/stream?bytes={STREAM_BYTES}")
        return watch(server, client, "stream of 4 GiB to a reader of 10 MB/s",
                     lambda seconds: seconds > SETTLED_SECONDS, 2 << 20)


def settled_upload(seconds):
    return seconds > UPLOAD_BYTES * SETTLED_SHARE / UPLOAD_BYTES_A_SECOND


def even_upload(build):
    with drive.Server(build, "server", ["--mode", "worker"], None) as server:
        client = subprocess.Popen(
            [sys.executable, "-B", pathlib.Path(__file__).with_name("even_upload.py"),
             str(server.port), str(UPLOAD_BYTES), str(UPLOAD_BYTES_A_SECOND)])
        return watch(server, client, "upload of 1 GiB to a reading worker",
                     settled_upload, 4 << 20)


def upload_in_bursts(build):
    """curl with a rate limit sends in bursts at full speed, with pauses."""
    with tempfile.NamedTemporaryFile() as file:
        file.truncate(UPLOAD_BYTES)
        with drive.Server(build, "server", ["--mode", "worker"], None) as server:
            client = curl("--request", "POST", "--header", "Expect:", "--limit-rate",
                          str(UPLOAD_BYTES_A_SECOND), "--upload-file", file.name,
                          f"http://127.0.0.1:{server.port}/upload")
            return watch(server, client, "the same, sent in bursts", settled_upload, None)


def slow_consumer(build):
    """curl sends as fast as the server reads; the worker reads 20 MB/s."""
    with tempfile.NamedTemporaryFile() as file:
        file.truncate(UPLOAD_BYTES)
        with drive.Server(build, "server", ["--mode", "worker"], None) as server:
            client = curl("--request", "POST", "--header", "Expect:", "--upload-file", file.name,
                          f"http://127.0.0.1:{server.port}/slow-upload")
            return watch(server, client, "upload of 1 GiB to a worker that reads 20 MB/s",
                         lambda seconds: seconds > SETTLED_SECONDS, 1 << 20)


def measure(build):
    print("  memory: 1 GiB up, three times, then 4 GiB down at 10 MB/s (8 minutes)", flush=True)
    return [even_upload(build), upload_in_bursts(build), slow_consumer(build), slow_reader(build)]
