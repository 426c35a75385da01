#!/usr/bin/env python3
"""Builds the tree once more, from a copy elsewhere, and checks that the same libraries come out."""

import argparse
import os
import pathlib
import shutil
import subprocess
import sys

import tree

# Directories that do not affect the libraries.
NOT_BUILT = ("tests/", "docs/")

NEARBY_BYTES = 64
PLACES_SHOWN = 4


# The second build has another date, so that the time of the build makes a difference.
DAY_ONE = {**os.environ, "SOURCE_DATE_EPOCH": "1"}


def run(*command):
    done = subprocess.run([str(word) for word in command], check=False, text=True, env=DAY_ONE,
                          stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
    if done.returncode != 0:
        print(done.stdout)
        sys.exit(f"this ended with {done.returncode}: {' '.join(map(str, command))}")


def copy_tree(target):
    """The sources as they are now; a file that has not changed is left, so that little is built."""
    wanted = {name for name in tree.files() if not name.startswith(NOT_BUILT)}
    for name in wanted:
        source, copy = tree.ROOT / name, target / name
        if not copy.is_file() or copy.read_bytes() != source.read_bytes():
            copy.parent.mkdir(parents=True, exist_ok=True)
            shutil.copyfile(source, copy)
            shutil.copymode(source, copy)
    for folder, _, names in os.walk(target):
        for name in names:
            path = pathlib.Path(folder, name)
            if str(path.relative_to(target)) not in wanted:
                path.unlink()


def differences(one, other):
    """In words, or nothing; the first few places, for the first is often the build's checksum."""
    if one == other:
        return ""
    if len(one) != len(other):
        return f"{len(one)} and {len(other)} bytes"
    places = []
    for at, (a, b) in enumerate(zip(one, other)):
        if a != b and (not places or at > places[-1] + NEARBY_BYTES):
            places.append(at)
    return "".join(f"\n  at byte {at}: {one[at:at + NEARBY_BYTES]!r} and {other[at:at + NEARBY_BYTES]!r}"
                   for at in places[:PLACES_SHOWN])


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--cmake", default="cmake")
    parser.add_argument("--generator", default="Ninja")
    parser.add_argument("--work", type=pathlib.Path, required=True, help="where to copy and build")
    parser.add_argument("--first", type=pathlib.Path, required=True, help="folder of the first build")
    parser.add_argument("--option", action="append", default=[], dest="options",
                        help="one of those with which the first build was configured")
    parser.add_argument("libraries", nargs="+", type=pathlib.Path, help="of the first build")
    arguments = parser.parse_args()

    # Neither the path's length nor where the build lies under the sources is that of the first.
    copy = arguments.work / "again" / "-".join(["of", "another", "length"] * 3)
    build = arguments.work / "again" / "build"
    copy_tree(copy)
    run(arguments.cmake, "-S", copy, "-B", build, "-G", arguments.generator, *arguments.options,
        "-DWENDREL_BUILD_TESTS=OFF", "-DWENDREL_BUILD_EXAMPLES=OFF")
    run(arguments.cmake, "--build", build, "--parallel", os.cpu_count(),
        "--target", "Wendrel", "WendrelKit")

    differ = 0
    for library in arguments.libraries:
        name = library.resolve().relative_to(arguments.first.resolve())
        one, other = library.read_bytes(), (build / name).read_bytes()
        difference = differences(one, other)
        if difference:
            differ += 1
        print(f"{name}: {difference or f'the same {len(one)} bytes'}")
    print(f"{len(arguments.libraries)} libraries, {differ} of them not reproducible")
    return 1 if differ else 0


if __name__ == "__main__":
    sys.exit(main())
