"""Holds a manual page against --help of its program, and has groff format it without a warning.

    manual.py PROGRAM PAGE
    manual.py --broken PROGRAM PAGE    also changes the page in several ways, each of which has to be
                                       noticed
"""

import os
import pathlib
import re
import shutil
import subprocess
import sys

# As in "--port NUMBER:INT in [1 - 65535]=8181".
HELP_OPTION = re.compile(
    r"^  (?:-(?P<short>\w),)?--(?P<name>[\w-]+)(?: (?P<value>[A-Z]+)(?::\w+ in "
    r"\[(?P<least>\d+) - (?P<most>\d+)\])?(?:=(?P<default>\S+))?)?(?:$|\s{2,})", re.MULTILINE)
PAGE_OPTION = re.compile(r"^\.It Fl (?:(\w) , )?-([\w-]+)(?: Ar ([A-Z]+))?$", re.MULTILINE)
SYNOPSIS_OPTION = re.compile(r"^\.(?:Op )?Fl -([\w-]+)(?: Ar ([A-Z]+))?(?: \| Fl -([\w-]+))?$", re.MULTILINE)
# The default depends on the machine.
MACHINE_DEFAULTS = {"threads"}


def section(page, name):
    match = re.search(rf"^\.Sh {name}\n(.*?)(?=^\.Sh )", page, re.MULTILINE | re.DOTALL)
    return match.group(1) if match else ""


def described_options(page):
    """Name to short name, value and text of each option."""
    description = section(page, "DESCRIPTION")
    matches = list(PAGE_OPTION.finditer(description))
    ends = [match.start() for match in matches[1:]] + [description.find("\n.El")]
    return {match[2]: (match[1], match[3], description[match.end():end])
            for match, end in zip(matches, ends)}


def complaints_about_option(option, described):
    name = option["name"]
    short, value, text = described
    if short != option["short"]:
        yield f"--{name} has the short name {option['short']}, the page says {short}"
    if value != option["value"]:
        yield f"--{name} takes {option['value']}, the page says {value}"
    if option["least"] and f"from {option['least']} to {option['most']}" not in text:
        yield f"--{name}: the page does not say 'from {option['least']} to {option['most']}'"
    default = None if name in MACHINE_DEFAULTS else option["default"]
    if default and not re.search(rf"^\.Ql (?:\\&)?{re.escape(default)}(?: |$)", text, re.MULTILINE):
        yield f"--{name}: the page does not say that the default is {default}"


def complaints_of(help_text, page):
    options = {match["name"]: match for match in HELP_OPTION.finditer(help_text)}
    described = described_options(page)
    if set(re.findall(r"--([\w-]+)", help_text)) - set(options):
        yield "an option of --help was not understood"
    for name in sorted(set(options) - set(described)):
        yield f"--{name} is not in the page"
    for name in sorted(set(described) - set(options)):
        yield f"--{name} of the page is not in --help"
    for name in sorted(set(options) & set(described)):
        yield from complaints_about_option(options[name], described[name])
    synopsis = {}
    for first, value, second in SYNOPSIS_OPTION.findall(section(page, "SYNOPSIS")):
        synopsis[first] = value or None
        if second:
            synopsis[second] = None
    if synopsis != {name: match["value"] for name, match in options.items()}:
        yield f"the synopsis has {synopsis}"


def layout_complaints(page):
    groff = shutil.which("groff")
    if not groff:
        print("groff is missing: the layout is not checked")
        return []
    done = subprocess.run([groff, "-mdoc", "-ww", "-Tutf8", "-Kutf8", "-z", page], capture_output=True,
                          text=True, check=False)
    return done.stderr.splitlines()


def changed_pages(page):
    yield "an option left out", re.sub(r"^\.It Fl -port .*?(?=^\.It)", "", page, flags=re.M | re.S)
    yield "an option too many", page.replace(".It Fl -version", ".It Fl -verbose\nMore.\n.It Fl -version")
    yield "another value", page.replace(".It Fl -port Ar NUMBER", ".It Fl -port Ar PORT")
    yield "another default", page.replace(".Ql 8181", ".Ql 8080")
    yield "another range", page.replace("to 65535", "to 65536")
    yield "a synopsis without an option", page.replace(".Op Fl -all-interfaces\n", "")
    yield "no short name", page.replace(".It Fl h , -help", ".It Fl -help")


def main():
    broken = sys.argv[1] == "--broken"
    program, path = sys.argv[-2:]
    help_text = subprocess.run([program, "--help"], check=True, capture_output=True, text=True,
                               env={**os.environ, "COLUMNS": "80"}).stdout
    page = pathlib.Path(path).read_text()
    complaints = [*complaints_of(help_text, page), *layout_complaints(path)]
    if broken:
        for name, changed in changed_pages(page):
            if changed == page or not list(complaints_of(help_text, changed)):
                complaints.append(f"not noticed: {name}")
    count = len(described_options(page))
    print("\n".join(complaints) or f"{path}: {count} options as in --help")
    return 1 if complaints else 0


if __name__ == "__main__":
    sys.exit(main())
