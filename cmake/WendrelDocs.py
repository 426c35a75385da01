"""Input filter of Doxygen: prints a file in the form that Doxygen expects.

Pages: links to other pages and their headings become references, so that they work in the HTML; of
links to anything else of the tree the text is left; pictures are shown from beside the HTML.
Headers: the comment at the top describes the file and not its include guard.
"""

import itertools
import os
import pathlib
import re
import sys

ROOT = pathlib.Path(__file__).resolve().parent.parent

LINK = re.compile(r"(!?)\[((?:[^\[\]]|\[[^\]]*\])*)\]\(([^()\s]+)\)")
# A code span, or bold text.
SPAN = re.compile(r"(?<!`)(`+)(?!`)([^\n]*?[^\n`])\1(?!`)|\*\*((?:`[^`\n]*`|[^*`\n]|\n(?!\n))+)\*\*")
URL_IN_CODE = re.compile(r"(?<![\w:])https?:")
HEADING = re.compile(r"(#{1,6})\s+(.*?)\s*$")


def is_page(path):
    """The pages that are given to Doxygen, see docs/Doxyfile.in."""
    if path.suffix != ".md" or not path.is_relative_to(ROOT):
        return False
    parts = path.relative_to(ROOT).parts
    return len(parts) == 1 or parts[0] == "docs" or (parts[0] == "examples" and len(parts) == 3)


def page_id(path):
    name = "-".join(path.relative_to(ROOT).with_suffix("").parts).lower()
    return "index-page" if name == "readme" else "page-" + name


def anchor_of(heading):
    """As the hosts of repositories make it."""
    text = re.sub(r"!?\[([^\]]*)\]\([^)]*\)", r"\1", heading)
    text = re.sub(r"<[^>]*>", "", text)
    return re.sub(r"[^\w\- ]", "", text.lower()).replace(" ", "-")


def change_link(page, match):
    picture, text, target = match.groups()
    text = " ".join(text.split())
    if re.match(r"[a-z]+:", target):
        return match.group(0)
    name, _, anchor = target.partition("#")
    path = pathlib.Path(os.path.normpath(page.parent / name)) if name else page
    if picture:
        # Wide ones are made smaller than they are; behind the link is the picture itself.
        image = f'<img src="{path.name}" alt="{text}" style="max-width:100%"/>'
        return f'<a href="{path.name}">{image}</a>'
    if path.is_dir() and is_page(path / "README.md"):
        path /= "README.md"
    if not is_page(path) or not path.exists():
        return text
    reference = page_id(path) + ("-" + anchor if anchor else "")
    return f'[{text.replace("`", "")}](@ref {reference})'


class Anchors:
    """Of the headings of a page, in their order. Those of the same words are numbered."""

    def __init__(self, page, lines):
        self.left = []
        seen = {}
        for kept, line in segments(lines):
            heading = None if kept else HEADING.match(line)
            if heading:
                anchor = anchor_of(heading.group(2))
                count = seen[anchor] = seen.get(anchor, -1) + 1
                self.left.append(f"{page_id(page)}-{anchor}" + (f"-{count}" if count else ""))
        if self.left:
            self.left[0] = page_id(page)

    def next(self):
        return self.left.pop(0)


def segments(lines):
    """Runs of lines of text, and of lines that are to stay as they are."""
    in_block = False
    for line in lines:
        fence = line.startswith("```")
        yield in_block or fence or line.startswith("    "), line
        in_block = in_block != fence


def change_span(match):
    """A code span ends at a single quote for Doxygen, unless it has two backquotes; a URL in one becomes a
    link without a "%"; and text that begins or ends with code is not bold."""
    quotes, code, bold = match.groups()
    if bold:
        return f"<b>{SPAN.sub(change_span, bold)}</b>"
    if quotes == "`" and "'" in code:
        quotes = "``"
    return quotes + URL_IN_CODE.sub(r"%\g<0>", code) + quotes


def change_text(page, lines, anchors):
    """Links may go over the end of a line."""
    text = LINK.sub(lambda match: change_link(page, match), "\n".join(lines))
    # Before code Doxygen shows some "<br>" as text.
    text = SPAN.sub(change_span, text.replace("<br>", "<br/>"))
    for line in text.split("\n"):
        heading = HEADING.match(line)
        yield f"{heading.group(1)} {heading.group(2)} {{#{anchors.next()}}}" if heading else line


def change_page(page, lines):
    anchors = Anchors(page, lines)
    for kept, run in itertools.groupby(segments(lines), lambda entry: entry[0]):
        run = [line for _, line in run]
        yield from run if kept else change_text(page, run, anchors)


def change_header(lines):
    if lines and lines[0].startswith("/// "):
        yield "/// @file"
    yield from lines


def main():
    file = pathlib.Path(sys.argv[1]).resolve()
    lines = file.read_text().splitlines()
    changed = change_page(file, lines) if file.suffix == ".md" else change_header(lines)
    print("\n".join(changed))


if __name__ == "__main__":
    main()
