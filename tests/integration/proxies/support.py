"""Starting nginx and HAProxy with the configurations that this tree delivers.

Only lines marked "# ADAPT: ..." are changed: addresses, users, directories.

    python3 support.py [--tls] nginx 8181 [PORT]

runs one in front of 127.0.0.1:8181 until SIGTERM, SIGINT or the end of its input, and prints its
address. It listens on PORT of 127.0.0.1, or on a free one. With --tls it has a certificate of its own.
"""

import argparse
import os
import pathlib
import pwd
import queue
import re
import shutil
import signal
import socket
import subprocess
import sys
import tempfile
import threading

HERE = pathlib.Path(__file__).resolve().parent
sys.path.append(str(HERE.parents[1] / "support"))
from processes import LIMIT_SECONDS, free_port, wait_until

DEPLOY = HERE.parents[2] / "deploy"


def adapt(text, mark, old, new):
    """Replaces `old` in each line that is marked so; fails when there is none, or none of `old`."""
    lines = text.split("\n")
    found = [i for i, line in enumerate(lines) if line.rstrip().endswith(f"# ADAPT: {mark}")]
    if not found:
        raise AssertionError(f"no line is marked '# ADAPT: {mark}'")
    for i in found:
        if old not in lines[i]:
            raise AssertionError(f"'{old}' is not in the marked line '{lines[i]}'")
        lines[i] = lines[i].replace(old, new)
    return "\n".join(lines)


def activate(text, mark):
    """Comments in the lines that are marked so; fails when there is none."""
    text, count = re.subn(rf"^(\s*)#(.*?)\s*# ADAPT: {mark}$", r"\1\2", text, flags=re.MULTILINE)
    if count == 0:
        raise AssertionError(f"no line that is commented out is marked '# ADAPT: {mark}'")
    return text


def replace_one(text, old, new):
    if text.count(old) != 1:
        raise AssertionError(f"'{old}' stands {text.count(old)} times in the configuration")
    return text.replace(old, new)


def nginx_files(text, work):
    """Puts everything that nginx writes into the directory `work`."""
    text = adapt(text, "pid file", "/run", str(work))
    text = adapt(text, "log", "/var/log/nginx", str(work))
    return adapt(text, "directory", "/var/lib/nginx", str(work))


def nginx_configuration(work, port, backend, certificate=None):
    text = nginx_files((DEPLOY / "nginx.conf").read_text(), work)
    text = adapt(text, "the user nginx runs as", "user www-data;", "")
    text = adapt(text, "address of the application", "127.0.0.1:8181", f"127.0.0.1:{backend}")
    if not certificate:
        return adapt(text, "address to listen on", "listen 80;", f"listen 127.0.0.1:{port};")
    text = activate(adapt(text, "address to listen on", "listen 80;", "#listen 80;"), "TLS")
    text = replace_one(text, "listen 443 ", f"listen 127.0.0.1:{port} ")
    text = replace_one(text, "/etc/ssl/certs/site.pem", str(certificate.certificate))
    return replace_one(text, "/etc/ssl/private/site.key", str(certificate.key))


def haproxy_configuration(port, backend, certificate=None):
    text = (DEPLOY / "haproxy.cfg").read_text()
    text = adapt(text, "log", "/dev/log local0", "stdout format raw local0")
    text = adapt(text, "directory without files", "chroot /var/lib/haproxy", "")
    text = adapt(text, "the user HAProxy runs as", "user haproxy", "")
    text = adapt(text, "its group", "group haproxy", "")
    text = adapt(text, "address of the application", "127.0.0.1:8181", f"127.0.0.1:{backend}")
    if not certificate:
        return adapt(text, "address to listen on", "bind :80 ", f"bind 127.0.0.1:{port} ")
    text = activate(adapt(text, "address to listen on", "bind :80 ", "#bind :80 "), "TLS")
    text = replace_one(text, "bind :443 ", f"bind 127.0.0.1:{port} ")
    return replace_one(text, "/etc/ssl/private/site.pem", str(certificate.both))


class Certificate:
    """A self-signed certificate for 127.0.0.1 and site.test."""

    def __init__(self, directory):
        self.certificate = directory / "site.pem"
        self.key = directory / "site.key"
        self.both = directory / "both.pem"
        subprocess.run(
            ["openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:prime256v1",
             "-noenc", "-days", "2", "-subj", "/CN=site.test",
             "-addext", "subjectAltName=IP:127.0.0.1,DNS:site.test",
             "-keyout", self.key, "-out", self.certificate],
            check=True, capture_output=True)
        self.both.write_bytes(self.certificate.read_bytes() + self.key.read_bytes())


def find_program(name):
    return shutil.which(name, path=os.environ.get("PATH", "") + ":/usr/sbin:/usr/local/sbin")


