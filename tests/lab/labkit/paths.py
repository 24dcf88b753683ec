# SPDX-License-Identifier: MIT
"""Where the programs stand that the tests run."""

import os
from pathlib import Path

ROOT = Path(__file__).resolve().parents[3]
LAB = ROOT / "lab" / "lab"
PUBLISHERS = ROOT / "lab" / "publishers"
READERS = ROOT / "tests" / "lab" / "readers"
SIMULATE = ROOT / "tools" / "vd-simulate" / "vd-simulate"
FLEET = ROOT / "lab" / "demo" / "fleet.py"
RECONFIGURATION = ROOT / "lab" / "demo" / "reconfiguration.py"

BUILD = Path(os.environ.get("VD_BUILD_DIR", ROOT / "build" / "qt6")).resolve()
PROBE = BUILD / "tests" / "lab" / "probe" / "vd-lab-probe"
WORKER_THREAD_EXAMPLE = BUILD / "examples" / "worker-thread" / "worker-thread"
VD_DISCOVER = Path(os.environ.get("VD_DISCOVER", BUILD / "tools" / "vd-discover" / "vd-discover")).resolve()


def missing_programs():
    """What has to be built or installed before the tests can run, one line each."""
    programs = {PROBE: "VD_BUILD_DIR to a folder built with -DVD_BUILD_TESTS=ON", VD_DISCOVER: "VD_DISCOVER to it"}
    lines = [f"{program} is missing: build it, or set {remedy}" for program, remedy in programs.items()
             if not program.exists()]
    if not (PUBLISHERS / "node_modules").exists():
        lines.append(f"{PUBLISHERS / 'node_modules'} is missing: run 'npm ci --prefix lab/publishers'")
    return lines
