# SPDX-License-Identifier: MIT
"""vd-discover, when the bus or the Avahi daemon is missing, hangs, dies or comes back."""

import signal

import pytest

from labkit.devices import camera, camera_record
from labkit.discover import events
from labkit.labs import NO_DAEMON, PLAIN

BUS = (b'vd-discover: the D-Bus system bus cannot be reached; start it with "sudo systemctl start dbus", '
       b'or install it with "sudo apt install dbus"')
DAEMON = (b"vd-discover: the Avahi daemon is not running; start it with "
          b'"sudo systemctl start avahi-daemon", or install it with "sudo apt install avahi-daemon"')
HANG = (b"vd-discover: the Avahi daemon or the system bus does not answer; restart the daemon with "
        b'"sudo systemctl restart avahi-daemon"')
ENDED = (b"vd-discover: the connection to the Avahi daemon has ended; if it does not come back by itself, "
         b'start it with "sudo systemctl start avahi-daemon"')
WAITING = b"; waiting for it\n"
BACK = b"vd-discover: the Avahi daemon answers; browsing\n"

both_formats = pytest.mark.parametrize("options", [[], ["--format", "json"]], ids=["table", "json"])


@both_formats
@pytest.mark.parametrize("lab_options, faults, message", [
    (NO_DAEMON, [], DAEMON),
    (PLAIN, ["daemon-kill"], DAEMON),
    (PLAIN, ["dbus-kill"], BUS),
], ids=["no daemon", "daemon killed", "bus killed"])
def test_what_is_missing_is_told_with_the_remedy_within_2_seconds(stage, lab_options, faults, message, options):
    lab = stage.lab(lab_options)
    for fault in faults:
        lab.fault("viewer", fault)
    status, output, errors, seconds = stage.discover(lab, *options).wait()
    assert (status, output, errors) == (3, b"", message + b"\n")
    assert seconds < 2


@pytest.mark.parametrize("fault", ["daemon-hang", "dbus-hang"])
def test_what_hangs_is_told_with_the_remedy_within_2_and_a_half_seconds(stage, fault):
    lab = stage.lab()
    lab.fault("viewer", fault)
    status, output, errors, seconds = stage.discover(lab).wait()
    assert (status, output, errors) == (3, b"", HANG + b"\n")
    assert seconds < 2.5


def test_a_daemon_that_hangs_at_the_end_keeps_no_results_back(stage):
    lab = stage.lab()
    stage.publisher(lab).publish(camera())
    running = stage.discover(lab, "--timeout", "3", "--format", "json")
    running.wait_for_output(1)
    lab.fault("viewer", "daemon-hang")
    status, output, errors, seconds = running.wait()
    assert (status, errors) == (0, b"")
    assert events(output) == [("found", dict(camera_record(lab)))]
    assert seconds < 5.5


def test_a_daemon_that_dies_while_devices_are_collected_is_told_and_what_was_seen_is_shown(stage):
    lab = stage.lab()
    stage.publisher(lab).publish(camera())
    running = stage.discover(lab, "--timeout", "60", "--verbose")
    assert running.errors.wait_for(lambda lines: any(b"ServiceResolve() -> CHECKSUM " in line for line in lines))
    lab.fault("viewer", "daemon-kill")
    status, output, errors, seconds = running.wait()
    assert (status, output.count(b"\n"), output.count(b"Lobby")) == (3, 2, 1)
    assert [line for line in errors.splitlines() if line.startswith(b"vd-discover:")] == [ENDED]
    assert seconds < 30


@pytest.mark.parametrize("lab_options, fault, returns, message", [
    (NO_DAEMON, None, ["daemon-start"], DAEMON),
    (PLAIN, "dbus-kill", ["dbus-start", "daemon-start"], BUS),
], ids=["daemon", "bus"])
def test_following_picks_up_what_appears_later(stage, lab_options, fault, returns, message):
    lab = stage.lab(lab_options)
    if fault:
        lab.fault("viewer", fault)
    publisher = stage.publisher(lab)
    follower = stage.discover(lab, "--follow", "--format", "json")
    assert follower.wait_for_errors(1) == [message + WAITING]
    for step in returns:
        lab.fault("viewer", step)
    follower.errors.wait_for(lambda lines: lines[-1] == BACK)
    publisher.publish(camera())
    follower.wait_for_output(1)
    status, output, errors, _ = follower.interrupt(signal.SIGTERM)
    assert status == 0
    assert events(output) == [("found", dict(camera_record(lab)))]
    # A bus that is back has no daemon yet, which may be told in between.
    between = [DAEMON + WAITING] if DAEMON + WAITING in errors.splitlines(keepends=True)[1:] else []
    assert errors.splitlines(keepends=True) == [message + WAITING, *between, BACK]


@pytest.mark.parametrize("kill, returns", [("daemon-kill", ["daemon-start"]),
                                           ("dbus-kill", ["dbus-start", "daemon-start"])], ids=["daemon", "bus"])
def test_following_finds_devices_again_after_the_daemon_or_the_bus_died(stage, kill, returns):
    lab = stage.lab()
    stage.publisher(lab).publish(camera())
    follower = stage.discover(lab, "--follow", "--format", "json")
    follower.wait_for_output(1)
    lab.fault("viewer", kill)
    follower.wait_for_errors(1)
    for step in returns:
        lab.fault("viewer", step)
    follower.wait_for_output(2)
    status, output, errors, _ = follower.interrupt(signal.SIGINT)
    assert status == 0
    assert events(output) == 2 * [("found", dict(camera_record(lab)))]
    told = errors.splitlines(keepends=True)
    assert (told[0], told[-1]) == (ENDED + WAITING, BACK)
    # While a bus dies and comes back, what is missing at the moment may be told too, each once.
    assert set(told[1:-1]) <= {DAEMON + WAITING, BUS + WAITING} and len(set(told)) == len(told)
