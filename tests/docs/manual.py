"""Holds a manual page, and that of the options of all servers, against --help of its program, and has groff
format both without a warning.

    manual.py PROGRAM PAGE SERVER_PAGE
    manual.py --broken PROGRAM PAGE SERVER_PAGE    also changes the pages in several ways, each of which
                                                   has to be noticed
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
# The default depends on the program.
PROGRAM_DEFAULTS = {"workers", "stop-timeout"}


def section(page, name):
    match = re.search(rf"^\.Sh {name}\n(.*?)(?=^\.Sh )", page, re.MULTILINE | re.DOTALL)
    return match.group(1) if match else ""


def described_options(page):
    """Name to short name, value and text of each option."""
    description = section(page, "DESCRIPTION")
    matches = list(PAGE_OPTION.finditer(description))
    ends = [match.start() for match in matches[1:]] + [description.rfind("\n.El")]
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
    default = None if name in MACHINE_DEFAULTS | PROGRAM_DEFAULTS else option["default"]
    if default and not re.search(rf"^\.Ql (?:\\&)?{re.escape(default)}(?: |$)", text, re.MULTILINE):
        yield f"--{name}: the page does not say that the default is {default}"


def complaints_of(help_text, page, server_page):
    options = {match["name"]: match for match in HELP_OPTION.finditer(help_text)}
    own, of_server = described_options(page), described_options(server_page)
    described = {**own, **of_server}
    for name in sorted(set(own) & set(of_server)):
        yield f"--{name} is in both pages"
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
    if synopsis != {name: match["value"] for name, match in options.items() if name not in of_server}:
        yield f"the synopsis has {synopsis}"


def layout_complaints(page):
    groff = shutil.which("groff")
    if not groff:
        print("groff is missing: the layout is not checked")
        return []
    done = subprocess.run([groff, "-mdoc", "-ww", "-Tutf8", "-Kutf8", "-z", page], capture_output=True,
                          text=True, check=False)
    return done.stderr.splitlines()


def changed_pages(page, server_page):
    for name, old, new in (
            ("an option left out", re.search(r"^\.It Fl -port .*?(?=^\.It)", server_page, re.M | re.S)[0], ""),
            ("an option too many", ".It Fl -version", ".It Fl -verbose\nMore.\n.It Fl -version"),
            ("another value", ".It Fl -port Ar NUMBER", ".It Fl -port Ar PORT"),
            ("another default", ".Ql 10000 .", ".Ql 10001 ."),
            ("a synopsis without an option", ".Fl -help | Fl -version", ".Fl -help"),
            ("no short name", ".It Fl h , -help", ".It Fl -help")):
        yield name, page.replace(old, new), server_page.replace(old, new)


def main():
    broken = sys.argv[1] == "--broken"
    program, *paths = sys.argv[-3:]
    help_text = subprocess.run([program, "--help"], check=True, capture_output=True, text=True,
                               env={**os.environ, "COLUMNS": "80"}).stdout
    pages = [pathlib.Path(path).read_text() for path in paths]
    complaints = [*complaints_of(help_text, *pages)]
    for path in paths:
        complaints += layout_complaints(path)
    if broken:
        for name, *changed in changed_pages(*pages):
            if changed == pages or not list(complaints_of(help_text, *changed)):
                complaints.append(f"not noticed: {name}")
    count = sum(len(described_options(page)) for page in pages)
    print("\n".join(complaints) or f"{paths[0]}: {count} options as in --help")
    return 1 if complaints else 0


if __name__ == "__main__":
    sys.exit(main())
