#!/usr/bin/env python3
"""Lets clang check the locks of fields against their annotations, and that it notices a missing one."""

import argparse
import concurrent.futures
import json
import os
import shlex
import subprocess
import sys
import tempfile

CHECK = ["-fsyntax-only", "-Wno-everything", "-Wthread-safety", "-Werror=thread-safety"]

WITHOUT_ITS_LOCK = """
#include <qvSystem/ThreadSafety.h>
#include <qvSystem/qvMutex.h>
struct Counter
{
    qv::qvMutex mutex;
    int count QV_GUARDED_BY(mutex) = 0;
};
int read(Counter& counter)
{
    return counter.count;
}
"""


def flags_of(entry):
    """The options of a compilation that affect parsing, without optimisation and output."""
    words = shlex.split(entry["command"])
    flags = ["-std=c++17"]  # the default of the compiler that builds; a later one wins
    for index, word in enumerate(words):
        if word in ("-I", "-isystem", "-D", "-include"):
            flags += [word, words[index + 1]]
        elif word.startswith(("-I", "-D", "-isystem", "-std=")) and "FORTIFY" not in word:
            flags.append(word)
    return flags


def check(compiler, flags, source, directory):
    """The findings of clang in a source."""
    done = subprocess.run([compiler, *flags, *CHECK, source], cwd=directory, check=False,
                          capture_output=True, text=True)
    return "" if done.returncode == 0 else done.stderr or f"{compiler} ended with {done.returncode}"


def notices_a_missing_lock(compiler, flags, directory):
    with tempfile.NamedTemporaryFile("w", suffix=".cpp") as source:
        source.write(WITHOUT_ITS_LOCK)
        source.flush()
        return "requires holding mutex 'counter.mutex'" in check(compiler, flags, source.name, directory)


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--compiler", default="clang++")
    parser.add_argument("commands", help="compile_commands.json of a build")
    parser.add_argument("folders", nargs="+", help="whose sources are checked")
    arguments = parser.parse_args()

    with open(arguments.commands, encoding="utf-8") as file:
        entries = {entry["file"]: entry for entry in json.load(file)}
    folders = tuple(os.path.abspath(folder) + os.sep for folder in arguments.folders)
    wanted = [entry for path, entry in sorted(entries.items()) if path.startswith(folders)]
    missing = [folder for folder in folders
               if not any(entry["file"].startswith(folder) for entry in wanted)]
    if missing:
        print("no compiled source in", *missing)
        return 1
    first = wanted[0]
    if not notices_a_missing_lock(arguments.compiler, flags_of(first), first["directory"]):
        print("the check does not notice a missing lock")
        return 1

    with concurrent.futures.ThreadPoolExecutor(os.cpu_count()) as pool:
        complaints = list(pool.map(
            lambda entry: check(arguments.compiler, flags_of(entry), entry["file"],
                                entry["directory"]), wanted))
    failed = [text for text in complaints if text]
    for text in failed:
        print(text)
    print(f"{len(wanted)} sources, {len(failed)} with complaints")
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main())
