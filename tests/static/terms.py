#!/usr/bin/env python3
"""Counts rejected terms in names, comments, texts and pages, and fails on a new one.

    python3 tests/static/terms.py              totals, each with its limit
    python3 tests/static/terms.py PATH...      every occurrence in these files and directories
    python3 tests/static/terms.py --lower      records the counts of today as the new limits

terms_left.json records how often each file still contains each term. The check fails when the total of
a term exceeds the recorded total. A term without a record has the limit 0.
"""

import argparse
import collections
import dataclasses
import fnmatch
import json
import pathlib
import re
import sys

import comments
import tree

RECORD = pathlib.Path(__file__).with_name("terms_left.json")

# Not written by hand, or a text of others.
SKIPPED_ENDINGS = (".svg", ".png", ".abi", ".symbols", "package-lock.json")
SKIPPED_PREFIXES = ("LICENSE", "packaging/copyright", "tests/fuzz/seeds/",
                    # The terms themselves.
                    "tests/static/terms.py", "tests/static/terms_left.json",
                    "tests/static/test_terms.py")

# Sentences about a thing that they do not name. Technical references have 0 to 0.3 of 1000 words.
VAGUE = "what"
VAGUE_WORDS = re.compile(r"\b(?:what|whatever|whoever)\b", re.IGNORECASE)
VAGUE_ADVICE = "name the thing: a noun instead of \"what ...\", \"whatever ...\", \"whoever ...\""
VAGUE_PER_1000_WORDS = 0.3

CONSTANT_PREFIX = r"(?<![a-z])k_(?:[a-z0-9]+_)*?"


@dataclasses.dataclass(frozen=True)
class Term:
    name: str
    instead: str
    # Searched in lower-case text where each identifier is split: kNoTimeOut is k_no_time_out.
    search: re.Pattern
    # Constants in capitals, searched in the text as it is.
    capitals: re.Pattern | None = None


def words(name, instead, pattern):
    """A term of whole words; digits and _ end a word as well."""
    return Term(name, instead, re.compile(rf"(?<![a-z])(?:{pattern})(?![a-z])"))


def constant(name, instead):
    return Term(f"{name} in a constant", instead,
                re.compile(rf"{CONSTANT_PREFIX}{name}s?(?![a-z])"),
                re.compile(rf"\b(?:[A-Z0-9]+_)*{name.upper()}S?(?:_[A-Z0-9]+)*\b"))


TERMS = [
    words("answer", "response, respond, reply", r"(?:un)?answer(?:s|ed|ing|ers?)?"),
    words("spare", "pool, free list, unused", r"spares?"),
    words("kept chunk", "pooled chunk, free list", r"kept[ _](?:chunk|block)s?"),
    words("room", "capacity, space; module, directory", r"rooms?"),
    words("house", "module, directory", r"houses?"),
    words("book", "registry", r"books?"),
    words("door", "accessor, entry point", r"doors?"),
    words("gate", "latch, barrier; check", r"gates?"),
    words("blank", "space (character)", r"blanks?(?![ _]lines?(?![a-z]))"),
    words("mend", "fix, correct", r"mend(?:s|ed|ing)?"),
    words("outside library", "third-party library", r"outside[ _]librar(?:y|ies)"),
    words("stands on", "uses, is built on", r"(?:stands?|stood|standing) on"),
    words("stand-in", "test double, fake, stub",
          r"stand[-_]ins?|standins?|(?:stands?|stood) in for"),
    words("fruitless", "unsuccessful, empty (poll)", r"fruitless(?:ly)?"),
    words("in vain", "unsuccessfully; busy-waits, spins", r"in[ _]vain"),
    words("goes round", "loops; busy-waits, spins", r"(?:goes|go|going|went|gone) (?:a)?round"),
    words("taken in", "registered, adopted, accepted",
          r"(?:taken|took)[ _]in(?= (?:by|as|at|when|before|after|again)\b|[.,;:)(_]|$)"),
    words("gone", "closed, reset, aborted, removed, freed", r"gone"),
    words("goes away", "closed, reset, aborted", r"(?:goes|go|went)[ _]away"),
    words("hostile", "adversarial", r"hostile"),
    words("rude", "adversarial, misbehaving", r"rude(?:ly)?"),
    words("figure", "metric, statistic, measurement, number", r"figures?"),
    words("ledger", "metrics, statistics, record", r"ledgers?"),
    words("journal", "event log", r"journals?"),
    words("patience", "timeout", r"(?:im)?patien(?:ce|t|tly)"),
    words("keeper", "reaper", r"keepers?"),
    words("watcher", "watchdog", r"watchers?"),
    words("time-out", "timeout (noun), time out (verb)", r"time[-_]outs?"),
    words("fault", "failure injection; error, defect",
          r"(?<!page )(?<!page_)(?<!minor )(?<!major )(?<!segmentation )faults?"),
    words("Nth failure", "failure injection", r"nth[ _]failures?"),
    words("danger that stays open", "known risks", r"dangers? that (?:stays?|remains?) open"),
    words("who is trusted", "trust model", r"who(?:m)? is trusted"),
    words("not what they seem", "request smuggling", r"not what (?:they|it) seems?"),
    words("a request travels", "request lifecycle", r"requests?[ _-]travels?"),
    words("pieces on their own", "microbenchmark", r"pieces? on (?:their|its) own"),
    words("what it allocates", "allocation budget", r"what it allocates"),
    words("went quietly", "peer closed the connection", r"(?:goes|went|gone|away) quietly"),
    words("throttle of uploads", "back-pressure", r"throttles? (?:of|for) uploads?"),
    constant("most", "kMax..., MAX_..."),
    constant("least", "kMin..., MIN_..."),
    constant("longest", "kMax..., MAX_..."),
    constant("shortest", "kMin..., MIN_..."),
    constant("period", "k...IntervalMs, ..._INTERVAL_..."),
    constant("look", "k...IntervalMs, ..._INTERVAL_..."),
    constant("slice", "k...IntervalMs, ..._INTERVAL_..."),
]


