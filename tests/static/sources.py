# SPDX-License-Identifier: MIT
"""The library's sources as text to search, without comments and without what stands in quotes."""

import re
from pathlib import Path

ROOT = Path(__file__).resolve().parents[2]

_TOKEN = re.compile(
    r"""(?P<comment>//[^\n]*|/\*.*?\*/)
      | (?P<raw>R"(?P<mark>[^(\s]*)\(.*?\)(?P=mark)")
      | (?P<string>"(?:\\.|[^"\\\n])*")
      | (?P<char>(?<![0-9A-Fa-f])'(?:\\.|[^'\\\n])+')
    """,
    re.VERBOSE | re.DOTALL,
)


def library_files():
    return sorted(path for folder in ("include", "src") for path in (ROOT / folder).rglob("*")
                  if path.suffix in (".h", ".cpp"))


def name_of(path):
    return str(path.relative_to(ROOT))


def _blank(text):
    return re.sub(r"[^\n]", " ", text)


def without_comments(text):
    """Every character keeps its place, so that line numbers stay."""
    return _TOKEN.sub(lambda match: _blank(match[0]) if match["comment"] else match[0], text)


def without_comments_and_literals(text):
    """As without_comments(), and quotes are left empty."""
    def replace(match):
        if match["comment"]:
            return _blank(match[0])
        return match[0][0] + _blank(match[0][1:-1]) + match[0][-1]
    return _TOKEN.sub(replace, text)


def without_includes(code):
    return re.sub(r"#\s*include[^\n]*", lambda match: _blank(match[0]), code)


def line_of(text, offset):
    return text.count("\n", 0, offset) + 1


def arguments_of_calls(code, function):
    """(offset, text between the parentheses) of each call of a function whose name matches."""
    for match in re.finditer(rf"\b(?:{function})\s*\(", code):
        depth, end = 1, match.end()
        while depth and end < len(code):
            depth += {"(": 1, ")": -1}.get(code[end], 0)
            end += 1
        yield match.start(), code[match.end():end - 1]
