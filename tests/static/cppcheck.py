#!/usr/bin/env python3
"""Runs cppcheck on our sources, and checks that it finds a planted error."""

import os
import pathlib
import subprocess
import sys
import tempfile

import tree

FOLDERS = ("src/", "platform/", "kit/", "examples/", "bench/")

OPTIONS = [
    "--enable=warning,performance,portability",
    "--inline-suppr",
    "--std=c++20",
    "--language=c++",
    "--platform=unix64",
    "--library=posix",
    "--error-exitcode=1",
    "--quiet",
    "--template={file}:{line}: {severity}: {message} [{id}]",
    # Third-party headers are not parsed; cppcheck has descriptions of its own.
    "--suppress=missingInclude",
    "--suppress=missingIncludeSystem",
    # It does not know coroutines; the compiler warns of a missing return as well.
    "--suppress=missingReturn",
    # Not shared between threads where we call it, and readdir_r is not to be used any more.
    "--suppress=readdirCalled",
    # A uint16_t as an argument of printf is an int, and never negative.
    "--suppress=invalidPrintfArgType_uint:examples/hello/main.cpp",
    f"-j{os.cpu_count()}",
]

MISTAKEN = """
int third()
{
    int numbers[2] = {1, 2};
    return numbers[2];
}
"""


def look(*words):
    done = subprocess.run(["cppcheck", *OPTIONS, *words], cwd=tree.ROOT, check=False, text=True,
                          stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
    return done.returncode, done.stdout


def main():
    tree.need("cppcheck")
    with tempfile.TemporaryDirectory() as folder:
        planted = pathlib.Path(folder, "mistaken.cpp")
        planted.write_text(MISTAKEN, encoding="utf-8")
        if "arrayIndexOutOfBounds" not in look(str(planted))[1]:
            print("cppcheck does not find a planted mistake")
            return 1

    sources = [name for name in tree.files()
               if name.endswith(".cpp") and name.startswith(FOLDERS)]
    folders = ["include", "src", "kit/include", "bench", "examples",
               *(f"platform/{name}/include" for name in os.listdir(tree.ROOT / "platform"))]
    code, text = look(*(f"-I{folder}" for folder in folders if (tree.ROOT / folder).is_dir()),
                      *sources)
    print(text, end="")
    print(f"{len(sources)} sources, {'complaints above' if code else 'no complaint'}")
    return 1 if code or not sources else 0


if __name__ == "__main__":
    sys.exit(main())
