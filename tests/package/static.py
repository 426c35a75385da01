"""Builds the library as static ones, installs them, and uses them by CMake and by pkg-config.

Usage: static.py WORK_DIR
"""

import pathlib
import sys

import support
from support import expect, run

SHARED_NAMES = ("libWendrel", "libqvSystem", "libqvOpenSSL", "libOstrand", "libQuenby")


def check_alone(program):
    needed = support.needed_by(program)
    for name in SHARED_NAMES:
        expect(name not in needed, f"{program} needs {name}:\n{needed}")
    support.check_greeting(program)


def check(work):
    support.empty(work)
    support.build(support.SOURCE, work / "build", "-DCMAKE_BUILD_TYPE=Release",
                  "-DBUILD_SHARED_LIBS=OFF", "-DWENDREL_BUILD_TESTS=OFF",
                  "-DWENDREL_BUILD_EXAMPLES=OFF")
    prefix = work / "prefix"
    run("cmake", "--install", work / "build", "--prefix", prefix)
    shared = [*prefix.rglob("*.so"), *prefix.rglob("*.so.*")]
    expect(not shared, f"shared libraries were installed: {shared}")

    support.build(support.FOLDER / "consumer", work / "cmake", f"-DCMAKE_PREFIX_PATH={prefix}",
                  "-DWANTED_COMPONENTS=Kit")
    check_alone(work / "cmake" / "consumer")
    early = work / "early"
    support.compile_with(support.flags_of(prefix, "wendrel", "--static"),
                         support.FOLDER / "early_initialisation.cpp", early)
    run(early)
    for package, source in (("wendrel", support.FOLDER / "consumer" / "main.cpp"),
                            ("wendrel-kit", support.SOURCE / "examples" / "hello" / "main.cpp")):
        program = work / f"by-{package}"
        support.compile_with(support.flags_of(prefix, package, "--static"), source, program)
        check_alone(program)


if __name__ == "__main__":
    sys.exit(support.main_of(check, *(pathlib.Path(word) for word in sys.argv[1:])))
