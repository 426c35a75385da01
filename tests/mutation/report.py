"""Results of mutants, stored in a file and printed as tables."""

import collections
import json
import os

KILLED, SURVIVED, SAME_CODE, TWIN, NOT_COMPILED = (
    "killed",
    "survived",
    "same code",
    "twin",
    "not compiled",
)
COUNTED = (KILLED, SURVIVED)


class Results:
    """One line a mutant; a later line replaces an earlier one."""

    def __init__(self, folder):
        self.path = os.path.join(folder, "results.jsonl")
        self.known = {}

    def load(self):
        if not os.path.exists(self.path):
            return
        with open(self.path, encoding="utf-8") as file:
            for line in file:
                row = json.loads(line)
                self.known[row["key"]] = row

    def clear(self):
        if os.path.exists(self.path):
            os.remove(self.path)

    def add(self, row):
        self.known[row["key"]] = row
        with open(self.path, "a", encoding="utf-8") as file:
            file.write(json.dumps(row) + "\n")


def row_of(mutant, key, status, how, seconds):
    return {
        "key": key,
        "file": mutant.file,
        "line": mutant.line,
        "function": mutant.function,
        "change": mutant.change,
        "status": status,
        "how": how,
        "seconds": round(seconds, 1),
    }


def line_of(row, counted):
    how = f"  [{row['how']}]" if row["how"] else ""
    return (
        f"{counted:5} {row['status']:12} {row['seconds']:6.1f} s  "
        f"{row['file']}:{row['line']} {row['change']}{how}"
    )


# As a row of the table of survivors begins.
def table_row(row):
    change = row["change"].replace("|", "\\|")
    return f"| `{row['file']}` | `{row['function']}` | {change} |"


def counts_of(rows, name_of):
    counts = collections.defaultdict(collections.Counter)
    for row in rows:
        counts[name_of(row)][row["status"]] += 1
    return sorted(counts.items())


def print_counts(rows):
    tables = [
        counts_of(rows, lambda row: row["file"]),
        counts_of(rows, lambda row: "src/" + row["file"].split("/")[1]),
        counts_of(rows, lambda row: "all"),
    ]
    print(f"\n{'':40}   tried  killed  survived  same code  twins  not compiled")
    for name, counts in (line for table in tables for line in table):
        tried = sum(counts[status] for status in COUNTED)
        print(
            f"{name:40} {tried:7} {counts[KILLED]:7} {counts[SURVIVED]:9} "
            f"{counts[SAME_CODE]:10} {counts[TWIN]:6} {counts[NOT_COMPILED]:13}"
        )


def read_or_nothing(path):
    if not os.path.exists(path):
        return ""
    with open(path, encoding="utf-8") as file:
        return file.read()


# Prints all tables; false when a survivor has no row in the file `table`.
def tell(rows, seconds, table):
    print_counts(rows)
    explained = read_or_nothing(table)
    survivors = [row for row in rows if row["status"] == SURVIVED]
    survivors.sort(key=lambda row: (row["file"], row["line"]))
    new = [row for row in survivors if table_row(row) not in explained]
    if survivors:
        print("\nSurvivors; + is missing in tests/mutation/survivors.md")
    for row in survivors:
        print(f"{'+' if row in new else ' '} {row['file']}:{row['line']}\n  {table_row(row)}")
    tried = sum(row["status"] in COUNTED for row in rows)
    share = 100 * len(survivors) / tried if tried else 0
    print(
        f"\n{tried} mutants, {tried - len(survivors)} killed, {len(survivors)} survived "
        f"({share:.1f} %), {len(new)} of these without a reason; {seconds / 60:.0f} minutes"
    )
    return not new
