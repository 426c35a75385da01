"""Starts a server of bench/ and drives it with one of the clients."""

import contextlib
import dataclasses
import json
import pathlib
import re
import select
import signal
import socket
import subprocess
import time

START_LIMIT_SECONDS = 30
END_LIMIT_SECONDS = 30
UNITS_MS = {"us": 0.001, "ms": 1.0, "s": 1000.0, "m": 60000.0}
MEBIBYTE = 1 << 20


class Failed(Exception):
    """A server or client failed."""


@dataclasses.dataclass
class Measured:
    """One measurement: `rate` a second, of requests, mebibytes or messages."""

    rate: float
    p50_ms: float | None = None
    p99_ms: float | None = None
    cpu_seconds: float | None = None  # of the server, for 100,000 requests or messages


@dataclasses.dataclass
class Check:
    """A measurement with its goal: at most `limit`, or at least, if it is a minimum."""

    name: str
    value: float
    limit: float
    is_minimum: bool = False


@dataclasses.dataclass(frozen=True)
class Certificate:
    """Of a server of HTTPS: files in PEM."""

    file: pathlib.Path
    key: pathlib.Path

    def options(self):
        return ["--tls-certificate", self.file, "--tls-key", self.key]


def make_certificate(folder):
    made = Certificate(pathlib.Path(folder) / "certificate.pem", pathlib.Path(folder) / "key.pem")
    run_client(["openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256",
                "-nodes", "-days", "2", "-subj", "/CN=localhost", "-keyout", str(made.key), "-out",
                str(made.file)], None, START_LIMIT_SECONDS)
    return made


def free_port():
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]


def pinned(command, core):
    return ["taskset", "-c", str(core), *command] if core is not None else command


class Server:
    """A listening server process; stopped at the end of the block."""

    def __init__(self, build, name, options, core, certificate=None):
        self.port = free_port()
        self.origin = f"{'https' if certificate else 'http'}://127.0.0.1:{self.port}"
        program = build / name / f"wendrel-bench-{name}"
        secure = certificate.options() if certificate else []
        command = [str(program), "--port", str(self.port), *map(str, [*options, *secure])]
        self.process = subprocess.Popen(pinned(command, core), stdout=subprocess.PIPE, text=True)
        self.name = name
        self.status = None  # after the end
        self.is_checked = True

    def __enter__(self):
        with contextlib.ExitStack() as on_failure:
            on_failure.callback(self.end)
            line = self._first_line()
            if not line.startswith("listening on "):
                raise Failed(f"{self.name} did not start: it printed '{line.strip()}'")
            on_failure.pop_all()
        return self

    def _first_line(self):
        ready, _, _ = select.select([self.process.stdout], [], [], START_LIMIT_SECONDS)
        return self.process.stdout.readline() if ready else ""

    def __exit__(self, *_):
        self.status = self.end()
        if self.is_checked and self.status != 0:
            raise Failed(f"{self.name} ended with {self.status}")

    def end(self):
        if self.process.poll() is None:
            self.process.send_signal(signal.SIGTERM)
        try:
            return self.process.wait(END_LIMIT_SECONDS)
        except subprocess.TimeoutExpired:
            self.process.kill()
            self.process.wait()
            return "no end within the limit"
        finally:
            self.process.stdout.close()

    def cpu_seconds(self):
        """Processor time of its running threads; threads that have ended are missing."""
        nanoseconds = 0
        for path in pathlib.Path(f"/proc/{self.process.pid}/task").glob("*/schedstat"):
            with contextlib.suppress(FileNotFoundError, ProcessLookupError):
                nanoseconds += int(path.read_text().split()[0])
        return nanoseconds / 1e9

    def resident_bytes(self):
        status = pathlib.Path(f"/proc/{self.process.pid}/status").read_text()
        return int(re.search(r"VmRSS:\s+(\d+) kB", status)[1]) * 1024


