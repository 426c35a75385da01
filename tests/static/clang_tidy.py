#!/usr/bin/env python3
"""Lets clang-tidy look at the sources of some folders, and checks that it finds a planted mistake."""

import argparse
import concurrent.futures
import json
import os
import subprocess
import sys
import tempfile

import tree
from thread_safety import flags_of

MISTAKEN = """
#include <string>
#include <utility>
size_t twice(std::string text)
{
    const std::string taken = std::move(text);
    return taken.size() + text.size();
}
"""


def look(entry):
    """The findings of clang-tidy in a source."""
    done = subprocess.run(
        ["clang-tidy", "--quiet", f"--config-file={tree.ROOT / '.clang-tidy'}", entry["file"],
         "--", *flags_of(entry)],
        cwd=entry["directory"], check=False, capture_output=True, text=True)
    # The other stream has only the number of suppressed warnings.
    return "" if done.returncode == 0 else done.stdout or done.stderr


def finds_a_mistake():
    with tempfile.TemporaryDirectory() as folder:
        path = os.path.join(folder, "mistaken.cpp")
        with open(path, "w", encoding="utf-8") as file:
            file.write(MISTAKEN)
        entry = {"file": path, "directory": folder, "command": "c++ -std=c++20"}
        return "bugprone-use-after-move" in look(entry)


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("commands", help="compile_commands.json of a build")
    parser.add_argument("folders", nargs="+", help="whose sources are looked at")
    arguments = parser.parse_args()
    tree.need("clang-tidy")

    if not finds_a_mistake():
        print("clang-tidy does not find a planted mistake")
        return 1
    with open(arguments.commands, encoding="utf-8") as file:
        entries = {entry["file"]: entry for entry in json.load(file)}
    folders = tuple(str(tree.ROOT / folder) + os.sep for folder in arguments.folders)
    wanted = [entry for path, entry in sorted(entries.items()) if path.startswith(folders)]
    missing = [folder for folder in folders
               if not any(entry["file"].startswith(folder) for entry in wanted)]
    if missing:
        print("no compiled source in", *missing)
        return 1

    with concurrent.futures.ThreadPoolExecutor(os.cpu_count()) as pool:
        complaints = [text for text in pool.map(look, wanted) if text]
    for text in complaints:
        print(text)
    print(f"{len(wanted)} sources, {len(complaints)} with complaints")
    return 1 if complaints else 0


if __name__ == "__main__":
    sys.exit(main())
