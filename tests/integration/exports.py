#!/usr/bin/env python3
"""Checks that the built library exports its interface and nothing else."""

import argparse
import re
import subprocess
import sys

SONAME = "libWendrel.so.3.0"

CLASSES = [
    "qv::HttpBaseRequest",
    "qv::HttpReceiveDevice",
    "qv::HttpResponseDevice",
    "qv::HttpResponseInterface",
    "qv::HttpWaitListener",
    "qv::http::HttpServer",
    "qv::http::HttpServerImpl",
    "qv::http::WebSocket",
    "qv::http::WebSocketThread",
    "qv::http::WebSocketWorkerThread",
    "Wendrel::Version",
]
FUNCTIONS = ["qv::initializeWendrel()", "qv::terminateWendrel()", "qv::IsWendrelInitialized()"]
OF_A_CLASS = re.compile(r"(?:(?:typeinfo|typeinfo name|vtable) for |non-virtual thunk to )?(?:%s)(?=::|$)"
                        % "|".join(sorted(map(re.escape, CLASSES), key=len, reverse=True)))

# A few that an application cannot do without: an empty table must not pass.
WANTED = FUNCTIONS + [
    "qv::http::HttpServer::startServer(qv::http::HttpServer::Parameters const&)",
    "qv::http::HttpServer::stopServer(bool)",
    "qv::HttpBaseRequest::workerThreadStartHandling("
    "std::__cxx11::basic_string<char, std::char_traits<char>, std::allocator<char> > const&)",
    "qv::HttpBaseRequest::sRequestTypes[abi:cxx11]",
    "qv::HttpReceiveDevice::readBytes(char*, unsigned long)",
    "qv::HttpResponseDevice::writeBytes(char const*, unsigned long)",
    "qv::HttpResponseDevice::setResponseReady()",
    "typeinfo for qv::HttpResponseInterface",
    "typeinfo for qv::HttpWaitListener",
    "vtable for qv::http::HttpServerImpl",
    "qv::http::WebSocket::writeMessage(void const*, unsigned long, bool)",
    "qv::http::WebSocketThread::stopThreads(bool)",
    "vtable for qv::http::WebSocketWorkerThread",
    "Wendrel::Version::GetMajor()",
]


def run(*command):
    return subprocess.run(command, check=True, capture_output=True, text=True).stdout


def is_interface(symbol):
    return symbol in FUNCTIONS or OF_A_CLASS.match(symbol) is not None


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--nm", default="nm")
    parser.add_argument("--readelf", default="readelf")
    parser.add_argument("library")
    arguments = parser.parse_args()

    sonames = re.findall(r"\(SONAME\).*\[(.*)\]",
                         run(arguments.readelf, "-d", "-W", arguments.library))
    lines = run(arguments.nm, "-D", "--defined-only", "-C", arguments.library).splitlines()
    symbols = {line.split(maxsplit=2)[2] for line in lines}

    failures = []
    if sonames != [SONAME]:
        failures.append(f"SONAME is {sonames}, wanted {SONAME}")
    failures += [f"exported, but no part of the interface: {symbol}"
                 for symbol in sorted(symbols) if not is_interface(symbol)]
    failures += [f"not exported: {symbol}" for symbol in WANTED if symbol not in symbols]

    for failure in failures:
        print(failure)
    print(f"{len(symbols)} symbols, {len(failures)} failures")
    return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main())
