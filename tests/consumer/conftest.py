# SPDX-License-Identifier: MIT
import os
import sys
from pathlib import Path

import pytest

sys.path.insert(0, str(Path(__file__).resolve().parents[1]))

import buildkit


@pytest.fixture(scope="session")
def build_tree(tmp_path_factory):
    """A built tree of the library: VD_BUILD_DIR, or one that is made here."""
    given = os.environ.get("VD_BUILD_DIR")
    if given:
        return Path(given).resolve()
    folder = tmp_path_factory.mktemp("library")
    # For debugging, as only then would a path of the build stand in the program text.
    buildkit.build_and_install_library(folder, "-DCMAKE_BUILD_TYPE=Debug", "-DVD_BUILD_TOOLS=ON")
    return folder / "build"


@pytest.fixture(scope="session")
def prefix(build_tree, tmp_path_factory):
    """Where the library is installed."""
    folder = tmp_path_factory.mktemp("installed") / "prefix"
    buildkit.succeed("cmake", "--install", build_tree, "--prefix", folder)
    return folder


@pytest.fixture(scope="session")
def moved_prefix(build_tree, tmp_path_factory):
    """Where the library is after the folder it was installed in has been moved."""
    folder = tmp_path_factory.mktemp("moved")
    buildkit.succeed("cmake", "--install", build_tree, "--prefix", folder / "before")
    (folder / "before").rename(folder / "after a move")
    return folder / "after a move"


@pytest.fixture(scope="session")
def qt_major(build_tree):
    return int(buildkit.cache_value(build_tree, "VD_QT_MAJOR"))


@pytest.fixture(scope="session")
def library_standard(qt_major):
    """The oldest C++ that hosts with this Qt compile the headers as."""
    return "-std=c++17" if qt_major == 6 else "-std=c++11"
