"""The prose of a file: the text of a page, or the comments of a program."""

import io
import re
import tokenize

C_LIKE = (".cpp", ".h", ".h.in", ".js", ".mjs", ".css")
HASH = (".sh", ".cmake", ".cmake.in", ".pc.in", ".cfg", ".conf", ".yml", "CMakeLists.txt", ".ci/run",
        "Doxyfile.in", ".clang-tidy", ".clang-format", ".codespellrc")
# Texts first, so that a // in a text starts no comment. A ' after a digit separates digits.
C_TOKEN = re.compile(r'R"(?P<mark>[^ ()\\]{0,16})\(.*?\)(?P=mark)"'
                     r'|"(?:\\.|[^"\\\n])*"|(?<![0-9A-Fa-f])\'(?:\\.|[^\'\\\n])*\''
                     r"|(?P<comment>//[^\n]*|/\*.*?\*/)", re.DOTALL)
HASH_COMMENT = re.compile(r"(?:^|(?<=[ \t]))#(?!!).*$")
HTML_COMMENT = re.compile(r"<!--.*?-->", re.DOTALL)
CODE_BLOCK = re.compile(r"^(```|~~~).*?^\1", re.DOTALL | re.MULTILINE)
CODE_SPAN = re.compile(r"`[^`\n]*`")
LINK_TARGET = re.compile(r"\]\([^)]*\)")


def _without(pattern, text):
    """The text with each match replaced by its line ends."""
    return pattern.sub(lambda match: " " + "\n" * match.group(0).count("\n"), text)


def _matches(pattern, text, group=0):
    for match in pattern.finditer(text):
        if match.group(group):
            first = text.count("\n", 0, match.start(group)) + 1
            for offset, line in enumerate(match.group(group).splitlines()):
                yield first + offset, line


def _of_python(text):
    try:
        before = tokenize.NEWLINE
        for token in tokenize.generate_tokens(io.StringIO(text).readline):
            if token.type == tokenize.COMMENT and not token.string.startswith("#!"):
                yield token.start[0], token.string
            # A text that is a statement of its own documents its module, class or function.
            elif token.type == tokenize.STRING and before in (
                    tokenize.NEWLINE, tokenize.INDENT, tokenize.DEDENT, tokenize.ENCODING):
                for offset, line in enumerate(token.string.splitlines()):
                    yield token.start[0] + offset, line
            if token.type not in (tokenize.COMMENT, tokenize.NL):
                before = token.type
    except tokenize.TokenError:
        return


def _of_page(text):
    for pattern in (CODE_BLOCK, HTML_COMMENT, CODE_SPAN, LINK_TARGET):
        text = _without(pattern, text)
    yield from enumerate(text.splitlines(), 1)


def _of_hash_lines(text):
    for number, line in enumerate(text.splitlines(), 1):
        found = HASH_COMMENT.search(line)
        if found:
            yield number, found.group(0)


def of(name, text):
    """Pairs of a line number and the prose of that line; nothing for files of another kind."""
    if name.endswith(".md"):
        return _of_page(text)
    if name.endswith(".py"):
        return _of_python(text)
    if name.endswith(C_LIKE):
        return _matches(C_TOKEN, text, "comment")
    if name.endswith(".html"):
        return _matches(HTML_COMMENT, text)
    if name.endswith(HASH):
        return _of_hash_lines(text)
    return iter(())
