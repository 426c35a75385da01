"""A copy of the tree, built once, in which one object at a time is replaced by a mutant's."""

import hashlib
import json
import os
import re
import resource
import shlex
import shutil
import subprocess
import threading
import time

COMPILE_LIMIT_S = 600
# Limits of a test run. A run hangs when it writes nothing while none of its threads runs or waits
# for the processor: on a busy machine a time limit alone would take a slow run for a hanging one.
QUIET_LIMIT_S = 10
CPU_LIMIT_S = 15
SANITIZED_CPU_LIMIT_S = 60
WALL_LIMIT_S = 600
POLL_INTERVAL_S = 0.1
MEMORY_LIMIT_BYTES = 4 << 30
OUTPUT_LIMIT_BYTES = 256 << 20

# Mutants that the release's optimiser compiles to the same code are discarded.
OPTIMISED = ("-O2",)
# Some mutants only show as an access out of bounds or a leak.
SANITIZERS = ("-fsanitize=address,undefined", "-fno-sanitize-recover=undefined")
SANITIZED = ("-O1", "-fno-omit-frame-pointer", "-D_GLIBCXX_ASSERTIONS", *SANITIZERS)

TEST_NAME = re.compile(r"^(TEST|TEST_F|TEST_P|TYPED_TEST)\((\w+),\s*(\w+)\)", re.MULTILINE)


class BuildError(Exception):
    pass


class Stopped(Exception):
    pass


class Tree:
    """The copy, and how its objects are compiled and its test programs linked."""

    def __init__(self, root, folder, programs):
        self.root = root
        self.tree = os.path.join(folder, "tree")
        self.build = os.path.join(folder, "build")
        self.log = os.path.join(folder, "build.log")
        self.programs = programs
        self.stopping = False
        self.lock = threading.Lock()  # guards headers
        self.headers = {}
        self.precompiled = os.path.join(folder, "headers")
        shutil.rmtree(self.precompiled, ignore_errors=True)
        os.makedirs(self.precompiled)

    def prepare(self, jobs):
        self.copy()
        options = [
            "-DCMAKE_BUILD_TYPE=Debug",
            "-DCMAKE_CXX_FLAGS_DEBUG=-O1 -g0",
            "-DCMAKE_EXPORT_COMPILE_COMMANDS=ON",
            "-DWENDREL_BUILD_EXAMPLES=OFF",
        ]
        if shutil.which("ccache"):
            options.append("-DCMAKE_CXX_COMPILER_LAUNCHER=ccache")
        with open(self.log, "w", encoding="utf-8") as log:
            self.run_logged(
                ["cmake", "-S", self.tree, "-B", self.build, "-G", "Ninja", *options], log
            )
            present = output_of(["ninja", "-C", self.build, "-t", "targets", "all"])
            names = set(re.findall(r"^(\w+): phony", present, re.MULTILINE))
            self.programs = [name for name in self.programs if name in names]
            self.run_logged(["ninja", "-C", self.build, f"-j{jobs}", *self.programs], log)
        self.read_commands()

    def run_logged(self, command, log):
        if subprocess.run(command, stdout=log, stderr=subprocess.STDOUT, check=False).returncode:
            raise BuildError(f"the build failed; all of it is in {self.log}")

    # Files that are as they were keep their time, so that a second build is a short one.
    def copy(self):
        listed = output_of(
            ["git", "-C", self.root, "ls-files", "-z", "--cached", "--others", "--exclude-standard"]
        )
        wanted = set(filter(None, listed.split("\0")))
        for name in sorted(wanted):
            source, copy = os.path.join(self.root, name), os.path.join(self.tree, name)
            if not os.path.isfile(source):
                continue
            if os.path.exists(copy) and read(source) == read(copy):
                continue
            os.makedirs(os.path.dirname(copy), exist_ok=True)
            shutil.copy(source, copy)
        for folder, _, files in os.walk(self.tree):
            for file in files:
                name = os.path.relpath(os.path.join(folder, file), self.tree)
                if name not in wanted or not os.path.isfile(os.path.join(self.root, name)):
                    os.remove(os.path.join(folder, file))

    def read_commands(self):
        with open(os.path.join(self.build, "compile_commands.json"), encoding="utf-8") as file:
            entries = json.load(file)
        self.compilers = {}
        for entry in entries:
            words = shlex.split(entry["command"])
            if os.path.basename(words[0]) == "ccache":
                words = words[1:]
            at = words.index("-o")
            output = words[at + 1]
            source = os.path.relpath(entry["file"], self.tree)
            rest = words[:at] + words[at + 2 :]
            flags = [word for word in rest if word not in ("-c", entry["file"])]
            self.compilers[output] = (source, flags)
        self.linkers = {}
        for program in self.programs:
            target = "tests/unit/" + program
            text = output_of(["ninja", "-C", self.build, "-t", "commands", "-s", target])
            # The last command, without CMake's prefix and suffix.
            text = text.strip().splitlines()[-1].removeprefix(": && ").split(" && ")[0]
            words = shlex.split(text)
            if os.path.basename(words[0]) == "ccache":
                words = words[1:]
            self.linkers[program] = words
        deps = output_of(["ninja", "-C", self.build, "-t", "deps"])
        self.dependents = {}
        output = None
        for line in deps.splitlines():
            if line and not line.startswith(" "):
                output = line.split(":")[0]
            elif line.strip():
                path = os.path.normpath(os.path.join(self.build, line.strip()))
                self.dependents.setdefault(os.path.relpath(path, self.tree), []).append(output)

    # The library's objects that a change of `file` (relative to the tree) changes, and the test
    # programs' objects.
    def objects_of(self, file):
        linked = set().union(*map(set, self.linkers.values()))
        objects = sorted(o for o in self.dependents.get(file, []) if o in linked)
        library = [o for o in objects if self.compilers[o][0].startswith("src/")]
        return library, [o for o in objects if o not in library]

    # The precompiled includes of a source file, which take most of the compile time. None on
    # failure. `call` runs a command.
    def headers_of(self, file, command, call):
        with self.lock:
            if file not in self.headers:
                source = read(os.path.join(self.tree, file)).decode()
                before = source.split("\nnamespace ", 1)[0]
                name = os.path.join(self.precompiled, file.replace("/", "_") + ".h")
                with open(name, "w", encoding="utf-8") as out:
                    out.write("\n".join(re.findall(r"^#include .*$", before, re.MULTILINE)) + "\n")
                command = [*command, "-x", "c++-header", name, "-o", name + ".gch"]
                made = call(command, COMPILE_LIMIT_S)
                self.headers[file] = name if made == 0 else None
            return self.headers[file]

    # The tests that are named after a source file.
    def tests_named_after(self, names):
        patterns = []
        for name in names:
            path = os.path.join(self.tree, "tests/unit", name)
            if not os.path.exists(path):
                continue
            for kind, suite, test in TEST_NAME.findall(read(path).decode()):
                patterns.append(
                    {"TEST_P": f"*/{suite}.{test}/*", "TYPED_TEST": f"{suite}/*.{test}"}.get(
                        kind, f"{suite}.{test}"
                    )
                )
        return ":".join(patterns)