@dataclasses.dataclass(frozen=True)
class Allowed:
    """Occurrences that stay: lines of these files that match, or every line."""
    term: str
    files: str
    line: str
    reason: str


ALLOWED = [
    Allowed("answer", "*", r"The request was not answered\.",
            "a response body of the kit, listed in docs/troubleshooting.md"),
    Allowed("room", "*[cC]hat*", "", "the rooms of a chat"),
    Allowed("room", "tests/integration/proxies/*", "", "joins a room of the chat"),
    Allowed("room", "scripts/demo*", "", "the rooms of a chat"),
    Allowed("room", "tests/soak/*", "", "the rooms of a chat"),
    Allowed("room", "tests/integration/restarts/*", "", "the rooms of a chat"),
    Allowed("room", "*", r"(?i)\bchat\b|\bRooms\.(cpp|h)\b", "the rooms of a chat"),
    Allowed("journal", "*", r"(?i)systemd|journald|journalctl", "the name of systemd's log"),
    Allowed("journal", "*", r"PRAGMA journal_mode", "the name of an option of SQLite"),
    Allowed("blank", "*", r"\[:blank:\]|target=.?_blank|noblank|blank=", "a name of a language or tool"),
    Allowed("gone", "*", r"(?i)\b410\b|HTTP_GONE|\bGone\b.*status", "the reason phrase of status 410"),
    Allowed("gone", "*", r"[a-z]Gone\b|\bmGone|\bGone\b|[a-z]Gone[A-Z]",
            "names of the kit: no byte can reach the client of a request any more"),
]

ADVICE = {VAGUE: VAGUE_ADVICE, **{term.name: term.instead for term in TERMS}}


def split_identifiers(text):
    """Lower-case, with _ between the words of an identifier."""
    text = re.sub(r"([a-z0-9])([A-Z])", r"\1_\2", text)
    return re.sub(r"([A-Z])([A-Z][a-z])", r"\1_\2", text).lower()


def is_allowed(term, name, line):
    return any(allowed.term == term and fnmatch.fnmatchcase(name, allowed.files)
               and re.search(allowed.line, line) for allowed in ALLOWED)


def terms_in(name, line):
    """The terms of one line of a file, each as often as it occurs."""
    split = split_identifiers(line)
    found = []
    for term in TERMS:
        count = len(term.search.findall(split))
        if term.capitals:
            count += len(term.capitals.findall(line))
        if count and not is_allowed(term.name, name, line):
            found += [term.name] * count
    return found


