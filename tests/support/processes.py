"""Processes under test, and waits for their events."""

import os
import pathlib
import queue
import random
import re
import signal
import socket
import subprocess
import threading
import time

SANITIZED = os.environ.get("WENDREL_SANITIZED", "") not in ("", "0")
LIMIT_SECONDS = 120 if SANITIZED else 60


def wait_until(condition, what, seconds=LIMIT_SECONDS):
    """Waits for something that only looking can tell, such as the contents of a directory."""
    end = time.monotonic() + seconds
    while True:
        value = condition()
        if value:
            return value
        if time.monotonic() > end:
            raise AssertionError(f"timed out after {seconds} s: {what}")
        time.sleep(0.01)


def free_port():
    """A port on which nothing listened a moment ago.

    It lies below the range from which the system takes the ports of clients: no connection of another test
    takes it, also while its server restarts.
    """
    end = int(pathlib.Path("/proc/sys/net/ipv4/ip_local_port_range").read_text().split()[0])
    for _ in range(1000):
        with socket.socket() as probe:
            try:
                probe.bind(("127.0.0.1", random.randrange(10000, max(end, 11000))))
                probe.listen(1)
            except OSError:
                continue
            return probe.getsockname()[1]
    raise AssertionError("no free port on 127.0.0.1")


class Process:
    """A process whose lines are read as they come."""

    def __init__(self, *command, limit=LIMIT_SECONDS, **more):
        self.limit = limit
        self.process = subprocess.Popen(
            command, stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True, **more)
        self.pid = self.process.pid
        self.lines = queue.Queue()
        self.output = []
        self.errors = []
        self.readers = [threading.Thread(target=self._read_output, daemon=True),
                        threading.Thread(target=self._read_errors, daemon=True)]
        for reader in self.readers:
            reader.start()

    def _read_output(self):
        for line in self.process.stdout:
            self.output.append(line)
            self.lines.put(line)
        self.lines.put(None)

    def _read_errors(self):
        for line in self.process.stderr:
            self.errors.append(line)

    def text(self):
        return "".join(self.output[-40:] + self.errors[-400:])

    def next_line(self, what="a line", seconds=None):
        try:
            line = self.lines.get(timeout=self.limit if seconds is None else seconds)
        except queue.Empty:
            raise AssertionError(f"{what} did not come:\n{self.text()}") from None
        if line is None:
            raise AssertionError(f"the end came before {what}:\n{self.text()}")
        return line

    def wait_line(self, pattern):
        """The match of the first line from now on that matches."""
        end = time.monotonic() + self.limit
        while True:
            line = self.next_line(f"a line like '{pattern}'", max(0.0, end - time.monotonic()))
            if match := re.match(pattern, line):
                return match

    def descriptors(self):
        return len(os.listdir(f"/proc/{self.pid}/fd"))

    def send(self, number):
        self.process.send_signal(number)

    def wait_end(self, seconds=None):
        """The exit code. A process that does not end in time is killed."""
        try:
            return self.process.wait(timeout=seconds or self.limit)
        except subprocess.TimeoutExpired:
            raise AssertionError(f"the process did not end:\n{self.text()}") from None
        finally:
            self.kill()
            for reader in self.readers:
                reader.join(self.limit)
            for stream in (self.process.stdin, self.process.stdout, self.process.stderr):
                stream.close()

    def stop(self):
        """Ends the process; returns its exit code, that of its own end if it has ended before."""
        if self.process.poll() is None:
            self.send(signal.SIGTERM)
        return self.wait_end()

    def kill(self):
        if self.process.poll() is None:
            self.process.kill()
            self.process.wait()
