# SPDX-License-Identifier: MIT
"""What cppcheck finds in the C++ and C sources, and in the headers they include."""

import subprocess

import pytest

from sources import ROOT

FOLDERS = ("src", "tools", "examples", "bench", "tests")
# It stumbles over an empty first argument of GoogleTest's macro.
DEFINES = ('-DVD_VENDOR_TXT_DOMAIN="vandrel.com"', '-DVD_VERSION="0"', "-DINSTANTIATE_TEST_SUITE_P(...)=")


def findings(*paths):
    """One line a finding."""
    command = ["cppcheck", "--enable=warning,style,performance,portability", "--library=qt", "--library=googletest",
               "--library=posix", "--inline-suppr", "--quiet", "-j2", "-Iinclude", "-Isrc", *DEFINES,
               "--suppressions-list=tests/static/cppcheck-suppressions.txt",
               "--template={file}:{line}: {severity} {id}: {message}", *paths]
    outcome = subprocess.run(command, cwd=ROOT, capture_output=True, text=True, timeout=600)
    assert outcome.returncode == 0, outcome.stdout + outcome.stderr
    return outcome.stderr.splitlines()


@pytest.mark.parametrize("folder", FOLDERS)
def test_cppcheck_finds_nothing_in(folder):
    assert findings(folder) == []


@pytest.mark.parametrize("defect, finding", [
    ("int* p = new int[2]; delete p;", "error mismatchAllocDealloc"),
    ("int values[2] = {1, 2}; values[2] = 3;", "error arrayIndexOutOfBounds"),
    ("int value; if (value > 2) return;", "error uninitvar"),
])
def test_cppcheck_finds(defect, finding, tmp_path):
    source = tmp_path / "defect.cpp"
    source.write_text(f"void defect() {{ {defect} }}\n")

    assert any(f": {finding}: " in line for line in findings(source))
