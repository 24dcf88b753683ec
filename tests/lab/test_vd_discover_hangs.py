# SPDX-License-Identifier: MIT
"""vd-discover, when the Avahi daemon hangs while it is asked something in the middle of a run."""

import signal
import time

import pytest

from labkit.devices import camera, camera_record
from labkit.discover import events

HANG = (b"vd-discover: the Avahi daemon or the system bus does not answer; restart the daemon with "
        b'"sudo systemctl restart avahi-daemon"\n')
# The known devices are queried for the first time after 15 s, give or take a twentieth. A query blocks for
# much longer than this when there is no answer.
QUERIED_AFTER_S = 17
LATEST_END_S = 2.5


def blocked_run(stage, *options):
    """A run that knows a camera and is blocked in a query, begun more than QUERIED_AFTER_S ago."""
    lab = stage.lab()
    stage.publisher(lab).publish(camera())
    running = stage.discover(lab, "--requery", "--verbose", *options)
    assert running.errors.wait_for(lambda lines: any(b"ServiceResolve() -> CHECKSUM " in line for line in lines))
    lab.fault("viewer", "daemon-hang")
    time.sleep(QUERIED_AFTER_S)
    return lab, running


def told_to_the_user(errors):
    return [line for line in errors.splitlines(keepends=True) if line.startswith(b"vd-discover:")]


def test_the_timeout_ends_a_run_that_is_blocked_and_shows_what_was_seen(stage):
    timeout = QUERIED_AFTER_S + 2
    _, running = blocked_run(stage, "--timeout", str(timeout))
    status, output, errors, seconds = running.wait()
    assert (status, output.count(b"\n"), output.count(b"Lobby")) == (0, 2, 1)
    assert told_to_the_user(errors) == [HANG]
    assert seconds < timeout + LATEST_END_S


@pytest.mark.parametrize("number", [signal.SIGINT, signal.SIGTERM])
def test_one_signal_ends_following_that_is_blocked(stage, number):
    lab, running = blocked_run(stage, "--follow", "--format", "json")
    begin = time.monotonic()
    status, output, errors, _ = running.interrupt(number)
    assert time.monotonic() - begin < LATEST_END_S
    assert (status, events(output)) == (0, [("found", dict(camera_record(lab)))])
    assert told_to_the_user(errors) == [HANG]
