"""Uses the sources as a part of a larger project, by add_subdirectory and by FetchContent.

Usage: subproject.py WORK_DIR
"""

import pathlib
import sys

import support
from support import expect, run


def options(by_fetch_content):
    return (f"-DWENDREL_SOURCE={support.SOURCE}",
            f"-DCONSUMER_SOURCE={support.FOLDER / 'consumer'}",
            f"-DBY_FETCH_CONTENT={'ON' if by_fetch_content else 'OFF'}")


def check(work):
    support.empty(work)
    # The outer project checks for leaked settings itself.
    run("cmake", "-S", support.FOLDER / "subproject", "-B", work / "fetched", "-G", "Ninja",
        *options(True))

    folder = work / "added"
    support.build(support.FOLDER / "subproject", folder, *options(False), target="consumer")
    support.check_greeting(folder / "consumer" / "consumer")
    expect("libWendrel.so.3.0" in support.needed_by(folder / "consumer" / "consumer"),
           "the library is not a shared one")
    tests = run("ctest", "--test-dir", folder, "--show-only")
    expect("Total Tests: 0" in tests, f"the library's tests are the larger project's: {tests}")
    run("cmake", "--install", folder, "--prefix", work / "prefix")
    installed = list((work / "prefix").rglob("*"))
    expect(not installed, f"the larger project installs {installed}")


if __name__ == "__main__":
    sys.exit(support.main_of(check, *(pathlib.Path(word) for word in sys.argv[1:])))
