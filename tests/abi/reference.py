#!/usr/bin/env python3
"""Compares the interface of the built libraries with the one that abi/ holds, or records it there.

The libraries are built again with debug information, which describes the layout of each class.
"""

import argparse
import os
import pathlib
import subprocess
import sys
import xml.etree.ElementTree

LIBRARIES = ["qvSystem", "qvOpenSSL", "Ostrand", "Quenby", "Wendrel"]

# Without sources, builder and paths: only the interface of an application.
WRITE = ["--no-corpus-path", "--no-comp-dir-path", "--no-show-locs", "--no-parameter-names",
         "--no-elf-needed", "--no-write-default-sizes", "--drop-private-types",
         "--drop-undefined-syms", "--exported-interfaces-only"]

# Bits of abidiff's exit code.
FAILED, WRONGLY_CALLED, DIFFERENT = 1, 2, 4

SAME, ADDITION, BREAK = "same", "addition", "break"

WORDS = {
    ADDITION: "an ADDITION: what was built against the reference still runs with this library.",
    BREAK: "a BREAK: what was built against the reference may crash with this library.",
}
ADVICE = """
If this was not meant, take it back. If it was, record it and commit abi/ with it:
    scripts/abi.sh --record
docs/compatibility.md says what is promised.
"""
ADVICE_FOR_A_BREAK = """\
A break needs a new SONAME as well, so that nobody runs an old application with it.
"""