class Bench:
    """One place where a mutant is compiled, linked and run; a thread has its own."""

    def __init__(self, tree, folder):
        self.tree = tree
        self.folder = folder
        self.linker = next((name for name in ("lld", "gold") if shutil.which(f"ld.{name}")), None)
        shutil.rmtree(folder, ignore_errors=True)
        os.makedirs(folder)

    # Compiles the given objects with `source` in the place of `file`. Returns a digest of the
    # objects, or None on failure.
    def compile(self, file, source, objects, options):
        shutil.rmtree(os.path.join(self.folder, "src"), ignore_errors=True)
        changed = os.path.join(self.folder, file)
        os.makedirs(os.path.dirname(changed))
        with open(changed, "w", encoding="utf-8") as out:
            out.write(source)
        digest = hashlib.sha256()
        for name in objects:
            of, flags = self.tree.compilers[name]
            path = changed if of == file else os.path.join(self.tree.tree, of)
            output = self.path_of(name)
            command = [flags[0], "-I" + os.path.join(self.folder, "src"), *flags[1:]]
            command += [*options, "-g0", "-w"]
            if of == file and options == OPTIMISED:
                headers = self.tree.headers_of(file, command, self.call)
                command += ["-include", headers] if headers else []
            command += ["-c", path, "-o", output]
            if self.call(command, COMPILE_LIMIT_S) != 0:
                return None
            digest.update(read(output))
        return digest.hexdigest()

    def path_of(self, name):
        return os.path.join(self.folder, name.replace("/", "_"))

    def link(self, program, objects, options=()):
        output = os.path.join(self.folder, program)
        replaced = {name: self.path_of(name) for name in objects}
        command = [replaced.get(word, word) for word in self.tree.linkers[program]]
        command[command.index("-o") + 1] = output
        if self.linker:
            command.insert(1, f"-fuse-ld={self.linker}")
        command[1:1] = options
        if self.call(command, COMPILE_LIMIT_S) != 0:
            return None
        return output

    def call(self, command, limit):
        with open(os.path.join(self.folder, "command.log"), "w", encoding="utf-8") as log:
            process = subprocess.Popen(
                command, cwd=self.tree.build, stdout=log, stderr=subprocess.STDOUT, process_group=0
            )
            try:
                return self.wait(process, limit)
            finally:
                end(process)

    def wait(self, process, limit):
        deadline = time.monotonic() + limit
        while time.monotonic() < deadline:
            try:
                return process.wait(POLL_INTERVAL_S)
            except subprocess.TimeoutExpired:
                if self.tree.stopping:
                    raise Stopped from None
        return None

    # Runs a test program; None when all went well, else how it ended.
    def test(self, program, tests=None, sanitized=False):
        output = os.path.join(self.folder, "tests.log")
        command = [program, "--gtest_fail_fast", "--gtest_color=no", "--gtest_brief=0"]
        if tests:
            command.append("--gtest_filter=" + tests)
        with open(output, "wb") as log:
            process = subprocess.Popen(
                command,
                cwd=self.folder,
                stdin=subprocess.DEVNULL,
                stdout=log,
                stderr=subprocess.STDOUT,
                process_group=0,
            )
            try:
                limit_resources(process.pid, sanitized)
                cpu_limit = SANITIZED_CPU_LIMIT_S if sanitized else CPU_LIMIT_S
                end_of_run = self.watch(process, output, cpu_limit)
            finally:
                end(process)
        if end_of_run == "0":
            return None
        return f"{test_that_failed(output)}: {end_of_run}"

    def watch(self, process, output, cpu_limit):
        quiet = 0.0
        written, used = -1, -1.0
        start = time.monotonic()
        while True:
            try:
                code = process.wait(POLL_INTERVAL_S)
                return "0" if code == 0 else "failed" if code > 0 else f"signal {-code}"
            except subprocess.TimeoutExpired:
                pass
            if self.tree.stopping:
                raise Stopped
            size, (cpu, running) = os.path.getsize(output), usage(process.pid)
            if size != written:
                quiet, written = 0.0, size
            elif not running and cpu - used <= 0.02:
                quiet += POLL_INTERVAL_S
            used = cpu
            if quiet >= QUIET_LIMIT_S:
                return "hangs"
            if cpu >= cpu_limit:
                return "does not end"
            if time.monotonic() - start >= WALL_LIMIT_S:
                return "out of time"


