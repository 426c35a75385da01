"""Changes src/ in one place at a time and checks whether a unit test fails.

Run through scripts/mutate.sh, whose --help says how.
"""

import argparse
import concurrent.futures
import fnmatch
import glob
import hashlib
import os
import queue
import signal
import sys
import time

import build
import mutants
import report
from report import KILLED, NOT_COMPILED, SAME_CODE, SURVIVED, TWIN

ROOT = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
SURVIVORS = os.path.join(ROOT, "tests", "mutation", "survivors.md")

# The programs that test a module: the first has the tests named after its files.
PROGRAMS = {
    "request": ("unit_library", "unit_server", "unit_failure_injection"),
    "streaming": ("unit_library", "unit_server", "unit_failure_injection"),
    "server": ("unit_server", "unit_failure_injection"),
    "websocket": ("unit_websocket", "unit_server", "unit_failure_injection"),
}
ALL_PROGRAMS = list(dict.fromkeys(name for names in PROGRAMS.values() for name in names))

# Where a file's first tests are, when not in the file of its own name.
TESTS = {
    "src/streaming/ChunkQueue": (
        "streaming/HttpReceiveDevice.cpp",
        "streaming/HttpResponseDevice.cpp",
    ),
    "src/request/DispatchAccess": ("request/HttpRequest.cpp", "streaming/StreamCallbacks.cpp"),
    "src/websocket/WebSocket": (
        "websocket/WebSocket.cpp",
        "websocket/WebSocketFrames.cpp",
        "websocket/Conversation.cpp",
    ),
}

# It has its own malloc, and so have the sanitizers.
NOT_SANITIZED = {"unit_failure_injection"}


class Campaign:
    """Judges mutants, each on the next bench that is free."""

    def __init__(self, tree, folder, jobs):
        self.tree = tree
        self.sources = {}
        self.originals = {}  # digests of the objects without a mutant
        self.sanitized = {}  # in which programs a file's objects go with sanitizers
        self.seen = {}
        self.benches = queue.Queue()
        for i in range(jobs):
            self.benches.put(build.Bench(tree, os.path.join(folder, f"bench{i}")))

    def source(self, file):
        if file not in self.sources:
            self.sources[file] = build.read(os.path.join(self.tree.tree, file)).decode()
        return self.sources[file]

    # Returns the status of a mutant and, for a killed one, the test that failed.
    def judge(self, mutant):
        bench = self.benches.get()
        try:
            return self.judge_on(bench, mutant)
        finally:
            self.benches.put(bench)

    def judge_on(self, bench, mutant):
        file, source = mutant.file, self.source(mutant.file)
        library, _ = self.tree.objects_of(file)
        if file not in self.originals:
            self.originals[file] = bench.compile(file, source, library, build.OPTIMISED)
        changed = source[: mutant.start] + mutant.after + source[mutant.end :]
        digest = bench.compile(file, changed, library, build.OPTIMISED)
        if digest is None:
            return NOT_COMPILED, ""
        if digest == self.originals[file]:
            return SAME_CODE, ""
        if self.seen.setdefault((file, digest), mutant.key) != mutant.key:
            return TWIN, ""
        how = self.run_tests(bench, file, changed) or self.run_sanitized(bench, file, changed)
        return (SURVIVED, "") if how is None else (KILLED, how)

    # Tests the mutant with the objects on the bench. Returns the failed test, or None.
    def run_tests(self, bench, file, changed):
        library, tests = self.tree.objects_of(file)
        paths = {}
        for program, wanted in self.rounds(file):
            if program not in paths:
                of_program = [name for name in tests if name in self.tree.linkers[program]]
                if of_program and bench.compile(file, changed, of_program, ("-O0",)) is None:
                    return f"{program}: does not compile"
                paths[program] = bench.link(program, library + of_program)
            if paths[program] is None:
                return f"{program}: does not link"
            how = bench.test(paths[program], wanted)
            if how is not None:
                return how
        return None

    # Likewise, with the sanitizers watching over the changed objects alone: the first run, of
    # the file as it is, tells in which programs that goes.
    def run_sanitized(self, bench, file, changed):
        library, _ = self.tree.objects_of(file)
        if file not in self.sanitized:
            self.sanitized[file] = [
                program
                for program in self.programs(file)
                if program not in NOT_SANITIZED
                and self.test_sanitized(bench, file, self.source(file), library, program) is None
            ]
        for program in self.sanitized[file]:
            how = self.test_sanitized(bench, file, changed, library, program)
            if how is not None:
                return how + ", with sanitizers"
        return None

    @staticmethod
    def test_sanitized(bench, file, source, library, program):
        if bench.compile(file, source, library, build.SANITIZED) is None:
            return f"{program}: does not compile"
        path = bench.link(program, library, build.SANITIZERS)
        return bench.test(path, sanitized=True) if path else f"{program}: does not link"

    def programs(self, file):
        return [name for name in PROGRAMS[file.split("/")[1]] if name in self.tree.programs]

    # First the tests that are named after the file, then all that know it.
    def rounds(self, file):
        stem, programs = os.path.splitext(file)[0], self.programs(file)
        first = self.tree.tests_named_after(
            TESTS.get(stem, (stem.removeprefix("src/") + ".cpp",))
        )
        if first:
            yield programs[0], first
        for program in programs:
            yield program, None