@dataclasses.dataclass
class Hit:
    name: str
    line: int  # 0: the path itself
    term: str
    text: str

    def __str__(self):
        place = f"{self.name}:{self.line}" if self.line else f"{self.name}: (path)"
        return f"{place}: \"{self.term}\", write: {ADVICE[self.term]}\n    {self.text.strip()[:160]}"


def hits_in(name, text):
    """The hits of one file, and the number of words of its prose."""
    hits = [Hit(name, 0, term, name) for term in terms_in(name, name)]
    for number, line in enumerate(text.splitlines(), 1):
        hits += [Hit(name, number, term, line) for term in terms_in(name, line)]
    length = 0
    for number, prose in comments.of(name, text):
        length += len(re.findall(r"[A-Za-z][\w'-]*", prose))
        hits += [Hit(name, number, VAGUE, prose) for _ in VAGUE_WORDS.findall(prose)]
    return hits, length


def sources():
    for name in tree.files():
        if name.endswith(SKIPPED_ENDINGS) or name.startswith(SKIPPED_PREFIXES):
            continue
        try:
            yield name, (tree.ROOT / name).read_text(encoding="utf-8")
        except UnicodeDecodeError:
            continue


def search_tree():
    hits, length = [], 0
    for name, text in sources():
        found, prose = hits_in(name, text)
        hits += found
        length += prose
    return hits, length


def counts(hits):
    """file -> term -> number"""
    found = collections.defaultdict(collections.Counter)
    for hit in hits:
        found[hit.name][hit.term] += 1
    return found


def totals(by_file):
    found = collections.Counter()
    for terms in by_file.values():
        found.update(terms)
    return found


def recorded():
    if not RECORD.exists():
        return {}
    return json.loads(RECORD.read_text(encoding="utf-8"))


def write_record(by_file):
    lines = [f"  {json.dumps(name)}: {json.dumps(dict(sorted(terms.items())))}"
             for name, terms in sorted(by_file.items())]
    RECORD.write_text("{\n" + ",\n".join(lines) + "\n}\n" if lines else "{}\n", encoding="utf-8")


def excess(hits, length, record):
    """The terms whose total is above its limit."""
    now, limits = totals(counts(hits)), totals(record)
    above = {term for term, count in now.items() if count > limits[term]}
    if length and now[VAGUE] * 1000 / length <= VAGUE_PER_1000_WORDS:
        above.discard(VAGUE)
    return above


def new_hits(hits, above, record):
    """The hits to look at first: those of files with more of a term than recorded."""
    by_file = counts(hits)
    return [hit for hit in hits if hit.term in above
            and by_file[hit.name][hit.term] > record.get(hit.name, {}).get(hit.term, 0)]


def print_totals(hits, length, record):
    now, limits = totals(counts(hits)), totals(record)
    for term in sorted(ADVICE, key=lambda term: -now[term]):
        if now[term] or limits[term]:
            print(f"{now[term]:6}  at most {limits[term]:6}  {term}: write {ADVICE[term]}")
    print(f"\"what\" in comments and pages: {now[VAGUE] * 1000 / max(length, 1):.2f} of 1000 words "
          f"({now[VAGUE]} of {length}), aim: {VAGUE_PER_1000_WORDS}")
    if any(now[term] < limits[term] for term in limits):
        print(f"some are fewer than recorded: run {pathlib.Path(__file__).name} --lower")


def main():
    parser = argparse.ArgumentParser(description=__doc__,
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("paths", nargs="*", help="lists every occurrence below these")
    parser.add_argument("--lower", action="store_true", help="records the counts of today")
    options = parser.parse_args()

    hits, length = search_tree()
    record = recorded()
    if options.paths:
        wanted = [pathlib.Path(path).resolve().relative_to(tree.ROOT).as_posix()
                  for path in options.paths]
        listed = [hit for hit in hits for path in wanted
                  if path in (".", hit.name) or hit.name.startswith(path + "/")]
        print(*listed, sep="\n")
        print(f"{len(listed)} occurrences")
        return 0

    above = excess(hits, length, record)
    for hit in new_hits(hits, above, record):
        print(hit)
    if above:
        print(f"\nnew occurrences of: {', '.join(sorted(above))}")
        print("A use that must stay, with its reason, belongs into ALLOWED of terms.py.\n")
    elif options.lower:
        write_record(counts(hits))
        record = recorded()
    print_totals(hits, length, record)
    return 1 if above else 0


if __name__ == "__main__":
    sys.exit(main())
