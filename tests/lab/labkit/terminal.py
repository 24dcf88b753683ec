# SPDX-License-Identifier: MIT
"""What text from the network must not bring into what a program writes."""

import re
import unicodedata

# Of the library's own text, that alone has control characters.
SERIAL_LINE = "\t\tser_no_vandrel.com "
LOG_LINE = re.compile(r"\S+Z \[\d\] ((Avahi|Managed)ServiceDiscovery::|TXTRecord (parsed|ERROR parsing) |"
                      rf"{SERIAL_LINE}|BTW: not yet implemented!$)")


def all_are_printable(text):
    return not [character for character in text
                if unicodedata.category(character) in ("Cc", "Cf", "Zl", "Zp", "Cs", "Co")]


def whole_lines(written):
    """The lines of what was written, each of which has an end and nothing in it that steers a terminal."""
    lines = written.decode().splitlines(keepends=True)
    for line in lines:
        assert line.endswith("\n") and all_are_printable(line[:-1].replace(SERIAL_LINE, "")), line
    return [line[:-1] for line in lines]
