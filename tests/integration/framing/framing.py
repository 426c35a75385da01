#!/usr/bin/env python3
"""Request framing: the table of outcomes, and the page generated from it.

    WENDREL_BARE_DAEMON=... WENDREL_LIBRARY_SERVER=... python3 framing.py --write [--path PATH] [GROUP...]

sends every request of raw_requests.py (or of some groups) twice, directly and through both proxies
(or on one path), and writes outcomes.tsv and docs/request-framing.md in ten minutes. `--page` writes
only the page, from the recorded table.
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
COLUMNS = ("group", "request", "path", "responses", "connection", "seen", "forwarded", "handled", "verdict")
BETWEEN = " | "

UNEXPLAINED = "unexplained"

AGREES = "agrees"
REFUSES = "refuses"
WITHOUT_UPGRADE = "without upgrade"
WITHOUT_STRAY_BYTES = "without stray bytes"


def versions():
    """Versions of the other programs that determine the outcomes."""
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
                request.group, request.name, path, BETWEEN.join(outcome.responses), outcome.connection,
                BETWEEN.join(outcome.seen), str(outcome.forwarded), str(outcome.handled),
                outcome.verdict)).rstrip("\t"))
    TABLE.write_text("\n".join(lines) + "\n")


def table_versions():
    return TABLE.read_text().split("\n", 1)[0].removeprefix("# ")


def read_table():
    outcomes = {}
    for line in TABLE.read_text().split("\n")[2:-1]:
        group, name, path, given, connection, seen, forwarded, handled, *verdict = line.split("\t")
        outcomes[group, name, path] = Outcome(split(given), connection, split(seen), int(forwarded),
                                              int(handled), "".join(verdict))
    return outcomes


def observe_twice(path, data):
    """The outcome of `data`, the same twice in a row: a delay of the machine rarely repeats."""
    outcome = paths.observe(path, data, QUIET_SECONDS)
    for _ in range(5):
        last, outcome = outcome, paths.observe(path, data, QUIET_SECONDS)
        if outcome == last:
            return outcome
        print(f"{path.name}: {data[:60]}: two outcomes differ:\n{last}\n{outcome}", flush=True)
    raise AssertionError(f"{path.name}: the outcome of {data[:200]} is not reproducible")


def observe_all(name, groups):
    path = paths.open_path(name)
    try:
        return {(request.group, request.name, name): observe_twice(path, request.with_next())
                for request in REQUESTS if request.group in groups}
    finally:
        path.close()


def difference(request, outcomes):
    """Why library and daemon differ; empty when they agree."""
    daemon = outcomes[request.group, request.name, "daemon"]
    library = outcomes[request.group, request.name, "library"]
    if daemon == library:
        return ""
    if len(daemon.seen) == len(library.seen) and any(" refused: " in text for text in library.seen):
        return "refused"
    if b"Upgrade: WebSocket" in request.data and library.responses in (("101",), ("426",), ("500",)):
        return "upgrade"
    return UNEXPLAINED


def strictness(request, outcomes):
    """How event-driven mode treats a request, compared with polling mode."""
    library = outcomes[request.group, request.name, "library"]
    strict = outcomes[request.group, request.name, "event-driven"]
    # It accepts more forms of a target than polling mode.
    if strict == library or (request.group == "Target" and strict == outcomes[request.group, request.name, "daemon"]):
        return AGREES
    if strict.connection == "closed" and strict.responses[-1:] in (("400",), ("501",)):
        seen = strict.seen == library.seen[:len(strict.seen)]
        return REFUSES if seen and len(strict.seen) < max(len(library.seen), 1) else UNEXPLAINED
    # It closes the connection in their place.
    if (strict.connection == "closed" and strict.responses == library.responses[:1]
            and library.responses[1:2] == ("5 stray bytes",)):
        return WITHOUT_STRAY_BYTES
    if difference(request, outcomes) == "upgrade":
        return WITHOUT_UPGRADE
    return UNEXPLAINED


def refusing(outcome):
    """Whether a proxy has not forwarded the first request."""
    return outcome.forwarded == 0


def taking(outcome):
    """Whether the daemon has accepted the first request as complete."""
    return bool(outcome.seen) and NO_END not in outcome.seen[0]


def seen_text(text):
    """A short form of a request that was seen."""
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
    responses = ", ".join(outcome.responses) or "none"
    text = responses + (" ✕" if outcome.connection == "closed" else "")
    if outcome.seen:
        text += "<br>" + " · ".join(seen_text(one) for one in outcome.seen)
    if outcome.verdict:
        text += f"<br>**{outcome.verdict}**"
    return text


def group_table(group, outcomes):
    yield f"### {group}"
    yield ""
    yield "| Request | Daemon | Library | Event-driven | nginx | HAProxy |"
    yield "|---|---|---|---|---|---|"
    for request in REQUESTS:
        if request.group != group:
            continue
        daemon, library, strict, nginx, haproxy = (outcomes[group, request.name, path] for path in PATHS)
        yield (f"| {request.name} | {cell(daemon)} | {'the same' if library == daemon else cell(library)} "
               f"| {'the same' if strict == library else cell(strict)} | {cell(nginx)} | {cell(haproxy)} |")
    yield ""


def names(requests):
    """Their names, group by group."""
    for group in GROUPS:
        if chosen := [request.name for request in requests if request.group == group]:
            yield f"- {group}: " + "; ".join(chosen)
    yield ""


INTRODUCTION = """\
# Request framing

