# SPDX-License-Identifier: MIT
import sys
from pathlib import Path

import pytest

sys.path.insert(0, str(Path(__file__).resolve().parents[2] / "tools" / "vd-simulate"))

from simkit import Simulated  # noqa: E402


@pytest.fixture
def simulated():
    """A camera, a storage server and a printer, whose announcements and account are only noted down."""
    return Simulated()
