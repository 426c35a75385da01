"""Builds the Debian packages, unpacks them beside this system's real ones, and uses them.

Usage: debian.py WORK_DIR
"""

import pathlib
import re
import sys

import support
from prefix import check_pages
from support import expect, run

PACKAGES = ("libwendrel3.0", "libwendrel-dev", "wendrel-doc", "wendrel-examples")


def field(package, name):
    return run("dpkg-deb", "--field", package, name).strip()


def names_of(relations):
    return set(re.findall(r"(?:^|, )([a-z0-9.+-]+)", relations))


def check_control(packages):
    version = field(packages["libwendrel3.0"], "Version")
    expect(version == "3.0.0-1", f"the version is {version}")
    runtime = names_of(field(packages["libwendrel3.0"], "Depends"))
    wanted = {"libmicrohttpd12", "libspdlog1.10-fmt9", "libssl3", "libc6", "libstdc++6",
              "libgcc-s1"}
    expect(runtime == wanted, f"libwendrel3.0 depends on {sorted(runtime)}")
    development = field(packages["libwendrel-dev"], "Depends")
    expect(development == f"libwendrel3.0 (= {version}), libssl-dev, zlib1g-dev, libzstd-dev, pkg-config",
           f"libwendrel-dev depends on {development}")
    examples = names_of(field(packages["wendrel-examples"], "Depends"))
    expect("libwendrel3.0" in examples, f"wendrel-examples depends on {sorted(examples)}")
    expect(field(packages["wendrel-doc"], "Architecture") == "all", "wendrel-doc is not for all")


def check_symbols(package, work):
    run("dpkg-deb", "--control", package, work)
    symbols = (work / "symbols").read_text()
    for soname in ("libWendrel.so.3.0", "libqvSystem.so.3.0", "libOstrand.so.3.0"):
        expect(f"{soname} libwendrel3.0 #MINVER#" in symbols, f"{soname} is not in symbols")
    expect("3.0.0-1" not in symbols, "a symbol asks for this very build")
    expect("ldconfig" in (work / "triggers").read_text(), "ldconfig is not triggered")


def check_manual_pages(root):
    for program in sorted((root / "usr" / "bin").iterdir()):
        page = root / "usr" / "share" / "man" / "man1" / f"{program.name}.1.gz"
        expect(page.is_file(), f"{program.name} has no manual page")
        text = run("man", "--local-file", page)
        expect(f"{program.name} —" in text or f"{program.name} -" in text,
               f"man shows no page of {program.name}: {text[:200]}")


def check_use(root, work):
    prefix = root / "usr"
    libraries = support.libraries_of(prefix)
    support.build(support.FOLDER / "consumer", work / "cmake", f"-DCMAKE_PREFIX_PATH={prefix}",
                  "-DWANTED_COMPONENTS=Kit")
    support.check_greeting(work / "cmake" / "consumer", libraries)
    program = work / "by-pkg-config"
    # The libraries are outside the directories that the linker searches.
    flags = [*support.flags_of(prefix, "wendrel-kit"), f"-Wl,-rpath-link,{libraries}"]
    support.compile_with(flags, prefix / "share/doc/wendrel-doc/examples/hello/main.cpp", program)
    support.check_greeting(program, libraries)
    # The examples are complete: their own CMakeLists.txt and the installed library are enough.
    support.build(prefix / "share/doc/wendrel-doc/examples/filedrop", work / "filedrop",
                  f"-DCMAKE_PREFIX_PATH={prefix}")
    help_text = run(prefix / "bin" / "wendrel-filedrop", "--help",
                    environment={"LD_LIBRARY_PATH": str(libraries)})
    expect("--port" in help_text, f"wendrel-filedrop --help says {help_text}")


def check(work):
    support.empty(work)
    run(support.SOURCE / "scripts" / "package.sh", "--output", work / "dist", "--build",
        work / "build", "--no-docs", "--no-install")
    packages = {}
    for name in PACKAGES:
        found = list((work / "dist").glob(f"{name}_*.deb"))
        expect(len(found) == 1, f"{len(found)} packages {name}")
        packages[name] = found[0]
    check_control(packages)
    check_symbols(packages["libwendrel3.0"], support.empty(work / "control"))
    root = support.empty(work / "root")
    for package in packages.values():
        run("dpkg-deb", "--extract", package, root)
    check_manual_pages(root)
    check_pages(root / "usr")
    check_use(root, work)


if __name__ == "__main__":
    sys.exit(support.main_of(check, *(pathlib.Path(word) for word in sys.argv[1:])))