def output_of(command):
    done = subprocess.run(command, check=False, capture_output=True, text=True)
    if done.returncode:
        raise BuildError(f"'{' '.join(command)}' failed: {done.stderr.strip()}")
    return done.stdout


def read(path):
    with open(path, "rb") as file:
        return file.read()


def limit_resources(pid, sanitized):
    try:
        resource.prlimit(pid, resource.RLIMIT_CORE, (0, 0))
        if not sanitized:  # a sanitizer reserves terabytes
            resource.prlimit(pid, resource.RLIMIT_AS, (MEMORY_LIMIT_BYTES, MEMORY_LIMIT_BYTES))
        resource.prlimit(pid, resource.RLIMIT_FSIZE, (OUTPUT_LIMIT_BYTES, OUTPUT_LIMIT_BYTES))
    except ProcessLookupError:
        pass  # it has ended already


# Seconds of processor time, and whether any thread runs or is about to.
def usage(pid):
    ticks, running = 0, False
    try:
        for thread in os.listdir(f"/proc/{pid}/task"):
            fields = read(f"/proc/{pid}/task/{thread}/stat").rsplit(b")", 1)[1].split()
            running = running or fields[0] in (b"R", b"D")
        fields = read(f"/proc/{pid}/stat").rsplit(b")", 1)[1].split()
        ticks = int(fields[11]) + int(fields[12])
    except (FileNotFoundError, ProcessLookupError):
        pass
    return ticks / os.sysconf("SC_CLK_TCK"), running


# Ends the process and its children.
def end(process):
    if process.poll() is None:
        try:
            os.killpg(process.pid, 9)
        except ProcessLookupError:
            pass
        process.wait()


def test_that_failed(output):
    text = read(output).decode(errors="replace")
    failed = re.findall(r"^\[  FAILED  \] (\S+?),? ", text, re.MULTILINE)
    if failed:
        return failed[0]
    last = re.findall(r"^\[ (RUN     |      OK) \] (\S+)", text, re.MULTILINE)[-1:]
    return "between tests" if not last or "OK" in last[0][0] else last[0][1]
