"""Checks that docs/troubleshooting.md lists every error text of our code.

    errors.py ROOT            compares
    errors.py ROOT --broken   tests that a missing text is detected
"""

import pathlib
import re
import sys

PAGE = "docs/troubleshooting.md"
FOLDERS = ("src", "kit/src", "kit/websocket", "platform")
STRING = r'"((?:[^"\\]|\\.)*)"'

# Statements that produce error texts, each up to its end.
STATEMENTS = (
    re.compile(r"qvLogObject\(qvLogObject::k(?:Warning|Error)[^;]*;"),
    re.compile(r"\bLog(?:Error|OfRoute)\([^;]*;"),
    re.compile(r"\bset(?:Device|Parse)Error\([^;]*;"),
    re.compile(r"\brefusal\([^;{]*[;)]"),
    re.compile(r"\bRefusal\{[^;]*;"),
    re.compile(r"\breplyError\([^;]*;"),
    re.compile(r"\b(?:failWith|abandon)\([^;]*;"),
    re.compile(r"\bfprintf\(stderr,[^;]*;"),
    re.compile(r"\bthrow (?:std::)?\w+\([^;]*;"),
)
# Texts that other functions put together: reasons of aborted and refused requests and of refused endpoints.
PARTS = (
    re.compile(r"inline constexpr const char\* k\w+ = [^;]*;"),
    re.compile(r"\b(?:cannotListen|invalid)\((?!const)[^;]*;"),
    re.compile(r"return \"(?:no|the|an) [^;]*;"),
    re.compile(r"\bfailure = \"[^;]*;"),
    re.compile(r"\brefuse\((?!const)[^;]*;"),
    re.compile(r"\bconstexpr const char\* kNotContiguous = [^;]*;"),
    re.compile(r"return \"(?:cannot test|ServerOptions::strictRequests)[^;]*;"),
    re.compile(r"mFailureReason = [^;]*\"[^;]*;"),
    re.compile(r"\bfail\((?!const)[^;]*;"),
    re.compile(r"return \"ServerOptions::[^;]*;"),
    re.compile(r"return (?:Place\{|place\.|name \+|path \+|fieldOf\()[^;]*;"),
    re.compile(r"return '\"' \+[^;]*;"),
    re.compile(r"\bwhy = (?:std::string\()?\"[^;]*;"),
    re.compile(r"return \"cannot [^;]*;"),
)
PARTS_FILES = ("src/streaming/AbortReason.h", "src/listener/Endpoint.cpp",
               "src/listener/TlsCertificates.cpp", "src/listener/TlsContext.cpp",
               "src/listener/TlsEngine.cpp", "src/server/SecureEndpoints.cpp",
               "src/request/AddressSet.cpp", "src/request/AllowedHosts.cpp",
               "src/server/EventServer.cpp", "src/server/HttpServer.cpp",
               "src/request/StrictRequest.cpp", "src/server/StrictPositions.cpp",
               "kit/src/Cookie.cpp", "kit/src/ResponseHead.cpp", "kit/src/RouteTable.cpp", "kit/src/ServerCore.cpp")

# Texts in these statements that are not errors.
NO_COMPLAINTS = {", with flags 0x", "an unknown date", "' + endpoint +"}


def texts_of(path, source):
    source = re.sub(r"^\s*//.*$", "", source, flags=re.M)
    found = [match.group(0) for pattern in STATEMENTS for match in pattern.finditer(source)]
    if path in PARTS_FILES:
        found += [match.group(0) for pattern in PARTS for match in pattern.finditer(source)]
    for statement in found:
        joined = re.sub(r'"\s*\n\s*"', "", statement)
        for text in re.findall(STRING, joined):
            # The parts between placeholders.
            for part in re.split(r"%s|\\n", text.replace('\\"', '"')):
                part = part.strip()
                if len(part) > 3 and any(c.isalpha() for c in part) and part not in NO_COMPLAINTS:
                    yield part


def sources(root):
    for folder in FOLDERS:
        for path in sorted((root / folder).rglob("*.cpp")):
            yield str(path.relative_to(root)), path.read_text()
    header = "src/streaming/AbortReason.h"
    yield header, (root / header).read_text()


def missing(page, files):
    count = 0
    for path, source in files:
        for text in texts_of(path, source):
            count += 1
            if text not in page:
                yield f"{path} has '{text}', which is missing in {PAGE}"
    if count < 45:
        yield f"only {count} texts found: do the patterns still match?"


def try_broken(page, files):
    texts = {text for path, source in files for text in texts_of(path, source)}
    for text in sorted(texts):
        if not list(missing(page.replace(text, "..."), files)):
            yield f"not detected: '{text}' is missing"


def main():
    root = pathlib.Path(sys.argv[1])
    page = (root / PAGE).read_text()
    files = list(sources(root))
    wrong = list(missing(page, files))
    if sys.argv[2:] == ["--broken"]:
        wrong += try_broken(page, files)
    if sys.argv[2:] == ["--list"]:
        print("\n".join(f"{path}: {text}" for path, source in files for text in texts_of(path, source)))
    print("\n".join(wrong) or "all texts are listed")
    return 1 if wrong else 0


if __name__ == "__main__":
    sys.exit(main())
