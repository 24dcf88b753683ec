# SPDX-License-Identifier: MIT
"""What clang-tidy finds in the library, the tools, the examples and the benchmarks, with the checks of .clang-tidy."""

import os
import re
import subprocess
from concurrent.futures import ThreadPoolExecutor

import pytest

from buildkit import ROOT
from release import RELEASE, commands_of

FOLDERS = ("src", "tools", "examples", "bench")


def findings(path, *options):
    """Each finding with its place, once."""
    command = ["clang-tidy-14", "--quiet", "--config-file", ROOT / ".clang-tidy", path, *options]
    outcome = subprocess.run(command, capture_output=True, text=True, timeout=900)
    found = re.findall(r"^\S+:\d+:\d+: (?:warning|error): .*$", outcome.stdout, re.MULTILINE)
    assert found or outcome.returncode == 0, outcome.stdout + outcome.stderr
    return sorted(set(found))


@pytest.fixture(scope="module")
def checks():
    """Source to what is found in it, at work on as many at once as there are processors."""
    with ThreadPoolExecutor(os.cpu_count()) as pool:
        yield {path: pool.submit(findings, path, "-p", RELEASE) for path in commands_of(*FOLDERS)}
        pool.shutdown(cancel_futures=True)


@pytest.mark.parametrize("folder", FOLDERS)
def test_clang_tidy_finds_nothing_in(folder, checks):
    found = [finding for path, check in checks.items() if path.startswith(f"{ROOT / folder}/")
             for finding in check.result()]

    assert found == []


@pytest.mark.parametrize("group, defect", [
    ("bugprone", "unsigned long f(const char* text) { return sizeof(text) / sizeof(text[0]); }"),
    ("cert", '#include <cstdio>\nvoid f() { std::remove("a"); }'),
    ("clang-analyzer", "int f(int* p) { if (!p) return *p; return 0; }"),
    ("concurrency", "#include <cstdlib>\nchar* f() { return std::getenv(\"A\"); }"),
    ("performance", "#include <string>\nstd::size_t f(std::string s) { return s.size(); }"),
])
def test_clang_tidy_finds_defects_of_the_group(group, defect, tmp_path):
    source = tmp_path / "defect.cpp"
    source.write_text(defect + "\n")

    assert any(f"[{group}-" in finding for finding in findings(source, "--", "-std=c++17"))