class Proxy:
    """One nginx or HAProxy in front of 127.0.0.1:`backend`.

    `change` gets the adapted configuration and returns the one to run. With `tls` it has a
    `certificate`.
    """

    def __init__(self, name, backend, change=lambda text: text, port=None, tls=False):
        self.name = name
        self.port = port or free_port()
        self.url = f"{'https' if tls else 'http'}://127.0.0.1:{self.port}"
        self.work = pathlib.Path(tempfile.mkdtemp(prefix=f"proxy-{name}-"))
        self.certificate = Certificate(self.work) if tls else None
        self.file = self.work / "configuration"
        if name == "nginx":
            text = nginx_configuration(self.work, self.port, backend, self.certificate)
            self.command = [find_program(name), "-c", str(self.file), "-g", "daemon off;"]
        else:
            text = haproxy_configuration(self.port, backend, self.certificate)
            self.command = [find_program(name), "-db", "-f", str(self.file)]
        self.file.write_text(change(text))
        self.identity = {}
        if os.geteuid() == 0:
            nobody = pwd.getpwnam("nobody")
            for path in (self.work, *self.work.iterdir()):
                os.chown(path, nobody.pw_uid, nobody.pw_gid)
            self.identity = {"user": nobody.pw_uid, "group": nobody.pw_gid, "extra_groups": []}
        with open(self.work / "output", "wb") as output:
            self.process = subprocess.Popen(self.command, stdin=subprocess.DEVNULL, stdout=output,
                                            stderr=output, cwd=self.work, **self.identity)

    def log(self):
        files = [self.work / "output", self.work / "error.log"]
        return "".join(file.read_text(errors="replace") for file in files if file.exists())

    def children(self):
        """The process numbers of its workers."""
        pid = self.process.pid
        return pathlib.Path(f"/proc/{pid}/task/{pid}/children").read_text().split()

    def accepts(self):
        if self.process.poll() is not None:
            raise AssertionError(f"{self.name} ended: {self.log()}")
        try:
            socket.create_connection(("127.0.0.1", self.port), timeout=LIMIT_SECONDS).close()
            return True
        except ConnectionRefusedError:
            return False

    def wait_ready(self):
        wait_until(self.accepts, f"{self.name} accepts connections")
        return self

    def stop(self):
        """Ends it and removes its files; returns its exit code."""
        if self.process.poll() is None:
            self.process.terminate()
        try:
            code = self.process.wait(timeout=LIMIT_SECONDS)
        except subprocess.TimeoutExpired:
            self.process.kill()
            self.process.wait()
            raise AssertionError(f"{self.name} did not stop on SIGTERM") from None
        finally:
            shutil.rmtree(self.work)
        return code


class HeadRecorder:
    """A server that records the head of each request and responds 200."""

    def __init__(self):
        self.listener = socket.create_server(("127.0.0.1", 0))
        self.port = self.listener.getsockname()[1]
        self.heads = queue.Queue()
        self.thread = threading.Thread(target=self._serve, daemon=True)
        self.thread.start()

    def _serve(self):
        while True:
            try:
                connection, _ = self.listener.accept()
            except OSError:
                return  # closed
            with connection:
                connection.settimeout(LIMIT_SECONDS)
                head = self._respond(connection)
            if head and not head.is_health_check():
                self.heads.put(head)

    @staticmethod
    def _respond(connection):
        data = b""
        while b"\r\n\r\n" not in data:
            piece = connection.recv(65536)
            if not piece:
                return None
            data += piece
        connection.sendall(b"HTTP/1.1 200 OK\r\nContent-Length: 2\r\nConnection: close\r\n\r\nok")
        return Head(data)

    def take(self):
        """The next request's head, as the proxy sent it."""
        return self.heads.get(timeout=LIMIT_SECONDS)

    def close(self):
        self.listener.shutdown(socket.SHUT_RDWR)
        self.listener.close()
        self.thread.join(LIMIT_SECONDS)


class Head:
    def __init__(self, data):
        lines = data.split(b"\r\n\r\n")[0].decode("latin-1").split("\r\n")
        self.request = lines[0]
        self.headers = [(name.strip().lower(), value.strip())
                        for name, _, value in (line.partition(":") for line in lines[1:])]

    def values(self, name):
        return [value for key, value in self.headers if key == name]

    def is_health_check(self):
        return self.values("host") == ["localhost"]


def backend_connections(port):
    """The other ends of the connections that are open to a port of this machine."""
    established = "01"
    ends = set()
    for line in pathlib.Path("/proc/net/tcp").read_text().splitlines()[1:]:
        local, remote, state = line.split()[1:4]
        if local == f"0100007F:{port:04X}" and state == established:
            ends.add(remote)
    return ends


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--tls", action="store_true")
    parser.add_argument("name", choices=("nginx", "haproxy"))
    parser.add_argument("backend", type=int)
    parser.add_argument("port", type=int, nargs="?")
    arguments = parser.parse_args()
    ended = threading.Event()
    for number in (signal.SIGTERM, signal.SIGINT):
        signal.signal(number, lambda *_: ended.set())
    # The parent's end shows as the end of our input.
    threading.Thread(target=lambda: (sys.stdin.read(), ended.set()), daemon=True).start()
    proxy = Proxy(arguments.name, arguments.backend, port=arguments.port, tls=arguments.tls)
    try:
        proxy.wait_ready()
        print(proxy.url, flush=True)
        ended.wait()
    except AssertionError as error:
        return f"support.py: {error}"
    finally:
        code = proxy.stop()
    # HAProxy ends by the signal itself.
    return None if code in (0, -signal.SIGTERM) else f"support.py: {proxy.name} ended with {code}"


if __name__ == "__main__":
    sys.exit(main())