def run(*command):
    """The output of a command; prints it and exits when the command fails."""
    done = subprocess.run([str(word) for word in command], check=False, text=True,
                          stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
    if done.returncode != 0:
        print(done.stdout)
        sys.exit(f"this ended with {done.returncode}: {' '.join(map(str, command))}")
    return done.stdout


def build(arguments):
    """The libraries with debugging information; says where they are."""
    options = {"CMAKE_BUILD_TYPE": "RelWithDebInfo", "CMAKE_CXX_FLAGS_RELWITHDEBINFO": "-g -O0",
               "CMAKE_CXX_COMPILER": arguments.compiler,
               "CMAKE_CXX_COMPILER_LAUNCHER": arguments.launcher,
               "BUILD_SHARED_LIBS": "ON", "WENDREL_HARDENING": "OFF",
               "WENDREL_BUILD_TESTS": "OFF", "WENDREL_BUILD_EXAMPLES": "OFF",
               "WENDREL_INSTALL": "OFF",
               "WENDREL_REVISION": "0", "WENDREL_COMMIT_ID": "0",
               "WENDREL_BUILD_YEAR": "2000", "WENDREL_BUILD_MONTH": "1"}
    run(arguments.cmake, "-S", arguments.source, "-B", arguments.build, "-G", arguments.generator,
        *(f"-D{name}={value}" for name, value in options.items() if value))
    run(arguments.cmake, "--build", arguments.build, "--parallel", str(os.cpu_count()),
        "--target", "Wendrel")
    found = {name: arguments.build / ("src" if name == "Wendrel" else "platform") / f"lib{name}.so"
             for name in LIBRARIES}
    return {name: path.resolve(strict=True) for name, path in found.items()}


def header_folders(source):
    return [folder for folder in (source / "include", *sorted(source.glob("platform/*/include")))
            if folder.is_dir()]


def describe(arguments, library, out):
    """Writes the interface of a library; types that no public header declares are left out."""
    folders = [word for folder in header_folders(arguments.source)
               for word in ("--headers-dir", folder)]
    run(arguments.abidw, *WRITE, *folders, "--out-file", out, library)
    text = out.read_text(encoding="utf-8")
    if "<class-decl" not in text and "<function-decl" not in text:
        sys.exit(f"{library} says nothing about its types: was it built without -g?")
    for private in (f"{arguments.source}/include/", f"{arguments.source}/src/", f"{arguments.build}"):
        if private in text or private.encode() in library.read_bytes():
            sys.exit(f"{library} or its description names a path of this machine: {private}")
    return text


def difference(arguments, reference, found, *options):
    """Whether two descriptions differ, and how, in abidiff's words."""
    done = subprocess.run([arguments.abidiff, "--harmless", "--show-bytes",
                           "--leaf-changes-only", *options,
                           reference, found], check=False, text=True,
                          stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
    if done.returncode & (FAILED | WRONGLY_CALLED):
        print(done.stdout)
        sys.exit(f"{arguments.abidiff} ended with {done.returncode}")
    return bool(done.returncode & DIFFERENT), done.stdout.strip()


def classes_of(path):
    """Layout of each class: element to place."""
    classes = {}

    def visit(element, scope):
        for child in element:
            inner = [*scope, child.get("name")]
            if child.tag == "class-decl" and child.get("size-in-bits"):
                places = classes.setdefault("::".join(inner), {})
                places["its size in bytes"] = int(child.get("size-in-bits")) // 8
                for data in child.iterfind("data-member[@layout-offset-in-bits]"):
                    name = data.find("var-decl").get("name")
                    places[f"the offset of member {name} in bytes"] = int(data.get("layout-offset-in-bits")) // 8
                for operation in child.iterfind("member-function[@vtable-offset]"):
                    name = operation.find("function-decl").get("name")
                    if not name.startswith("~"):
                        places[f"the place of {name} among the virtual operations"] = int(operation.get("vtable-offset"))
            if child.tag in ("class-decl", "namespace-decl", "abi-instr", "member-type"):
                visit(child, inner if child.tag.endswith("decl") else scope)

    visit(xml.etree.ElementTree.parse(path).getroot(), [])
    return classes


def layout_changes(reference, found):
    """Moved members of our classes, one line each; the output of abidiff lists them among many others."""
    before, after = classes_of(reference), classes_of(found)
    for name in sorted(before.keys() & after.keys()):
        if not name.startswith("qv::"):
            continue
        for thing in sorted(before[name].keys() | after[name].keys()):
            old, new = before[name].get(thing), after[name].get(thing)
            if old is None:
                yield f"{name}: {thing} is new: {new}"
            elif new is None:
                yield f"{name}: {thing} was removed: {old}"
            elif old != new:
                yield f"{name}: {thing} is {new} and was {old}"


def compare(arguments, reference, found):
    differs, words = difference(arguments, reference, found)
    if not differs:
        return SAME, ""
    breaks, _ = difference(arguments, reference, found, "--no-added-syms")
    lines = [*layout_changes(reference, found), "", "abidiff says:", words]
    return (BREAK if breaks else ADDITION), "\n".join(lines).lstrip()


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("action", choices=["check", "record"])
    parser.add_argument("--source", type=pathlib.Path, required=True)
    parser.add_argument("--build", type=pathlib.Path, required=True)
    parser.add_argument("--references", type=pathlib.Path, help="default: abi/ of the sources")
    parser.add_argument("--cmake", default="cmake")
    parser.add_argument("--generator", default="Ninja")
    parser.add_argument("--compiler", default="")
    parser.add_argument("--launcher", default="")
    parser.add_argument("--abidw", default="abidw")
    parser.add_argument("--abidiff", default="abidiff")
    arguments = parser.parse_args()
    arguments.source = arguments.source.resolve()
    arguments.build = arguments.build.resolve()
    references = arguments.references or arguments.source / "abi"

    worst = SAME
    for name, library in build(arguments).items():
        reference = references / f"lib{name}.abi"
        if arguments.action == "record":
            describe(arguments, library, reference)
            print(f"recorded {reference.name}")
            continue
        found = arguments.build / f"lib{name}.abi"
        text = describe(arguments, library, found)
        if not reference.is_file():
            print(f"lib{name}: there is no {reference}")
            worst = BREAK
            continue
        if text == reference.read_text(encoding="utf-8"):
            print(f"lib{name}: as recorded")
            continue
        verdict, words = compare(arguments, reference, found)
        if verdict == SAME:
            print(f"lib{name}: as recorded, but for what no application sees")
            continue
        print(f"\nlib{name} differs from abi/{reference.name}. This is {WORDS[verdict]}\n\n{words}\n")
        worst = BREAK if BREAK in (verdict, worst) else ADDITION
    if worst != SAME:
        print(ADVICE + (ADVICE_FOR_A_BREAK if worst == BREAK else ""))
    return 0 if worst == SAME else 1


if __name__ == "__main__":
    sys.exit(main())
