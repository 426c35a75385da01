"""Installs a build into a prefix, moves it, and uses it by CMake and by pkg-config.

Usage: prefix.py BUILD_DIR WORK_DIR
"""

import pathlib
import re
import sys

import support
from support import expect, run, run_anyway

sys.path.append(str(support.SOURCE / "tests" / "docs"))
import code_blocks

LINK = re.compile(r"\[([^][]+)\]\([^() ]+\)")
BLOCK = re.compile(r"^```.*?^```", re.M | re.S)

# One file that each component must have, and none of the others may.
MARKS = {
    "runtime": "libWendrel.so.3.0",
    "development": "HttpServer.h",
    "documentation": "behaviour-you-may-not-expect.md",
    "examples": "FileDrop.cpp",
}


def names_under(folder):
    return {path.name for path in folder.rglob("*") if not path.is_dir()}


def check_components(build, work):
    for component, mark in MARKS.items():
        folder = support.empty(work / component)
        run("cmake", "--install", build, "--prefix", folder, "--component", component)
        names = names_under(folder)
        expect(mark in names, f"{mark} is not in the component {component}")
        for other, its_mark in MARKS.items():
            expect(other == component or its_mark not in names,
                   f"{its_mark} of the component {other} is in {component} as well")
    names = names_under(work / "runtime")
    extra = {name for name in names if not name.endswith(".so.3.0")}
    expect(not extra, f"more in the component runtime than libraries: {sorted(extra)}")


def check_refused(work, prefix, complaint, *options):
    done = run_anyway("cmake", "-S", support.FOLDER / "consumer", "-B", work, "-G", "Ninja",
                      f"-DCMAKE_PREFIX_PATH={prefix}", *options)
    expect(done.returncode != 0, f"{options} was not refused")
    expect(complaint in " ".join(done.stdout.split()),
           f"{options} was refused without '{complaint}': {done.stdout}")


def check_cmake(work, prefix):
    for version in ("3.0", "3.0.0"):
        support.build(support.FOLDER / "consumer", work / f"cmake-{version}",
                      f"-DCMAKE_PREFIX_PATH={prefix}", f"-DWANTED_VERSION={version}",
                      "-DWANTED_COMPONENTS=Kit")
    support.check_greeting(work / "cmake-3.0" / "consumer")
    for version in ("2.0", "3.1", "4.0"):
        check_refused(work / f"cmake-{version}", prefix, "compatible with requested version",
                      f"-DWANTED_VERSION={version}")
    check_refused(work / "cmake-component", prefix, "has no component Gadgets; there is Kit",
                  "-DWANTED_COMPONENTS=Gadgets")
    support.build(support.SOURCE / "examples" / "hello", work / "hello",
                  f"-DCMAKE_PREFIX_PATH={prefix}", "-DCMAKE_CXX_STANDARD=17")
    support.check_greeting(work / "hello" / "hello")


def check_pkg_config(work, prefix):
    libraries = support.libraries_of(prefix)
    for package, source in (("wendrel", support.FOLDER / "consumer" / "main.cpp"),
                            ("wendrel-kit", support.SOURCE / "examples" / "hello" / "main.cpp")):
        program = work / f"by-{package}"
        support.compile_with(support.flags_of(prefix, package), source, program)
        support.check_greeting(program, libraries)


def check_pages(prefix):
    """Links of installed pages to files that are not installed are replaced by their text."""
    found = list(prefix.glob("share/doc/*/README.md"))
    expect(len(found) == 1, f"{len(found)} folders of pages")
    folder = found[0].parent
    pages = sorted(folder.rglob("*.md"))
    expect(len(pages) > 20, f"only {len(pages)} pages are installed")
    complaints = [f"{page.relative_to(folder)}:{number}: {text}"
                  for page in pages for number, text in code_blocks.check_links(page)]
    expect(not complaints, "links of installed pages:\n" + "\n".join(complaints))
    links = sum(1 for page in pages for _ in code_blocks.links_of(page))
    expect(links > 200, f"only {links} links are left")
    for page in pages:
        source = (support.SOURCE / page.relative_to(folder)).read_text()
        text = page.read_text()
        expect(BLOCK.findall(text) == BLOCK.findall(source), f"code was changed in {page.name}")
        expect(LINK.sub(r"\1", text) == LINK.sub(r"\1", source),
               f"more than links was changed in {page.name}")


def check(build, work):
    support.empty(work)
    check_components(build, work / "components")
    prefix = work / "prefix"
    run("cmake", "--install", build, "--prefix", prefix)
    # Moved, so that no path of the installation can be built in.
    moved = work / "moved"
    prefix.rename(moved)
    check_pages(moved)
    check_cmake(work, moved)
    check_pkg_config(work, moved)


if __name__ == "__main__":
    sys.exit(support.main_of(check, *(pathlib.Path(word) for word in sys.argv[1:])))
