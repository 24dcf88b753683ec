# SPDX-License-Identifier: MIT
"""The example is what the README shows, so it has to stay small enough to be read there."""

from buildkit import ROOT

EXAMPLE = (ROOT / "examples" / "discover" / "main.cpp").read_text()


def test_the_example_has_at_most_25_lines():
    assert len(EXAMPLE.splitlines()) <= 25


def test_the_readme_shows_the_example_word_for_word():
    assert f"```cpp\n{EXAMPLE}```\n" in (ROOT / "README.md").read_text()
