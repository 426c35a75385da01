"""Installs a build into a prefix, builds examples/hello against it alone, and runs it.

Usage: installed_hello.py BUILD_DIR SOURCE_DIR WORK_DIR
"""

import pathlib
import shutil
import signal
import socket
import subprocess
import sys
import urllib.request

STEP_LIMIT_SECONDS = 100


def run(*command):
    subprocess.run([str(word) for word in command], check=True, timeout=STEP_LIMIT_SECONDS)


def free_port():
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]


def greeting(program):
    """Starts the program, asks it once, stops it; returns answer and exit code."""
    port = free_port()
    process = subprocess.Popen([program, str(port)], stdout=subprocess.PIPE, text=True)
    try:
        url = next(line for line in process.stdout if line.startswith("http")).strip()
        with urllib.request.urlopen(url, timeout=10) as answer:
            text = answer.read().decode()
        process.send_signal(signal.SIGTERM)
        return text, process.wait(timeout=20)
    finally:
        process.kill()
        process.wait()


def main():
    build, source, work = (pathlib.Path(argument) for argument in sys.argv[1:])
    shutil.rmtree(work, ignore_errors=True)
    prefix = work / "prefix"
    run("cmake", "--install", build, "--prefix", prefix)
    # Moved, so that no path of the installation can be built in.
    moved = work / "moved"
    prefix.rename(moved)
    run("cmake", "-S", source / "examples/hello", "-B", work / "hello", "-G", "Ninja",
        f"-DCMAKE_PREFIX_PATH={moved}", "-DCMAKE_CXX_STANDARD=17")
    run("cmake", "--build", work / "hello")
    text, code = greeting(work / "hello" / "hello")
    print(f"answered {text!r}, ended with {code}")
    return 0 if text == "Hello, world!\n" and code == 0 else 1


if __name__ == "__main__":
    sys.exit(main())
