#!/usr/bin/env python3
"""What is taken for a request: the table of outcomes, and the page made of it.

    WENDREL_BARE_DAEMON=... WENDREL_LIBRARY_SERVER=... python3 framing.py --write [GROUP...]

tries every request of raw_requests.py (or those of some groups) twice, directly and through both
proxies, and writes outcomes.tsv and docs/request-framing.md; that takes ten minutes. `--page`
writes the page alone, from the table as it is.
"""

import argparse
import concurrent.futures
import pathlib
import re
import subprocess

import paths
from paths import NO_END, PATHS, Outcome
from raw_requests import GROUPS, REQUESTS
from support import find_program

HERE = pathlib.Path(__file__).resolve().parent
TABLE = HERE / "outcomes.tsv"
PAGE = HERE.parents[2] / "docs" / "request-framing.md"
QUIET_SECONDS = 0.4
COLUMNS = ("group", "request", "path", "answers", "connection", "seen", "forwarded", "handled", "verdict")
BETWEEN = " | "

UNEXPLAINED = "unexplained"


def versions():
    """Of what the outcomes depend on besides ourselves."""
    def version(*command):
        done = subprocess.run(command, capture_output=True, text=True, check=True)
        return re.search(r"\d+(?:\.\d+)+", done.stdout + done.stderr)[0]

    return (f"libmicrohttpd {version('pkg-config', '--modversion', 'libmicrohttpd')}, "
            f"nginx {version(find_program('nginx'), '-v')}, HAProxy {version(find_program('haproxy'), '-v')}")


def split(text):
    return tuple(text.split(BETWEEN)) if text else ()


def write_table(outcomes):
    lines = ["# " + versions(), "\t".join(COLUMNS)]
    for request in REQUESTS:
        for path in PATHS:
            outcome = outcomes[request.group, request.name, path]
            lines.append("\t".join((
                request.group, request.name, path, BETWEEN.join(outcome.answers), outcome.connection,
                BETWEEN.join(outcome.seen), str(outcome.forwarded), str(outcome.handled),
                outcome.verdict)))
    TABLE.write_text("\n".join(lines) + "\n")


def table_versions():
    return TABLE.read_text().split("\n", 1)[0].removeprefix("# ")


def read_table():
    outcomes = {}
    for line in TABLE.read_text().split("\n")[2:-1]:
        group, name, path, given, connection, seen, forwarded, handled, verdict = line.split("\t")
        outcomes[group, name, path] = Outcome(split(given), connection, split(seen), int(forwarded),
                                              int(handled), verdict)
    return outcomes


def observe_twice(path, data):
    """What becomes of `data` twice in a row: a machine that stands still for a moment shows once."""
    outcome = paths.observe(path, data, QUIET_SECONDS)
    for _ in range(5):
        last, outcome = outcome, paths.observe(path, data, QUIET_SECONDS)
        if outcome == last:
            return outcome
        print(f"{path.name}: {data[:60]}: not twice the same:\n{last}\n{outcome}", flush=True)
    raise AssertionError(f"{path.name}: the outcome of {data[:200]} does not repeat itself")


def observe_all(name, groups):
    path = paths.open_path(name)
    try:
        return {(request.group, request.name, name): observe_twice(path, request.with_next())
                for request in REQUESTS if request.group in groups}
    finally:
        path.close()


def difference(request, outcomes):
    """Why the library does not do what the daemon does; empty when it does the same."""
    daemon = outcomes[request.group, request.name, "daemon"]
    library = outcomes[request.group, request.name, "library"]
    if daemon == library:
        return ""
    if len(daemon.seen) == len(library.seen) and any(" refused: " in text for text in library.seen):
        return "refused"
    if b"Upgrade: WebSocket" in request.data and library.answers in (("101",), ("426",), ("500",)):
        return "upgrade"
    return UNEXPLAINED


def refusing(outcome):
    """Whether a proxy has kept the first request to itself."""
    return outcome.forwarded == 0


def taking(outcome):
    """Whether the daemon has taken the first request for one, with an end."""
    return bool(outcome.seen) and NO_END not in outcome.seen[0]


def seen_text(text):
    """A request that was seen, as short as can be."""
    parts = text.split(" refused: ")[0].removesuffix(NO_END).split(" ")
    method, target = parts[:2]
    short = target.removeprefix("/")
    name = short if target in ("/first", "/next", "/hidden") and method in ("GET", "POST") else None
    name = name or f"`{method} {target}`".replace("|", "\\|")
    if "for" in parts[2:]:
        name += f" for {parts[parts.index('for') + 1]}"
    if " refused: " in text:
        return name + " (refused)"
    if text.endswith(NO_END):
        return name + " (…)"
    return name if parts[-1] == "0" else f"{name} ({parts[-1]})"