def run_client(command, core, limit):
    try:
        done = subprocess.run(pinned(command, core), stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                              text=True, timeout=limit)
    except subprocess.TimeoutExpired:
        raise Failed(f"{command[0]} did not end within {limit} s") from None
    if done.returncode != 0:
        raise Failed(f"{' '.join(command)} ended with {done.returncode}: "
                     f"{(done.stdout + done.stderr)[-2000:]}")
    return done.stdout


def milliseconds(text):
    number, unit = re.fullmatch(r"([\d.]+)(us|ms|s|m)", text).groups()
    return float(number) * UNITS_MS[unit]


def wrk(server, path, connections, seconds, core):
    """Requests on persistent connections, one at a time on each."""
    command = ["wrk", "-t1", f"-c{connections}", f"-d{seconds}s", "--latency",
               server.origin + path]
    before = server.cpu_seconds()
    text = run_client(command, core, seconds + 60)
    used = server.cpu_seconds() - before
    if "Socket errors" in text or "Non-2xx" in text:
        raise Failed(f"{server.name}: {text}")
    requests = int(re.search(r"(\d+) requests in", text)[1])
    rate = float(re.search(r"Requests/sec:\s+([\d.]+)", text)[1])
    return Measured(rate, milliseconds(re.search(r"^\s+50%\s+(\S+)", text, re.M)[1]),
                    milliseconds(re.search(r"^\s+99%\s+(\S+)", text, re.M)[1]),
                    used / requests * 100_000 if requests else None)


def curl_rate(server, arguments, core, size):
    command = ["curl", "--silent", "--show-error", "--fail", "--insecure", "--max-time", "300",
               "--output", "/dev/null", "--write-out", "%{time_total} %{size_download} %{size_upload}",
               *arguments]
    text = run_client(command, core, 320)
    seconds, down, up = map(float, text.split())
    if max(down, up) != size:
        raise Failed(f"{server.name}: {max(down, up)} bytes instead of {size}")
    return Measured(size / MEBIBYTE / seconds)


def stream(server, size, core):
    return curl_rate(server, [f"{server.origin}/stream?bytes={size}"], core, size)


def upload(server, file, core):
    return curl_rate(server, ["--request", "POST", "--header", "Expect:", "--upload-file",
                              str(file), f"{server.origin}/upload"],
                     core, file.stat().st_size)


def websockets(build, server, connections, size, seconds, core, path):
    command = [str(build / "client" / "wendrel-bench-websocket-client"), "--port", str(server.port),
               "--connections", str(connections), "--bytes", str(size), "--seconds", str(seconds),
               "--path", path, *(["--tls"] if server.origin.startswith("https") else [])]
    before = server.cpu_seconds()
    result = json.loads(run_client(command, core, seconds * 3 + 60))
    used = server.cpu_seconds() - before
    if result["errors"]:
        raise Failed(f"{server.name}: {result}")
    # The warm-up, another fifth, uses processor time as well.
    return Measured(result["per_second"], result["p50_us"] / 1000, result["p99_us"] / 1000,
                    used / (result["messages"] * 1.2) * 100_000)


def handshakes(server, seconds, core, resumes):
    """Connections of one client, one after the other, each with a handshake and a request."""
    command = ["openssl", "s_time", "-connect", f"127.0.0.1:{server.port}", "-www", "/hello",
               "-time", str(seconds), "-reuse" if resumes else "-new"]
    before = server.cpu_seconds()
    began = time.monotonic()
    text = run_client(command, core, seconds + 60)
    elapsed = time.monotonic() - began
    used = server.cpu_seconds() - before
    found = re.search(r"(\d+) connections in \d+ real seconds, (\d+) bytes", text)
    count = int(found[1])
    resumed = re.search(r"^[*r]+$", text, re.M)[0].count("r")  # a mark for each
    if found[2] == "0" or resumed != (count if resumes else 0):
        raise Failed(f"{server.name}: {resumed} of {count} handshakes resumed, {found[2]} bytes each")
    return Measured(count / elapsed, cpu_seconds=used / count * 100_000)
