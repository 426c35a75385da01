"""Builds the documentation with Doxygen, without a warning, and checks its links.

    reference.py DOXYGEN DOXYFILE HTML_FOLDER
"""

import html.parser
import pathlib
import re
import shutil
import subprocess
import sys
import urllib.parse

# Files that the HTML must contain.
MUST_HAVE = ("classqv_1_1http_1_1HttpServer.html", "classqv_1_1kit_1_1Request.html",
             "classqv_1_1qvLog.html", "classqv_1_1Url.html", "classqv_1_1kit_1_1websocket_1_1Session.html",
             "classqv_1_1kit_1_1DeferredResponse.html", "page-docs-polling-mode.html",
             "page-docs-limits-and-defaults.html", "page-docs-troubleshooting.html",
             "page-docs-request-lifecycle.html", "page-docs-websocket.html", "page-docs-websocket-polling-mode.html", "page-security.html",
             "request.svg", "index.html")


ROOT = pathlib.Path(__file__).resolve().parents[3]
DOXYGEN = "https://www.doxygen.org/index.html"


class Page(html.parser.HTMLParser):
    def __init__(self, text):
        super().__init__()
        self.targets = set()
        self.anchors = set()
        self.feed(text)

    def handle_starttag(self, tag, attrs):
        for name, value in attrs:
            if name in ("id", "name") and value:
                self.anchors.add(value)
            elif name in ("href", "src") and value and tag in ("a", "img", "object", "link", "script"):
                self.targets.add(value)


def shown_markup(folder):
    """Markup of pages that Doxygen does not understand and shows as text."""
    for path in sorted(folder.glob("*page-*.html")):
        for text in ("&lt;br", "\\|"):
            if text in path.read_text():
                yield f"{path.name} shows {text}"


def external_links():
    """Those of the pages. Doxygen makes links of URLs in code as well, which lead nowhere."""
    for pattern in ("*.md", "docs/*.md", "examples/*/*.md"):
        for page in ROOT.glob(pattern):
            yield from re.findall(r"\]\(([a-z]+:[^)\s]+)\)", page.read_text())


def broken_links(folder):
    pages = {path.name: Page(path.read_text(errors="replace")) for path in folder.glob("*.html")}
    external = {DOXYGEN, *external_links()}
    checked = 0
    for name, page in sorted(pages.items()):
        for target in sorted(page.targets):
            if target == "#":
                continue
            if re.match(r"[a-z]+:", target):
                if target not in external:
                    yield f"{name}: {target} is not a link of a page"
                continue
            checked += 1
            file, _, anchor = urllib.parse.unquote(target).partition("#")
            if not (folder / file).exists():
                yield f"{name}: there is no {file}"
            # Doxygen's own lists name some members that it does not show.
            elif anchor and re.match(r"index|page-", name) and anchor not in pages[file or name].anchors:
                yield f"{name}: there is no {target}"
    if checked < 500:
        yield f"only {checked} links found: are these the right pages?"


def main():
    doxygen, doxyfile, folder = sys.argv[1], sys.argv[2], pathlib.Path(sys.argv[3])
    shutil.rmtree(folder, ignore_errors=True)
    done = subprocess.run([doxygen, doxyfile], capture_output=True, text=True, check=False)
    complaints = [line for line in (done.stdout + done.stderr).splitlines() if line.strip()]
    if done.returncode != 0:
        complaints.append(f"doxygen ended with {done.returncode}")
    if folder.is_dir():
        complaints += [f"{name} is missing" for name in MUST_HAVE if not (folder / name).exists()]
        complaints += broken_links(folder)
        complaints += shown_markup(folder)
    print("\n".join(complaints) or "built without a warning; all links are valid")
    return 1 if complaints else 0


if __name__ == "__main__":
    sys.exit(main())