class Run:
    """Tries mutants in their order until enough of them were others than the original."""

    def __init__(self, campaign, wanted, results, options):
        self.campaign = campaign
        self.wanted = iter(wanted)
        self.results = results
        self.options = options
        self.rows = []
        self.counted = 0
        self.pending = {}

    def run(self):
        with concurrent.futures.ThreadPoolExecutor(self.options.jobs) as pool:
            try:
                for _ in range(self.options.jobs):
                    self.submit(pool)
                while self.pending:
                    done, _ = concurrent.futures.wait(
                        self.pending, 1, concurrent.futures.FIRST_COMPLETED
                    )
                    for future in done:
                        self.take(future)
                        self.submit(pool)
            except BaseException:
                self.campaign.tree.stopping = True
                raise
        return self.rows

    def submit(self, pool):
        for mutant in self.wanted:
            if self.has_enough():
                return
            key = key_of(mutant, self.campaign.source(mutant.file))
            known = self.results.known.get(key)
            if self.options.survivors:
                if not known or known["status"] != SURVIVED:
                    continue
            elif known:
                self.add(known)
                continue
            future = pool.submit(self.campaign.judge, mutant)
            self.pending[future] = (mutant, key, time.monotonic())
            return

    def has_enough(self):
        limit = 0 if self.options.survivors else self.options.count
        return limit and self.counted + len(self.pending) >= limit

    def take(self, future):
        mutant, key, start = self.pending.pop(future)
        status, how = future.result()
        row = report.row_of(mutant, key, status, how, time.monotonic() - start)
        self.results.add(row)
        self.add(row)
        print(report.line_of(row, self.counted), flush=True)

    def add(self, row):
        self.rows.append(row)
        self.counted += row["status"] in report.COUNTED


# A mutant's name over several runs: no other while its file is as it was.
def key_of(mutant, source):
    return hashlib.sha256(source.encode()).hexdigest()[:12] + ":" + mutant.key


def candidates(root, options):
    found = []
    for kind in ("cpp", "h"):
        for path in sorted(glob.glob(f"src/**/*.{kind}", root_dir=root, recursive=True)):
            asked_for = not options.files or any(
                fnmatch.fnmatch(path, pattern) for pattern in options.files
            )
            if asked_for:
                source = build.read(os.path.join(root, path)).decode()
                found += mutants.find_mutants(path, source)
    return mutants.in_turns(found, options.seed)


# A program that fails without a mutant would kill all of them.
def leave_out_what_fails(campaign):
    bench = campaign.benches.get()
    for program in list(campaign.tree.programs):
        how = bench.test(bench.link(program, []))
        if how is not None:
            print(f"==> Left out: {program} fails as it is, in {how}", flush=True)
            campaign.tree.programs.remove(program)
    campaign.benches.put(bench)
    if not campaign.tree.programs:
        raise build.BuildError("no test program is left")


def arguments():
    parser = argparse.ArgumentParser(prog="scripts/mutate.sh", add_help=False)
    parser.add_argument("--count", type=int, default=300)
    parser.add_argument("--files", action="append", default=[])
    parser.add_argument("--seed", type=int, default=1)
    parser.add_argument("--list", action="store_true")
    parser.add_argument("--jobs", type=int, default=os.cpu_count())
    parser.add_argument("--resume", action="store_true")
    parser.add_argument("--survivors", action="store_true")
    parser.add_argument("--folder", default=os.path.join(ROOT, "build", "mutate"))
    options = parser.parse_args()
    if options.count < 0 or options.jobs < 1:
        parser.error("--count and --jobs must be positive")
    options.folder = os.path.abspath(options.folder)
    return options


def main():
    options = arguments()
    if options.list:
        for mutant in candidates(ROOT, options):
            print(f"{mutant.file}:{mutant.line}: {mutant.function}: {mutant.change}")
        return 0
    start = time.monotonic()
    os.makedirs(options.folder, exist_ok=True)
    results = report.Results(options.folder)
    if options.resume or options.survivors:
        results.load()
    else:
        results.clear()
    tree = build.Tree(ROOT, options.folder, ALL_PROGRAMS)
    print(f"==> Copying the tree and building {options.folder}", flush=True)
    tree.prepare(options.jobs)
    campaign = Campaign(tree, options.folder, options.jobs)
    print(f"==> Running the unmutated tests: {', '.join(tree.programs)}", flush=True)
    leave_out_what_fails(campaign)
    wanted = candidates(tree.tree, options)
    print(f"==> {len(wanted)} places to change, seed {options.seed}", flush=True)
    rows = Run(campaign, wanted, results, options).run()
    return 0 if report.tell(rows, time.monotonic() - start, SURVIVORS) else 1


def interrupt(number, frame):
    raise KeyboardInterrupt


if __name__ == "__main__":
    # Also when started in the background, where a shell has them ignored.
    signal.signal(signal.SIGINT, interrupt)
    signal.signal(signal.SIGTERM, interrupt)
    signal.signal(signal.SIGPIPE, signal.SIG_DFL)
    try:
        sys.exit(main())
    except build.BuildError as error:
        print(f"mutate.sh: {error}", file=sys.stderr)
        sys.exit(1)
    except KeyboardInterrupt:
        sys.exit(130)
