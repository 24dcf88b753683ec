# SPDX-License-Identifier: MIT
import sys
import tempfile
from pathlib import Path

import pytest

sys.path[:0] = [str(Path(__file__).resolve().parent), str(Path(__file__).resolve().parents[1])]

from responderkit import machine
from responderkit.machine import Machine
from responderkit.probe import Probe
from responderkit.scripted_bus import ScriptedBus


def pytest_configure(config):
    config.addinivalue_line("markers", "machine: needs a systemd of its own, which only root can start")
    if not Probe.PROGRAM.exists():
        pytest.exit(f"{Probe.PROGRAM} is missing: set VD_BUILD_DIR to a folder built with -DVD_BUILD_TESTS=ON",
                    returncode=2)


def pytest_collection_modifyitems(items):
    marked = [item for item in items if item.get_closest_marker("machine")]
    reason = machine.reason_against_machines() if marked else ""
    if reason:
        for item in marked:
            item.add_marker(pytest.mark.skip(reason=reason))


@pytest.fixture
def open_folder():
    """A folder that other users can read in, as pytest's are not."""
    with tempfile.TemporaryDirectory(prefix="vd-responder-tests-") as name:
        folder = Path(name)
        folder.chmod(0o755)
        yield folder


@pytest.fixture
def boot(open_folder):
    """Boots a machine with these unit files; it ends with the test, and nothing of it may be left."""
    machines = []

    def boot_machine(**units):
        machines.append(Machine(open_folder / f"machine-{len(machines)}", units))
        return machines[-1]

    yield boot_machine
    for each in machines:
        each.end()
    assert [each.what_is_left() for each in machines] == [[]] * len(machines)


@pytest.fixture
def bus(tmp_path):
    with ScriptedBus(tmp_path / "bus") as scripted:
        yield scripted


@pytest.fixture
def probe(bus):
    return Probe(bus.address)
