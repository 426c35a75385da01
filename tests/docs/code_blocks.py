"""Checks the pages of the documentation: their code blocks and their links.

Each block of C++ or CMake must stand, as it is, in the file that was linked last before it: one
that is compiled. Each relative link must lead to a file or folder, and its #anchor to a heading.

Usage: code_blocks.py ROOT [PAGE...]; without pages, all that the documentation consists of.
"""

import pathlib
import re
import sys

PATTERNS = ("*.md", "docs/**/*.md", "examples/*/README.md", "tests/README.md",
            "tests/mutation/*.md")
LANGUAGES = ("cpp", "cmake")
SOURCE = re.compile(r"\]\(([^)#]+\.(?:cpp|txt|h))\)")
LINK = re.compile(r"\]\(<?([^)\s>]+)>?(?:\s+\"[^\"]*\")?\)|^\[[^\]]+\]:\s*(\S+)")
CODE_SPAN = re.compile(r"(`+)(?!`).*?(?<!`)\1(?!`)")


def lines_of(page):
    """Number, line and language: None outside of blocks; the fences themselves are left out."""
    language = None
    for number, line in enumerate(page.read_text().splitlines(), 1):
        fence = re.match(r"```(\S*)", line)
        if fence:
            language = None if language is not None else fence.group(1)
        else:
            yield number, line, language


def blocks_of(page):
    """Number of the first line, language, text, and the source that was linked before."""
    source = None
    block = None
    for number, line in enumerate(page.read_text().splitlines(), 1):
        if block is not None:
            if line == "```":
                yield start, language, "\n".join(block), source
                block = None
            else:
                block.append(line)
        elif line.startswith("```"):
            start, language, block = number, line[3:], []
        else:
            for target in SOURCE.findall(line):
                source = (page.parent / target).resolve()
    if block is not None:
        yield start, None, "", source


def check_blocks(page):
    for number, language, text, source in blocks_of(page):
        if language is None:
            yield number, "this block has no end"
        elif language not in LANGUAGES:
            continue
        elif source is None:
            yield number, "no file is linked before this block"
        elif not source.is_file():
            yield number, f"{source.name}, which this block should stand in, does not exist"
        elif text not in source.read_text():
            yield number, f"this block does not stand in {source.name}"


def anchor_of(heading):
    """As the hosts of repositories make it."""
    text = re.sub(r"!?\[([^\]]*)\]\([^)]*\)", r"\1", heading.strip())
    text = re.sub(r"<[^>]*>", "", text)
    return re.sub(r"[^\w\- ]", "", text.lower()).replace(" ", "-")


def anchors_of(page):
    seen = {}
    anchors = set()
    for _, line, language in lines_of(page):
        if language is not None:
            continue
        anchors.update(re.findall(r"<a (?:id|name)=\"([^\"]+)\"", line))
        if heading := re.match(r"#{1,6}\s+(.*?)\s*#*$", line):
            anchor = anchor_of(heading.group(1))
            count = seen[anchor] = seen.get(anchor, -1) + 1
            anchors.add(f"{anchor}-{count}" if count else anchor)
    return anchors


def links_of(page):
    for number, line, language in lines_of(page):
        if language is None:
            for inside, defined in LINK.findall(CODE_SPAN.sub("", line)):
                yield number, inside or defined


def check_links(page):
    for number, link in links_of(page):
        if re.match(r"[a-z]+:", link):
            continue
        path, _, anchor = link.partition("#")
        target = (page.parent / path).resolve() if path else page
        if not target.exists():
            yield number, f"{path} does not exist"
        elif anchor and target.suffix != ".md":
            yield number, f"{link}: only pages have anchors"
        elif anchor and anchor not in anchors_of(target):
            yield number, f"{target.name} has no heading #{anchor}"


def main():
    root = pathlib.Path(sys.argv[1])
    pages = [root / name for name in sys.argv[2:]]
    if not pages:
        pages = sorted({page for pattern in PATTERNS for page in root.glob(pattern)})
    complaints = [f"{page.relative_to(root)}:{number}: {text}" for page in pages
                  for number, text in (*check_blocks(page), *check_links(page))]
    blocks = sum(1 for page in pages for block in blocks_of(page) if block[1] in LANGUAGES)
    links = sum(1 for page in pages for _ in links_of(page))
    if blocks == 0 or links == 0:
        complaints.append("nothing found to check: is this still looking at the right pages?")
    print("\n".join(complaints) or
          f"{len(pages)} pages: {blocks} code blocks stand in their files, {links} links lead somewhere")
    return 1 if complaints else 0


if __name__ == "__main__":
    sys.exit(main())
