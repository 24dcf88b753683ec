# SPDX-License-Identifier: MIT
"""What is installed runs by itself, also after it was moved."""

import subprocess
from pathlib import Path

SOURCE = Path(__file__).resolve().parents[2] / "tools" / "vd-simulate"

PROJECT = f"""
cmake_minimum_required(VERSION 3.16)
project(installation LANGUAGES C)
include(GNUInstallDirs)
add_subdirectory({SOURCE} vd-simulate)
"""


def succeed(*command):
    outcome = subprocess.run(list(map(str, command)), stdin=subprocess.DEVNULL, capture_output=True, text=True,
                             timeout=60, check=False)
    assert outcome.returncode == 0, outcome.stderr
    return outcome.stdout


def test_the_installed_program_starts_where_it_is_and_where_it_was_moved(tmp_path):
    (tmp_path / "CMakeLists.txt").write_text(PROJECT)
    prefix, moved = tmp_path / "prefix", tmp_path / "moved"
    succeed("cmake", "-G", "Ninja", "-S", tmp_path, "-B", tmp_path / "build",
            f"-DCMAKE_INSTALL_PREFIX={prefix}")
    succeed("cmake", "--install", tmp_path / "build")

    installed = {path.relative_to(prefix) for path in prefix.rglob("*") if not path.is_dir()}
    modules = {Path("share/vddiscovery/vd-simulate/vdsimulate") / path.name
               for path in (SOURCE / "vdsimulate").glob("*.py")}
    assert installed == {Path("bin/vd-simulate"), Path("share/vddiscovery/vd-simulate/vd-simulate"), *modules}

    assert succeed(prefix / "bin" / "vd-simulate", "--help").startswith("usage: vd-simulate ")
    prefix.rename(moved)
    assert succeed(moved / "bin" / "vd-simulate", "--help").startswith("usage: vd-simulate ")
