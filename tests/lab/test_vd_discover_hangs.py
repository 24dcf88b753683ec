# SPDX-License-Identifier: MIT
"""vd-discover, when the Avahi daemon hangs while it is asked something in the middle of a run."""

import signal
import time

import pytest

from discover_messages import HANG
from labkit.devices import camera
from labkit.discover import events, with_either_class

# The known devices are queried for the first time after 15 s, give or take a twentieth. A query blocks for
# much longer than this when there is no answer.
QUERIED_AFTER_S = 17
LATEST_END_S = 2.5


def blocked_run(stage, *options):
    """A run that knows a camera and is to query it while the daemon hangs, in which plain discovery is blocked."""
    lab = stage.lab()
    stage.publisher(lab).publish(camera())
    running = stage.discover(lab, "--requery", *options)
    # One that began later has seen the camera, and so has the first.
    stage.discover(lab, "--count", "1").wait()
    time.sleep(0.5)
    lab.fault("viewer", "daemon-hang")
    time.sleep(QUERIED_AFTER_S)
    return lab, running


def told_of_hang(plain):
    # Managed discovery asks first whether the daemon has time for a query, and is not held up by it.
    return HANG + b"\n" if plain else b""


@with_either_class
def test_the_timeout_ends_a_run_whose_query_hangs_and_shows_what_was_seen(stage, plain):
    timeout = QUERIED_AFTER_S + 2
    _, running = blocked_run(stage, "--timeout", str(timeout), *plain)
    status, output, errors, seconds = running.wait()
    assert (status, output.count(b"\n"), output.count(b"Lobby")) == (0, 2, 1)
    assert errors == told_of_hang(plain)
    assert seconds < timeout + LATEST_END_S


@with_either_class
@pytest.mark.parametrize("number", [signal.SIGINT, signal.SIGTERM])
def test_one_signal_ends_following_whose_query_hangs(stage, number, plain):
    _, running = blocked_run(stage, "--follow", "--format", "json", *plain)
    begin = time.monotonic()
    status, output, errors, _ = running.interrupt(number)
    assert time.monotonic() - begin < LATEST_END_S
    assert (status, [event for event, _ in events(output)]) == (0, ["found"])
    assert errors == told_of_hang(plain)
