# SPDX-License-Identifier: MIT
"""vd-discover responder on a machine whose service manager is a real systemd."""

import os
import subprocess
from pathlib import Path

import pytest

from responderkit import units
from responderkit.probe import BUILD, LONGEST_RUN_S

pytestmark = pytest.mark.machine

VD_DISCOVER = Path(os.environ.get("VD_DISCOVER", BUILD / "tools" / "vd-discover" / "vd-discover")).resolve()
NOBODY = 65534

START = ("--start",)


def responder(machine, *options, user=None):
    """Returns the exit status and the lines on standard output and standard error."""
    as_user = {"user": user, "group": user, "extra_groups": []} if user else {}
    outcome = subprocess.run([VD_DISCOVER, "responder", *options], text=True, check=False, timeout=LONGEST_RUN_S,
                             env={**os.environ, "DBUS_SYSTEM_BUS_ADDRESS": machine.address}, capture_output=True,
                             stdin=subprocess.DEVNULL, **as_user)
    return outcome.returncode, outcome.stdout.splitlines(), outcome.stderr.splitlines()


def test_a_stopped_service_is_told_started_and_told_to_run(boot):
    machine = boot(mdnsd=units.SOUND)
    assert responder(machine) == (
        1, ["mdnsd is installed and not running"],
        ['vd-discover: mdnsd is not running; start it with "sudo vd-discover responder --start"'])
    assert machine.active_state("mdnsd") == "inactive"
    assert responder(machine, *START) == (
        0, ["mdnsd is installed and was not running; it was started and is running now"], [])
    assert machine.active_state("mdnsd") == "active"
    assert responder(machine) == (0, ["mdnsd is installed and running"], [])
    assert responder(machine, *START) == (0, ["mdnsd is installed and running"], [])


@pytest.mark.parametrize("mdnsd, finding, remedy", [
    (None, "mdnsd is not installed",
     'there is no service mdnsd; install it with "sudo apt install mdnsd", or do without it, as browse and publish '
     "need the Avahi daemon only"),
    (units.MASKED, "mdnsd is masked",
     'mdnsd is masked, so it cannot be started; allow it with "sudo systemctl unmask mdnsd"'),
    (units.INVALID, "mdnsd is not installed properly",
     'the unit file of mdnsd is not valid; see why with "systemctl status mdnsd" and mend it'),
    (units.FAILS_TO_START, "mdnsd is installed; starting it failed",
     'mdnsd failed to start; see why with "journalctl -u mdnsd"'),
    (units.BY_DEPENDENCY_ONLY, "mdnsd is installed; it was not started",
     'the unit file of mdnsd forbids to start it by hand; see what starts it with "systemctl cat mdnsd"'),
], ids=["absent", "masked", "invalid", "failing", "refused"])
def test_what_does_not_start_is_told_with_the_remedy(boot, mdnsd, finding, remedy):
    machine = boot(**({"mdnsd": mdnsd} if mdnsd else {}))
    assert responder(machine, *START) == (1, [finding], [f"vd-discover: {remedy}"])


def test_a_user_without_rights_is_told_how_to_get_them(boot):
    machine = boot(mdnsd=units.SOUND)
    assert responder(machine, *START, user=NOBODY) == (
        1, ["mdnsd is installed and not running; it was not started"],
        ['vd-discover: this user may not start services; use "sudo vd-discover responder --start" or '
         '"sudo systemctl start mdnsd"'])
    assert machine.active_state("mdnsd") == "inactive"
