# SPDX-License-Identifier: MIT
"""The layout of the C++ sources."""

import subprocess

from sources import ROOT

FOLDERS = ("include", "src", "tools", "examples")


def test_the_sources_are_laid_out_as_clang_format_would():
    paths = sorted(path for folder in FOLDERS for path in (ROOT / folder).rglob("*")
                   if path.suffix in (".h", ".cpp"))

    outcome = subprocess.run(["clang-format", "--dry-run", "-Werror", *paths], stderr=subprocess.PIPE, text=True)

    assert outcome.returncode == 0, outcome.stderr
