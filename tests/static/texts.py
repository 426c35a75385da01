#!/usr/bin/env python3
"""Checks the layout of C++ sources, shell scripts and spelling."""

import argparse
import subprocess
import sys

import tree

FORMATTER = "clang-format"
FORMATTER_VERSION = " version 14."


def cpp_sources():
    return [name for name in tree.files() if name.endswith((".cpp", ".h"))]


def shell_scripts():
    """By the first line: not all have a suffix."""
    found = []
    for name in tree.files():
        with open(tree.ROOT / name, "rb") as file:
            first = file.readline(80)
        if first.startswith(b"#!") and first.split(b"/")[-1].split()[-1:] in ([b"sh"], [b"bash"]):
            found.append(name)
    return found


def texts():
    """All files except generated ones and those with intended errors."""
    return [name for name in tree.files()
            if not name.endswith((".svg", ".png", "package-lock.json"))
            and not name.startswith(("tests/fuzz/seeds/", "abi/"))]


CHECKS = {
    "format": (FORMATTER, ["--dry-run", "-Werror", "--style=file"], cpp_sources),
    "shell": ("shellcheck", ["--external-sources"], shell_scripts),
    "spelling": ("codespell", ["--config", ".codespellrc"], texts),
}


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("check", choices=CHECKS)
    tool, options, sources = CHECKS[parser.parse_args().check]
    tree.need(tool)
    if tool == FORMATTER:
        version = subprocess.run([tool, "--version"], check=True, capture_output=True, text=True)
        if FORMATTER_VERSION not in version.stdout:
            print(f"skipped: another version lays out differently: {version.stdout.strip()}")
            sys.exit(tree.SKIPPED)
    tree.check(tool, options, sources())


if __name__ == "__main__":
    main()
