#!/usr/bin/env python3
"""Checks that each built library exports its interface only, exactly as recorded.

The record is abi/<library>.symbols: a line for each symbol, with the version that brought it and,
for data (tables of virtual operations, type information, variables), its size in bytes.
"""

import argparse
import pathlib
import re
import subprocess
import sys

ROOT = pathlib.Path(__file__).resolve().parent.parent.parent

# Symbols that a library may export: members, tables and type information of classes, and functions.
CLASSES = {
    "libWendrel": [
        "qv::BodyResumer",
        "qv::BodySource",
        "qv::HttpBaseRequest",
        "qv::HttpReceiveDevice",
        "qv::HttpResponseDevice",
        "qv::HttpResponseInterface",
        "qv::HttpWaitListener",
        "qv::MemoryAccount",
        "qv::UpgradedConnection",
        "qv::http::HttpServer",
        "qv::http::HttpServerImpl",
        "qv::http::WebSocket",
        "qv::http::WebSocketThread",
        "qv::http::WebSocketWorkerThread",
        "Wendrel::Version",
    ],
    "libqvSystem": [
        "qv::IpAddress",
        "qv::SystemError",
        "qv::impl::LibInitCounter",
        "qv::qvIoDevice",
        "qv::qvLog",
        "qv::qvLogSink",
        "qv::qvMutex",
        "qv::qvMutexLocker",
        "qv::qvStringUtils",
        "qv::qvSystemUtils",
        "qv::qvThread",
        "qv::qvWaitCondition",
    ],
    "libOstrand": ["qv::Url", "qv::http::HttpHeaders", "qv::http::HttpUrl"],
    "libqvOpenSSL": ["qv::HashHelper"],
    "libQuenby": [],
}
FUNCTIONS = {
    "libWendrel": ["qv::initializeWendrel", "qv::terminateWendrel", "qv::IsWendrelInitialized"],
    "libqvSystem": [
        "qv::GetThirdPartyLibVersionInfos[abi:cxx11]",
        "qv::MakeRotatingFileSink",
        "qv::MakeStandardErrorSink",
        "qv::MakeSystemLogSink",
        "qv::impl::RegisterThirdPartyLibVersionInfo",
        "qv::impl::UnRegisterThirdPartyLibVersionInfo",
        "qv::operator<",
    ],
    "libOstrand": ["qv::initializeOstrand", "qv::terminateOstrand", "qv::IsOstrandInitialized"],
    "libqvOpenSSL": ["qv::base64Encode"],
    "libQuenby": [
        "qv::json::initializeQvQuenby",
        "qv::json::terminateQvQuenby",
        "qv::json::IsQvQuenbyInitialized",
    ],
}

HEAD = """\
# Exported symbols of {name}: the version that brought each, and the size of data in bytes.
# Written by scripts/abi.sh --record; docs/compatibility.md says when.
"""


def run(*command):
    return subprocess.run(command, check=True, capture_output=True, text=True).stdout


def any_of(names):
    return "|".join(sorted(map(re.escape, names), key=len, reverse=True)) or "(?!)"


def is_interface(library, symbol):
    """Whether a demangled symbol is declared in the headers."""
    prefix = r"(?:typeinfo for |typeinfo name for |vtable for |non-virtual thunk to )?"
    return re.match(rf"{prefix}(?:{any_of(CLASSES[library])})(?=::|$)|"
                    rf"(?:{any_of(FUNCTIONS[library])})\(", symbol) is not None


def exported(nm, library):
    """Symbol to size; the size of code is nobody's business and is 0."""
    sizes = {}
    for line in run(nm, "-D", "-S", "--defined-only", library).splitlines():
        _, size, kind, symbol = line.split()
        sizes[symbol] = 0 if kind in "TW" else int(size, 16)
    return sizes


def readable(symbols):
    """Mangled to readable."""
    names = run("c++filt", *symbols).splitlines() if symbols else []
    return dict(zip(symbols, names, strict=True))


def read_record(path):
    """Symbol to (version, size)."""
    lines = path.read_text(encoding="ascii").splitlines() if path.is_file() else []
    fields = [line.split() for line in lines if not line.startswith("#")]
    return {symbol: (version, int(size[0]) if size else 0) for symbol, version, *size in fields}


def write_record(path, name, sizes):
    version = re.search(r"^    VERSION ([\d.]+)$", (ROOT / "CMakeLists.txt").read_text("utf-8"), re.M)[1]
    since = {symbol: old for symbol, (old, _) in read_record(path).items()}
    lines = [f"{symbol} {since.get(symbol, version)}{f' {size}' if size else ''}\n"
             for symbol, size in sorted(sizes.items())]
    path.write_text(HEAD.format(name=name) + "".join(lines), encoding="ascii")


def complaints(name, sizes, names, record, soname):
    """The differences of a library, one line each, and whether all of them are additions."""
    if soname != [f"{name}.so.3.0"]:
        yield f"BREAK: the SONAME is {soname}, wanted {name}.so.3.0"
    for symbol, text in names.items():
        if not is_interface(name, text):
            yield f"exported, but no part of the interface: {text}"
        elif symbol not in record:
            yield f"ADDITION: {text}"
    removed = readable([symbol for symbol in record if symbol not in sizes])
    yield from (f"BREAK: not exported any more: {text}" for text in removed.values())
    for symbol, (_, size) in record.items():
        if sizes.get(symbol, size) != size:
            yield f"BREAK: {names[symbol]} has {sizes[symbol]} bytes, recorded are {size}"


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--nm", default="nm")
    parser.add_argument("--readelf", default="readelf")
    parser.add_argument("--records", type=pathlib.Path, default=ROOT / "abi")
    parser.add_argument("action", choices=["check", "record"])
    parser.add_argument("libraries", nargs="+")
    arguments = parser.parse_args()

    failed = False
    for library in arguments.libraries:
        name = pathlib.Path(library).name.partition(".")[0]
        path = arguments.records / f"{name}.symbols"
        sizes = exported(arguments.nm, library)
        names = readable(list(sizes))
        soname = re.findall(r"\(SONAME\).*\[(.*)\]", run(arguments.readelf, "-d", "-W", library))
        if arguments.action == "record":
            write_record(path, name, sizes)
        record = read_record(path)
        found = sorted(complaints(name, sizes, names, record, soname))
        for complaint in found:
            print(f"{name}: {complaint}")
        if not record:
            print(f"{name}: nothing is recorded in {path}")
        print(f"{name}: {len(sizes)} symbols, {len(found)} complaints")
        failed = failed or bool(found) or not record
    if failed:
        print("If this was meant: scripts/abi.sh --record. docs/compatibility.md says what is promised.")
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main())