def cell(outcome):
    answers = ", ".join(outcome.answers) or "none"
    text = answers + (" ✕" if outcome.connection == "closed" else "")
    if outcome.seen:
        text += "<br>" + " · ".join(seen_text(one) for one in outcome.seen)
    if outcome.verdict:
        text += f"<br>**{outcome.verdict}**"
    return text


def group_table(group, outcomes):
    yield f"### {group}"
    yield ""
    yield "| Request | Daemon | Library | nginx | HAProxy |"
    yield "|---|---|---|---|---|"
    for request in REQUESTS:
        if request.group != group:
            continue
        daemon, library, nginx, haproxy = (outcomes[group, request.name, path] for path in PATHS)
        yield (f"| {request.name} | {cell(daemon)} | {'the same' if library == daemon else cell(library)} "
               f"| {cell(nginx)} | {cell(haproxy)} |")
    yield ""


def names(requests):
    """Their names, group by group."""
    for group in GROUPS:
        if chosen := [request.name for request in requests if request.group == group]:
            yield f"- {group}: " + "; ".join(chosen)
    yield ""


INTRODUCTION = """\
# What is taken for a request

Made by [`framing.py`](../tests/integration/framing/framing.py); do not edit it. `ctest -R framing` tries
every request again and compares. Measured with {versions}.

{count} raw requests that are odd, ambiguous or wrong
([`raw_requests.py`](../tests/integration/framing/raw_requests.py) has the bytes) are sent, each in
one piece with `GET /next` behind it,

- to the **daemon** alone, with the flags and options that the library starts it with,
- to the **library**, with an application that answers 400 to what has a parse error,
- through **nginx** and **HAProxy** to the same application, with the configurations of
  [`deploy/`](../deploy), only the lines adapted that are marked so.

Where a request can be read in two ways there is `GET /hidden` between the two ends: it must not
show as a request of its own on one side of a proxy alone. A tap between proxy and application
counts.

## What came out

- Behind the proxies as configured, {dangerous} of {both} trials made the proxy and the application
  disagree about the number of requests, left an answer's bytes to the next one, or let the
  application wait for a body that the proxy took for complete.
- Without the lines that close them, two holes are open; [`SECURITY.md`](../SECURITY.md) has them, and
  `test_framing.py` shows them.
- The daemon and the library take the same for a request in every case. The library's answer differs
  in {refused} cases because it finds a parse error, and in {upgrade} because it upgrades to a WebSocket
  where the bare daemon does not.

## What only the proxy refuses

The daemon takes these {lenient} for requests, and both proxies refuse them. A proxy of another make
has to refuse or rewrite them too; which of them let a client send requests past a proxy otherwise,
[`SECURITY.md`](../SECURITY.md) says.

"""

LEGEND = """\
## All of them

A cell has the status of each answer that the client read, ✕ when its connection was closed in the
end, and behind it the requests that the application saw: `first (4)` is the first one with a body of
4 bytes, (…) a body whose end never came, (refused) a parse error of the library.
"stray bytes" belong to no answer: the daemon's own refusals have their head twice, and answers to
HEAD without a declared length have five bytes too many. HAProxy answers the preface of HTTP/2 in
HTTP/2, and nginx a request of HTTP/0.9 without a head.

"""


def page(outcomes):
    kinds = [difference(request, outcomes) for request in REQUESTS]
    behind = [outcome for (_, _, path), outcome in outcomes.items() if path in ("nginx", "haproxy")]
    lenient = [request for request in REQUESTS
               if taking(outcomes[request.group, request.name, "daemon"])
               and all(refusing(outcomes[request.group, request.name, path])
                       for path in ("nginx", "haproxy"))]
    dangerous = sum(bool(outcome.verdict) for outcome in behind)
    lines = [INTRODUCTION.format(
        versions=table_versions(), count=len(REQUESTS), both=len(behind), dangerous=dangerous or "none",
        lenient=len(lenient),
        **{kind: kinds.count(kind) for kind in ("refused", "upgrade")})
        + "\n".join(names(lenient))]
    lines.append(LEGEND.rstrip("\n"))
    lines.append("")
    for group in GROUPS:
        lines += group_table(group, outcomes)
    return "\n".join(lines)


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--write", action="store_true", help="measure")
    parser.add_argument("--page", action="store_true", help="make the page of what was measured")
    parser.add_argument("groups", nargs="*", choices=[[], *GROUPS], metavar="GROUP")
    arguments = parser.parse_args()
    if arguments.write:
        groups = arguments.groups or list(GROUPS)
        outcomes = read_table() if arguments.groups else {}
        with concurrent.futures.ThreadPoolExecutor() as pool:
            for found in pool.map(lambda name: observe_all(name, groups), PATHS):
                outcomes.update(found)
        write_table(outcomes)
    if arguments.write or arguments.page:
        PAGE.write_text(page(read_table()))


if __name__ == "__main__":
    main()
