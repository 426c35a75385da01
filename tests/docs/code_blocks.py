"""Checks that each code block of a Markdown page stands, as it is, in a file that is compiled.

A block belongs to the file that was linked last before it. Usage: code_blocks.py ROOT PAGE...
"""

import pathlib
import re
import sys

LANGUAGES = ("cpp", "cmake")


def check(root, page):
    """Yields a line for each block that does not stand in its file."""
    source = None
    block = None
    for number, line in enumerate((root / page).read_text().splitlines(), 1):
        if block is None:
            if line.startswith("```") and line[3:] in LANGUAGES:
                block, start = [], number
                continue
            for target in re.findall(r"\]\(([^)#]+\.(?:cpp|txt|h))\)", line):
                source = ((root / page).parent / target).resolve()
        elif line.startswith("```"):
            text = "\n".join(block)
            if source is None:
                yield f"{page}:{start}: no file is linked before this block"
            elif text not in source.read_text():
                yield f"{page}:{start}: this block does not stand in {source.name}"
            block = None
        else:
            block.append(line)


def main():
    root = pathlib.Path(sys.argv[1])
    pages = sys.argv[2:]
    complaints = [line for page in pages for line in check(root, page)]
    blocks = sum((root / page).read_text().count("\n```c") for page in pages)
    if blocks == 0:
        complaints.append("no code block found: is the check still looking at the right pages?")
    print("\n".join(complaints) or f"{blocks} code blocks stand in compiled files")
    return 1 if complaints else 0


if __name__ == "__main__":
    sys.exit(main())