Generated by [`framing.py`](../tests/integration/framing/framing.py); do not edit. `ctest -R framing` repeats
every request and compares. Measured with {versions}.

{count} raw requests that are unusual, ambiguous or malformed
([`raw_requests.py`](../tests/integration/framing/raw_requests.py) lists the bytes) are sent, each in
one piece followed by `GET /next`,

- to the **daemon** without the library, with the same flags and options,
- to the **library** in polling mode, with an application that responds 400 to a parse error,
- to the library in **event-driven** mode with the default options, hence with `strictRequests`,
- through **nginx** and **HAProxy** to the same application, with the configurations of
  [`deploy/`](../deploy), with only the marked lines adapted.

A request with two interpretations contains `GET /hidden` between its two possible ends: it must not
be a separate request on one side of a proxy only. A tap between proxy and application counts the
requests.

## Summary

- Behind the proxies as configured, {dangerous} of {both} trials made the proxy and the application
  disagree about the number of requests, left bytes of a response to the next one, or let the
  application wait for a body that the proxy considered complete.
- Two vulnerabilities are closed by lines of the configurations: see
  [Request smuggling](../SECURITY.md#request-smuggling). `test_framing.py` demonstrates both.
- Daemon and library agree about the requests in every case. The response of the library differs in
  {refused} cases because of a parse error, and in {upgrade} because it upgrades to a WebSocket.

## Requests refused by the proxies only

The daemon accepts these {lenient} requests, and both proxies refuse them. Another proxy must refuse or rewrite
them as well; [Request smuggling](../SECURITY.md#request-smuggling) lists those that are exploitable.

"""

STRICT = """\
## Requests refused by event-driven mode

With `strictRequests` the library refuses {strict} of the requests that the daemon accepts or leaves without an
end, before the application sees them, and closes the connection. It passes these on although both
proxies refuse them:

"""

LEGEND = """\
## Outcomes

A cell lists the status of each response, ✕ if the connection was closed, and the requests that the
application received: `first (4)` is the first one with a body of 4 bytes, (…) a body without an end,
(refused) a parse error of the library. "stray bytes" belong to no response: responses of the daemon
itself contain their head twice, and responses to HEAD without a declared length have five additional
bytes. HAProxy responds to the preface of HTTP/2 in HTTP/2, and nginx to a request of HTTP/0.9
without a head.

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
    strict = [request for request in REQUESTS if strictness(request, outcomes) == REFUSES]
    passed = [request for request in lenient if request not in strict]
    lines.append(STRICT.format(strict=len(strict)) + "\n".join(names(passed)))
    lines.append(LEGEND.rstrip("\n"))
    lines.append("")
    for group in GROUPS:
        lines += group_table(group, outcomes)
    return "\n".join(lines)


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--write", action="store_true", help="measure")
    parser.add_argument("--page", action="store_true", help="write the page of the recorded table")
    parser.add_argument("--path", choices=PATHS, help="measure only this one")
    parser.add_argument("groups", nargs="*", choices=[[], *GROUPS], metavar="GROUP")
    arguments = parser.parse_args()
    if arguments.write:
        groups = arguments.groups or list(GROUPS)
        measured = (arguments.path,) if arguments.path else PATHS
        outcomes = read_table() if arguments.groups or arguments.path else {}
        with concurrent.futures.ThreadPoolExecutor() as pool:
            for found in pool.map(lambda name: observe_all(name, groups), measured):
                outcomes.update(found)
        write_table(outcomes)
    if arguments.write or arguments.page:
        PAGE.write_text(page(read_table()))


if __name__ == "__main__":
    main()
