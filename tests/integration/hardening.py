#!/usr/bin/env python3
"""Checks the hardening of built files against exploits of memory errors."""

import argparse
import json
import os
import re
import subprocess
import sys


# Too small to have anything that is checked at run time.
WITHOUT_STACK_BUFFERS = ["libQuenby.so.3.0"]
# They call no function that has a checked form, only C++ and OpenSSL. That they are compiled to use
# such forms is seen in the commands of their objects.
WITHOUT_CHECKED_CALLS = ["libQuenby.so.3.0", "libqvOpenSSL.so.3.0", "libOstrand.so.3.0"]


def run(*command):
    return subprocess.run(command, check=True, capture_output=True, text=True).stdout


class File:
    """The output of readelf and the dynamic linker for one library or program."""

    def __init__(self, readelf, path):
        self.name = os.path.basename(path)
        self.type = re.search(r"Type:\s+(\w+)", run(readelf, "-h", "-W", path)).group(1)
        self.segments = re.findall(r"^\s+(\w+)\s+(?:0x\w+\s+){5}([RWE ]{3})",
                                   run(readelf, "-l", "-W", path), re.MULTILINE)
        dynamic = run(readelf, "-d", "-W", path)
        self.flags = set(" ".join(re.findall(r"\(FLAGS(?:_1)?\)\s+(?:Flags:)?(.*)", dynamic)).split())
        self.has_text_relocations = "TEXTREL" in dynamic
        self.imports = re.findall(r"\sUND\s+(\w+)", run(readelf, "--dyn-syms", "-W", path))
        linked = subprocess.run(["ldd", "-r", path], capture_output=True, text=True, check=False)
        self.unresolved = re.findall(r"undefined symbol: (\S+)|(\S+) => not found",
                                     linked.stdout + linked.stderr)

    def segment(self, name):
        return [flags for kind, flags in self.segments if kind == name]


def failures_of(file):
    """Each thing that is missing, in words."""
    stack = file.segment("GNU_STACK")
    checks = [
        (file.type == "DYN", "is not position independent"),
        (len(file.segment("LOAD")) > 1, "has hardly any segments: nothing was read"),
        (bool(file.segment("GNU_RELRO")), "has no read-only relocations (-z relro)"),
        ({"NOW", "BIND_NOW"} & file.flags, "does not bind at once (-z now)"),
        (len(stack) == 1 and "E" not in stack[0], "has an executable stack (-z noexecstack)"),
        (not any("W" in flags and "E" in flags for _, flags in file.segments),
         "has memory that is both writable and executable"),
        (not file.has_text_relocations, "relocates its code"),
        ("__stack_chk_fail" in file.imports or file.name in WITHOUT_STACK_BUFFERS,
         "checks no stack frame (-fstack-protector-strong)"),
        (any(re.fullmatch(r"__\w+_chk", name) for name in file.imports)
         or file.name in WITHOUT_CHECKED_CALLS,
         "checks no buffer (-D_FORTIFY_SOURCE)"),
        (not file.unresolved, f"lacks {file.unresolved} (-z defs)"),
    ]
    return [text for passed, text in checks if not passed]


def object_failures(readelf, path):
    """Of one object file: the linker keeps these marks only when every file has them, and the
    start-up code of Debian 12's C library has not."""
    properties = run(readelf, "-n", "-W", path)
    return [f"has no {what} (-fcf-protection)"
            for mark, what in (("IBT", "indirect branch tracking"), ("SHSTK", "shadow stack"))
            if not re.search(rf"x86 feature:.*\b{mark}\b", properties)]


def is_fortified(command):
    """Of several settings the last one holds."""
    settings = re.findall(r"-(?:D_FORTIFY_SOURCE=(\d)|U_FORTIFY_SOURCE)\b", command)
    return bool(settings) and settings[-1] in ("2", "3")


def command_failures(commands, objects):
    """Objects whose command of compilation does not ask for checked calls."""
    with open(commands, encoding="utf-8") as file:
        entries = json.load(file)
    fortified = {}
    for entry in entries:
        output = re.search(r" -o (\S+)", entry["command"])[1]
        fortified[os.path.join(entry["directory"], output)] = is_fortified(entry["command"])
    return [f"{os.path.basename(path)} is compiled without -D_FORTIFY_SOURCE" for path in objects
            if not fortified.get(os.path.normpath(path))]


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--readelf", default="readelf")
    parser.add_argument("--commands", required=True, help="compile_commands.json")
    parser.add_argument("--objects", nargs="+", required=True)
    parser.add_argument("--files", nargs="+", required=True)
    arguments = parser.parse_args()

    failures = command_failures(arguments.commands, arguments.objects)
    print("".join(f"{failure}\n" for failure in failures), end="")
    count = len(failures)
    for path in arguments.files + arguments.objects:
        failures = (object_failures(arguments.readelf, path) if path in arguments.objects
                    else failures_of(File(arguments.readelf, path)))
        for failure in failures:
            print(f"{os.path.basename(path)} {failure}")
        count += len(failures)
    print(f"{len(arguments.files)} files, {len(arguments.objects)} objects, {count} failures")
    return 1 if count else 0


if __name__ == "__main__":
    sys.exit(main())
