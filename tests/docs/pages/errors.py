"""Checks that every text with which our code complains stands in docs/troubleshooting.md.

    errors.py ROOT            compares
    errors.py ROOT --broken   tries whether a missing text is noticed
"""

import pathlib
import re
import sys

PAGE = "docs/troubleshooting.md"
FOLDERS = ("src", "kit/src", "platform")
STRING = r'"((?:[^"\\]|\\.)*)"'

# What is said, by what it is said with; each up to the end of its statement.
STATEMENTS = (
    re.compile(r"qvLogObject\(qvLogObject::k(?:Warning|Error)[^;]*;"),
    re.compile(r"\bLogError\([^;]*;"),
    re.compile(r"\bset(?:Device|Parse)Error\([^;]*;"),
    re.compile(r"\brefusal\([^;{]*[;)]"),
    re.compile(r"\bRefusal\{[^;]*;"),
    re.compile(r"\breplyError\([^;]*;"),
    re.compile(r"\b(?:failWith|abandon)\([^;]*;"),
    re.compile(r"\bfprintf\(stderr,[^;]*;"),
    re.compile(r"\bthrow std::\w+\([^;]*;"),
)
# A function whose returned texts are part of one.
RETURNED = re.compile(r"lossReason\(MHD_RequestTerminationCode code\)\s*\{(.*?)\n\}", re.S)

# Said with the same words as above, and not by themselves a complaint.
NO_COMPLAINTS = {", with flags 0x"}


def texts_of(source):
    source = re.sub(r"^\s*//.*$", "", source, flags=re.M)
    found = [match.group(0) for pattern in STATEMENTS for match in pattern.finditer(source)]
    found += RETURNED.findall(source)
    for statement in found:
        joined = re.sub(r'"\s*\n\s*"', "", statement)
        for text in re.findall(STRING, joined):
            # The words between what is filled in.
            for part in re.split(r"%s|\\n", text.replace('\\"', '"')):
                part = part.strip()
                if len(part) > 3 and any(c.isalpha() for c in part) and part not in NO_COMPLAINTS:
                    yield part


def sources(root):
    for folder in FOLDERS:
        for path in sorted((root / folder).rglob("*.cpp")):
            yield str(path.relative_to(root)), path.read_text()


def missing(page, files):
    count = 0
    for path, source in files:
        for text in texts_of(source):
            count += 1
            if text not in page:
                yield f"{path} says '{text}', and {PAGE} does not know it"
    if count < 45:
        yield f"only {count} texts found: does the check still look at the right statements?"


def try_broken(page, files):
    texts = {text for _, source in files for text in texts_of(source)}
    for text in sorted(texts):
        if not list(missing(page.replace(text, "..."), files)):
            yield f"not noticed: '{text}' is missing"


def main():
    root = pathlib.Path(sys.argv[1])
    page = (root / PAGE).read_text()
    files = list(sources(root))
    wrong = list(missing(page, files))
    if sys.argv[2:] == ["--broken"]:
        wrong += try_broken(page, files)
    if sys.argv[2:] == ["--list"]:
        print("\n".join(f"{path}: {text}" for path, source in files for text in texts_of(source)))
    print("\n".join(wrong) or "every text stands there")
    return 1 if wrong else 0


if __name__ == "__main__":
    sys.exit(main())
