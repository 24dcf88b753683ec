# SPDX-License-Identifier: MIT
"""With the older versions of Qt the library is compiled as the language their users have."""

import json
import re

import pytest

from buildkit import configure_library
from sources import library_files, name_of


# Compiled instead of their like where another service manager is asked for, or none is there.
OTHER_SERVICE_MANAGERS = {"src/responder/NoServiceController.cpp", "src/responder/QtServiceController.cpp"}


@pytest.fixture(scope="module")
def commands(tmp_path_factory):
    """Source file to compiler command of a build on Qt 5."""
    build = tmp_path_factory.mktemp("qt5")
    configured = configure_library(build, "-DVD_QT_MAJOR=5", "-DCMAKE_EXPORT_COMPILE_COMMANDS=ON")
    assert configured.returncode == 0, configured.stderr
    entries = json.loads((build / "compile_commands.json").read_text())
    return {entry["file"]: entry["command"] for entry in entries}


def test_each_source_of_the_library_is_compiled_on_qt_5(commands):
    compiled = {file for file in commands if "_autogen" not in file}

    assert compiled == {str(path) for path in library_files()
                        if path.suffix == ".cpp" and name_of(path) not in OTHER_SERVICE_MANAGERS}


def test_each_source_is_compiled_as_cxx11_on_qt_5(commands):
    standards = {file: re.findall(r"-std=\S+", command) for file, command in commands.items()}

    assert {file: found for file, found in standards.items() if found != ["-std=c++11"]} == {}


def test_each_source_is_compiled_with_the_headers_of_qt_5_and_of_no_other(commands):
    headers = {file: set(re.findall(r"/(qt\d)/QtCore\b", command)) for file, command in commands.items()}

    assert {file: found for file, found in headers.items() if found != {"qt5"}} == {}
