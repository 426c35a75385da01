#!/usr/bin/env python3
"""Counts instructions and allocations of the library per request or message; checks them against a budget.

Instructions are counted by callgrind, heap allocations by the program itself; both only inside the
library, not inside the daemon or the application. README.md defines the boundary. Counts are
reproducible, so a difference is caused by the code.
"""

import argparse
import collections
import json
import os
import platform
import re
import subprocess
import sys
import tempfile

EXIT_EXCEEDED = 1
EXIT_NOT_COMPARABLE = 77

TOLERANCE_PERCENT = 3

# Selects the same functions of the C library on every processor. With ERMS callgrind would count a
# copy byte by byte.
TUNABLES = "glibc.cpu.hwcaps=" + ",".join(
    f"-{feature}" for feature in (
        "AVX", "AVX2", "AVX512F", "AVX512VL", "AVX512BW", "AVX_Fast_Unaligned_Load", "BMI2",
        "ERMS", "FSRM", "LZCNT", "MOVBE", "POPCNT", "RTM", "SSE4_1", "SSE4_2", "SSSE3"))

BUDGET_FILE = os.path.join(os.path.dirname(os.path.dirname(os.path.abspath(__file__))),
                           "budget.json")

# Besides our code the number of instructions depends on these.
DECISIVE = ("architecture", "compiler", "libstdc++", "glibc")

Counted = collections.namedtuple("Counted", "instructions allocations bytes")


def environment(**more):
    """A minimal environment: its size moves the stack."""
    return {"LC_ALL": "C", **more}


def run_counted(program, valgrind, scenario, counts_file):
    """Runs one scenario under callgrind, which writes its counts to `counts_file`.1; returns the
    output of the program."""
    done = subprocess.run(
        [valgrind, "--tool=callgrind", "--toggle-collect=wendrelBudgetCross*",
         "--zero-before=wendrelBudgetBegin", "--dump-after=wendrelBudgetEnd",
         f"--callgrind-out-file={counts_file}", os.path.abspath(program), "--count", scenario],
        env=environment(GLIBC_TUNABLES=TUNABLES, PATH=os.defpath), check=False,
        capture_output=True, text=True)
    if done.returncode != 0:
        sys.exit(f"{valgrind} {program} ended with {done.returncode}:\n{done.stdout}{done.stderr}")
    return done.stdout


def scenarios_of(program):
    done = subprocess.run([os.path.abspath(program), "--list"], check=True, capture_output=True,
                          text=True)
    return [line.split()[0] for line in done.stdout.splitlines()]


def collected_instructions(path):
    with open(path, encoding="utf-8", errors="replace") as file:
        for line in file:
            if line.startswith("summary:"):
                return int(line.split()[1])
    sys.exit(f"{path} has no summary")


def valgrind_version(valgrind):
    done = subprocess.run([valgrind, "--version"], check=True, capture_output=True, text=True)
    return done.stdout.strip().removeprefix("valgrind-")


def measure(program, valgrind, directory):
    """The tool versions, and the counts of each scenario. Each scenario has its own process, because
    the cost of an allocation depends on earlier ones."""
    made_with = {"architecture": platform.machine(), "valgrind": valgrind_version(valgrind)}
    counts = {}
    for scenario in scenarios_of(program):
        counts_file = os.path.join(directory, scenario)
        for line in run_counted(program, valgrind, scenario, counts_file).splitlines():
            words = line.split()
            if words[0] == "madeWith":
                made_with[words[1]] = " ".join(words[2:])
                continue
            repetitions, allocations, allocated = map(int, words[1:])
            # Some blocks of memory serve several messages: hence the fractions.
            counts[scenario] = Counted(
                round(collected_instructions(f"{counts_file}.1") / repetitions),
                round(allocations / repetitions, 3), round(allocated / repetitions))
    return made_with, counts


def whole(number):
    return int(number) if number == int(number) else number


def write_budget(path, made_with, counts):
    budget = {
        "tolerancePercent": TOLERANCE_PERCENT,
        "madeWith": made_with,
        "scenarios": {name: {"instructions": counted.instructions,
                             "allocations": whole(counted.allocations)}
                      for name, counted in counts.items()},
    }
    with open(path, "w", encoding="utf-8") as file:
        json.dump(budget, file, indent=4)
        file.write("\n")


