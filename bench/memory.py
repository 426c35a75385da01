"""How much memory long transfers take: a slow reader of a stream, a worker that reads an upload."""

import dataclasses
import subprocess
import tempfile
import time

import drive

STREAM_BYTES = 4 << 30
READER_BYTES_A_SECOND = 10_000_000
UPLOAD_BYTES = 1 << 30
SETTLED_SECONDS = 5
SETTLED_SHARE = 0.1  # of an upload
LOOK_SECONDS = 0.05
LIMIT_SECONDS = 900


@dataclasses.dataclass
class Used:
    name: str
    before_bytes: int  # once the transfer has got going
    most_bytes: int
    seconds: float
    most_growth_bytes: int  # the target

    @property
    def growth_bytes(self):
        return self.most_bytes - self.before_bytes


def watch(server, client, name, settled, limit_bytes):
    start = time.monotonic()
    before = most = None
    while client.poll() is None:
        now = time.monotonic() - start
        if now > LIMIT_SECONDS:
            client.kill()
            raise drive.Failed(f"{name}: no end after {LIMIT_SECONDS} s")
        if settled(now):
            resident = server.resident_bytes()
            before = resident if before is None else before
            most = max(most or 0, resident)
        time.sleep(LOOK_SECONDS)
    if client.returncode != 0:
        raise drive.Failed(f"{name}: curl ended with {client.returncode}")
    if before is None:
        raise drive.Failed(f"{name}: over before it could be looked at")
    return Used(name, before, most, time.monotonic() - start, limit_bytes)


def curl(*arguments):
    return subprocess.Popen(["curl", "--silent", "--show-error", "--fail", "--output", "/dev/null",
                             "--max-time", str(LIMIT_SECONDS), *arguments])


def slow_reader(build):
    with drive.Server(build, "server", ["--mode", "worker"], None) as server:
        client = curl("--limit-rate", str(READER_BYTES_A_SECOND),
                      f"http://127.0.0.1:{server.port}/stream?bytes={STREAM_BYTES}")
        return watch(server, client, "stream of 4 GiB to a reader of 10 MB/s",
                     lambda seconds: seconds > SETTLED_SECONDS, 2 << 20)


def upload(build):
    """With curl's own limit the upload takes long enough to be looked at."""
    with tempfile.NamedTemporaryFile() as file:
        file.truncate(UPLOAD_BYTES)
        with drive.Server(build, "server", ["--mode", "worker"], None) as server:
            client = curl("--request", "POST", "--header", "Expect:", "--limit-rate", "200M",
                          "--upload-file", file.name, f"http://127.0.0.1:{server.port}/upload")
            return watch(server, client, "upload of 1 GiB to a worker that reads as it comes",
                         lambda seconds: seconds > UPLOAD_BYTES * SETTLED_SHARE / 200e6, 4 << 20)


def measure(build):
    print("  memory: 1 GiB up, then 4 GiB down at 10 MB/s (7 minutes)", flush=True)
    return [upload(build), slow_reader(build)]
