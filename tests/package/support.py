"""Building and running an application in the ways that a user has."""

import os
import pathlib
import shutil
import signal
import subprocess
import sys
import urllib.request

STEP_LIMIT_SECONDS = 900
FOLDER = pathlib.Path(__file__).resolve().parent
SOURCE = FOLDER.parent.parent
GREETING = "Hello, world!\n"

sys.path.append(str(SOURCE / "tests" / "support"))
from processes import LIMIT_SECONDS, free_port


class Failed(Exception):
    pass


def run(*command, environment=None, folder=None):
    """Returns the standard output of the command; prints all output when it fails."""
    done = run_anyway(*command, environment=environment, folder=folder)
    if done.returncode != 0:
        raise Failed(f"{' '.join(map(str, command))} ended with {done.returncode}:\n"
                     f"{done.stdout[-6000:]}")
    return done.stdout


def run_anyway(*command, environment=None, folder=None):
    return subprocess.run([str(word) for word in command], stdout=subprocess.PIPE,
                          stderr=subprocess.STDOUT, text=True, timeout=STEP_LIMIT_SECONDS,
                          env={**os.environ, **(environment or {})}, cwd=folder)


def expect(condition, complaint):
    if not condition:
        raise Failed(complaint)


def empty(folder):
    shutil.rmtree(folder, ignore_errors=True)
    folder.mkdir(parents=True)
    return folder


def build(source, folder, *options, target=None):
    run("cmake", "-S", source, "-B", folder, "-G", "Ninja", *options)
    run("cmake", "--build", folder, *(["--target", target] if target else []))


def check_greeting(program, library_path=None):
    """Starts the program, asks it once, stops it."""
    environment = dict(os.environ)
    environment.pop("LD_LIBRARY_PATH", None)
    if library_path:
        environment["LD_LIBRARY_PATH"] = str(library_path)
    process = subprocess.Popen([program, f"127.0.0.1:{free_port()}"], stdout=subprocess.PIPE, text=True,
                               env=environment)
    try:
        url = next((line for line in process.stdout if line.startswith("http")), None)
        expect(url, f"{program} did not start")
        with urllib.request.urlopen(url.strip() + "hello/world", timeout=LIMIT_SECONDS) as response:
            text = response.read().decode()
        process.send_signal(signal.SIGTERM)
        code = process.wait(timeout=LIMIT_SECONDS)
    finally:
        process.kill()
        process.wait()
        process.stdout.close()
    expect(text == GREETING, f"{program} responded {text!r}")
    expect(code == 0, f"{program} ended with {code}")


def flags_of(prefix, package, *options):
    """The output of pkg-config for a package under `prefix`."""
    files = list(pathlib.Path(prefix).rglob(f"{package}.pc"))
    expect(len(files) == 1, f"{package}.pc stands {len(files)} times under {prefix}")
    return run("pkg-config", "--cflags", "--libs", *options, package,
               environment={"PKG_CONFIG_PATH": str(files[0].parent)}).split()


def compile_with(flags, source, program):
    run("c++", "-std=c++17", "-Wall", "-Wextra", "-Wpedantic", "-Werror", source, *flags,
        "-o", program)


def libraries_of(prefix):
    """The folder that the shared libraries are in."""
    found = list(pathlib.Path(prefix).rglob("libWendrel.so.3.0"))
    expect(len(found) == 1, f"libWendrel.so.3.0 stands {len(found)} times under {prefix}")
    return found[0].parent


def needed_by(program):
    return run("readelf", "--dynamic", program)


def main_of(check, *arguments):
    """Runs `check` and prints its failures; returns the exit code."""
    try:
        check(*arguments)
    except Failed as failure:
        print(failure)
        return 1
    return 0