def print_counts(counts):
    print("| scenario | instructions | allocations | bytes allocated |")
    print("|---|---:|---:|---:|")
    for name, counted in counts.items():
        print(f"| {name} | {counted.instructions} | {counted.allocations:g} | {counted.bytes} |")


def difference(measured, allowed):
    return f"{100 * (measured - allowed) / allowed:+.2f} %"


def compare(budget, counts, judge_instructions):
    """Prints the table; returns the exceeded limits."""
    exceeded = []
    print("| scenario | instructions | budget | difference "
          "| allocations | budget | difference | verdict |")
    print("|---|---:|---:|---:|---:|---:|---:|---|")
    for name, counted in counts.items():
        allowed = budget["scenarios"].get(name)
        if not allowed:
            exceeded.append(f"{name}: not in the budget")
            continue
        limit = allowed["instructions"] * (1 + budget["tolerancePercent"] / 100)
        found = []
        if judge_instructions and counted.instructions > limit:
            found.append("instructions")
        if counted.allocations > allowed["allocations"]:
            found.append("allocations")
        exceeded += [f"{name}: too many {kind}" for kind in found]
        print(f"| {name} | {counted.instructions} | {allowed['instructions']} "
              f"| {difference(counted.instructions, allowed['instructions'])} "
              f"| {counted.allocations:g} | {allowed['allocations']:g} "
              f"| {counted.allocations - allowed['allocations']:+g} "
              f"| {'too many ' + ' and '.join(found) if found else 'ok'} |")
    exceeded += [f"{name}: in the budget but not counted"
                 for name in budget["scenarios"] if name not in counts]
    return exceeded


def other_conditions(budget, made_with):
    return [f"{tool}: {made_with.get(tool, 'none')} here, {budget['madeWith'].get(tool, 'none')} there"
            for tool in DECISIVE if made_with.get(tool) != budget["madeWith"].get(tool)]


def check(path, made_with, counts, strict):
    """The exit code."""
    with open(path, encoding="utf-8") as file:
        budget = json.load(file)
    others = [] if strict else other_conditions(budget, made_with)
    exceeded = compare(budget, counts, not others)
    for line in exceeded:
        print(line)
    if exceeded:
        print("If intended, record a new budget with --write and give the reason in the commit.")
        return EXIT_EXCEEDED
    if others:
        print("The budget was recorded with other tools; instructions are not judged.")
        print("\n".join(others))
        return EXIT_NOT_COMPARABLE
    return 0


# Instructions by function.

def own_instructions(path):
    """Instructions of each function, without its callees."""
    names = {}
    costs = collections.Counter()
    current = None
    after_call = False
    with open(path, encoding="utf-8", errors="replace") as file:
        for line in file:
            function = re.match(r"fn=\((\d+)\)(?: (.*))?", line)
            if function:
                current = names.setdefault(function[1], function[2])
            elif line.startswith("calls="):
                after_call = True
            elif re.match(r"c?fn=", line):
                called = re.match(r"cfn=\((\d+)\)(?: (.*))?", line)
                names.setdefault(called[1], called[2])
            elif re.match(r"[0-9+*-]", line):
                if not after_call:
                    costs[current] += int(line.split()[1])
                after_call = False
    return costs


def print_hottest(directory, counts, how_many):
    for name in counts:
        costs = own_instructions(os.path.join(directory, f"{name}.1"))
        total = sum(costs.values())
        print(f"\n{name}: {counts[name].instructions} instructions by function")
        for function, cost in costs.most_common(how_many):
            print(f"{100 * cost / total:6.2f} %  {shortened(function)}")


# Allocations by call stack.

def shortened(function):
    """Shortens names of templates."""
    for long, short in (
            ("std::__cxx11::basic_string<char, std::char_traits<char>, std::allocator<char> >",
             "std::string"),
            ("std::__cxx11::", "std::"), ("(anonymous namespace)::", ""), ("[abi:cxx11]", "")):
        function = function.replace(long, short)
    return function if len(function) <= 120 else function[:117] + "..."


def without_arguments(function):
    return re.sub(r"\(.*", "", function.replace("(anonymous namespace)::", "")) or function


