# SPDX-License-Identifier: MIT
"""The build for release, whose files and commands are looked at."""

import json
import os
from pathlib import Path

from buildkit import ROOT

RELEASE = Path(os.environ.get("VD_RELEASE_DIR", ROOT / "build" / "release")).resolve()
REMEDY = "Build it: cmake --preset release -DVD_BUILD_BENCHMARKS=ON && cmake --build --preset release"


def commands_of(*folders):
    """Each source in these folders of the project to the command it is compiled with, as CMake tells of it."""
    path = RELEASE / "compile_commands.json"
    assert path.exists(), f"{path} is missing. {REMEDY}"
    entries = {entry["file"]: entry for entry in json.loads(path.read_text())}
    chosen = {}
    for folder in folders:
        inside = {file: entry for file, entry in entries.items() if file.startswith(f"{ROOT / folder}/")}
        assert inside, f"{RELEASE} was built without {folder}. {REMEDY}"
        chosen.update(inside)
    return chosen