def resolve(places):
    """The functions at each place (file, offset); inlined functions first."""
    offsets = collections.defaultdict(list)
    for file, offset in sorted(places):
        offsets[file].append(offset)
    functions = {}
    for file, each in offsets.items():
        done = subprocess.run(["addr2line", "-a", "-f", "-i", "-C", "-e", file, *each], check=True,
                              capture_output=True, text=True)
        for part in re.split(r"^(?=0x)", done.stdout, flags=re.MULTILINE)[1:]:
            address, *lines = part.splitlines()
            functions[file, int(address, 16)] = list(zip(lines[::2], lines[1::2]))
    return functions


def is_ours(function):
    return function.startswith(("qv::", "(anonymous namespace)::qv::")) and \
        not function.startswith("qv::bench::")


def chain_of(frames):
    """Our functions on the call stack of an allocation, innermost first, and the place of the first."""
    ours = [(function, place) for function, place in frames if is_ours(function)]
    names = []
    for function, _ in ours:
        name = without_arguments(function)
        if not names or names[-1] != name:
            names.append(name)
    place = re.sub(r"^.*/(platform/\w+/src/|src/\w+/)", r"\1", ours[0][1].split(" ")[0]) \
        if ours else "?"
    return names, place


def print_allocations(program, scenario):
    done = subprocess.run([os.path.abspath(program), "--trace", scenario], env=environment(),
                          check=True, capture_output=True, text=True)
    traced = []
    for line in done.stdout.splitlines():
        size, *frames = line.split()
        traced.append((int(size), [(file, int(offset, 16)) for file, _, offset in
                                   (frame.rpartition("+") for frame in frames)]))
    functions = resolve({(file, hex(offset)) for _, frames in traced for file, offset in frames})
    groups = collections.defaultdict(list)
    for size, frames in traced:
        names, place = chain_of([each for frame in frames for each in functions[frame]])
        groups[place, " < ".join(names)].append(size)
    print(f"{scenario}: {len(traced)} allocations, {sum(size for size, _ in traced)} bytes")
    for (place, names), sizes in groups.items():
        print(f"{len(sizes):4}  {' + '.join(map(str, sizes[:4]))}{' + ...' if len(sizes) > 4 else ''}"
              f" bytes  {place}\n        {names}")
    if any(place == "?" or place.startswith("??") for place, _ in groups):
        print("Places are resolved only in a build with -DCMAKE_CXX_FLAGS=-g1.")


def main():
    parser = argparse.ArgumentParser(
        description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter,
        epilog=f"Exit code: 0 within the budget, {EXIT_EXCEEDED} when it is exceeded, "
               f"{EXIT_NOT_COMPARABLE} when it was recorded with another compiler or library.")
    parser.add_argument("--program", required=True, help="wendrel-bench-budget of a Release build")
    parser.add_argument("--budget", default=BUDGET_FILE, metavar="FILE",
                        help="the budget (default: bench/budget.json)")
    parser.add_argument("--valgrind", default="valgrind", help="the valgrind to run")
    parser.add_argument("--strict", action="store_true",
                        help="judge instructions also with other tools than those of the budget")
    parser.add_argument("--write", action="store_true", help="record the counts as the budget")
    parser.add_argument("--hottest", type=int, metavar="COUNT",
                        help="list the functions with the most instructions of each scenario")
    parser.add_argument("--allocations", nargs="?", const="hello", metavar="SCENARIO",
                        help="only list each allocation of one run of a scenario (default: hello) "
                             "with its call stack; for a build with -DCMAKE_CXX_FLAGS=-g1")
    arguments = parser.parse_args()
    if arguments.allocations:
        print_allocations(arguments.program, arguments.allocations)
        return 0
    with tempfile.TemporaryDirectory(prefix="wendrel-budget-") as directory:
        made_with, counts = measure(arguments.program, arguments.valgrind, directory)
        if arguments.write:
            write_budget(arguments.budget, made_with, counts)
            print_counts(counts)
            code = 0
        else:
            code = check(arguments.budget, made_with, counts, arguments.strict)
        if arguments.hottest:
            print_hottest(directory, counts, arguments.hottest)
    return code


if __name__ == "__main__":
    sys.exit(main())
