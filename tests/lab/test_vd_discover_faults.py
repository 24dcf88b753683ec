# SPDX-License-Identifier: MIT
"""vd-discover, when the bus or the Avahi daemon is missing, hangs, dies or comes back."""

import signal
import time

import pytest

from discover_messages import BUS, DAEMON, ENDED, HANG, WAITING, back
from labkit.devices import camera
from labkit.discover import events, with_either_class
from labkit.labs import NO_DAEMON, PLAIN

BACK = back(b"browsing") + b"\n"
BREAKS = {"daemon-kill": ["daemon-start"], "dbus-kill": ["dbus-start", "daemon-start"]}

breaks = pytest.mark.parametrize("kill", BREAKS)
both_formats = pytest.mark.parametrize("options", [[], ["--format", "json"]], ids=["table", "json"])


def names(output):
    return [(event, service["serviceName"]) for event, service in events(output)]


def mend(lab, kill):
    for step in BREAKS[kill]:
        lab.fault("viewer", step)


def told_of(errors):
    """What was told of one outage, each line once."""
    told = errors.splitlines()
    assert len(set(told)) == len(told)
    return told


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
    assert names(output) == [("found", "Lobby")]
    assert seconds < 5.5


def test_a_daemon_that_dies_while_devices_are_collected_is_waited_for_and_what_was_seen_is_shown(stage):
    lab = stage.lab()
    stage.publisher(lab).publish(camera())
    running = stage.discover(lab, "--timeout", "6", "--format", "json")
    running.wait_for_output(1)
    lab.fault("viewer", "daemon-kill")
    status, output, errors, seconds = running.wait()
    assert (status, names(output), errors) == (3, [("found", "Lobby")], ENDED + WAITING + b"\n")
    assert 5.6 < seconds < 8.5


def test_a_restart_while_devices_are_collected_is_lived_through(stage):
    lab = stage.lab()
    publisher = stage.publisher(lab)
    publisher.publish(camera())
    running = stage.discover(lab, "--timeout", "60", "--count", "2", "--format", "json")
    running.wait_for_output(1)
    lab.fault("viewer", "daemon-kill")
    running.wait_for_errors(1)
    publisher.publish(camera("Yard", "camera-2", "10.77.0.102"))
    lab.fault("viewer", "daemon-start")
    status, output, errors, _ = running.wait()
    assert (status, names(output)) == (0, [("found", "Lobby"), ("found", "Yard")])
    assert told_of(errors) == [ENDED + WAITING, BACK[:-1]]


def test_a_daemon_that_dies_ends_a_run_of_the_plain_class_and_what_was_seen_is_shown(stage):
    lab = stage.lab()
    stage.publisher(lab).publish(camera())
    running = stage.discover(lab, "--plain", "--timeout", "60", "--verbose")
    assert running.errors.wait_for(lambda lines: any(b"ServiceResolve() -> CHECKSUM " in line for line in lines))
    lab.fault("viewer", "daemon-kill")
    status, output, errors, seconds = running.wait()
    assert (status, output.count(b"\n"), output.count(b"Lobby")) == (3, 2, 1)
    assert [line for line in errors.splitlines() if line.startswith(b"vd-discover:")] == [ENDED]
    assert seconds < 30


@with_either_class
@pytest.mark.parametrize("lab_options, fault, returns, message", [
    (NO_DAEMON, None, ["daemon-start"], DAEMON),
    (PLAIN, "dbus-kill", ["dbus-start", "daemon-start"], BUS),
], ids=["daemon", "bus"])
def test_following_picks_up_what_appears_later(stage, lab_options, fault, returns, message, plain):
    lab = stage.lab(lab_options)
    if fault:
        lab.fault("viewer", fault)
    publisher = stage.publisher(lab)
    follower = stage.discover(lab, "--follow", "--format", "json", *plain)
    assert follower.wait_for_errors(1) == [message + WAITING + b"\n"]
    for step in returns:
        lab.fault("viewer", step)
    follower.errors.wait_for(lambda lines: lines[-1] == BACK)
    publisher.publish(camera())
    follower.wait_for_output(1)
    status, output, errors, _ = follower.interrupt(signal.SIGTERM)
    assert status == 0
    assert names(output) == [("found", "Lobby")]
    # A bus that is back has no daemon yet, which may be told in between.
    between = [DAEMON + WAITING + b"\n"] if DAEMON + WAITING + b"\n" in errors.splitlines(keepends=True)[1:] else []
    assert errors.splitlines(keepends=True) == [message + WAITING + b"\n", *between, BACK]


def followed_through(stage, kill, *options):
    """A follower that knew a camera before the daemon or the bus died and came back, and the publisher."""
    lab = stage.lab()
    publisher = stage.publisher(lab)
    publisher.publish(camera())
    follower = stage.discover(lab, "--follow", "--format", "json", *options)
    follower.wait_for_output(1)
    lab.fault("viewer", kill)
    assert follower.wait_for_errors(1) == [ENDED + WAITING + b"\n"]
    mend(lab, kill)
    follower.errors.wait_for(lambda lines: lines[-1] == BACK)
    return publisher, follower


def assert_one_outage(errors, kill):
    told = told_of(errors)
    assert (told[0], told[-1]) == (ENDED + WAITING, BACK[:-1])
    # While a bus dies and comes back, what is missing at the moment may be told too.
    assert set(told[1:-1]) <= ({DAEMON + WAITING, BUS + WAITING} if kill == "dbus-kill" else set())


@breaks
def test_a_restart_is_told_once_each_way_and_devices_that_stay_are_not_found_again(stage, kill):
    publisher, follower = followed_through(stage, kill)
    # Long enough to see the camera again, which is no news; then something that is.
    time.sleep(3)
    publisher.goodbye("Lobby")
    follower.wait_for_output(2)
    status, output, errors, _ = follower.interrupt(signal.SIGINT)
    assert (status, names(output)) == (0, [("found", "Lobby"), ("lost", "Lobby")])
    assert_one_outage(errors, kill)


@breaks
def test_following_the_plain_class_finds_devices_again_after_a_restart(stage, kill):
    _, follower = followed_through(stage, kill, "--plain")
    follower.wait_for_output(2)
    status, output, errors, _ = follower.interrupt(signal.SIGINT)
    assert (status, names(output)) == (0, 2 * [("found", "Lobby")])
    assert_one_outage(errors, kill)


def test_every_outage_is_told(stage):
    lab = stage.lab()
    stage.publisher(lab).publish(camera())
    follower = stage.discover(lab, "--follow", "--format", "json")
    follower.wait_for_output(1)
    for outage in (1, 2):
        lab.fault("viewer", "daemon-stop")
        follower.wait_for_errors(2 * outage - 1)
        lab.fault("viewer", "daemon-start")
        follower.wait_for_errors(2 * outage)
    status, output, errors, _ = follower.interrupt(signal.SIGTERM)
    assert (status, names(output)) == (0, [("found", "Lobby")])
    assert errors.splitlines() == 2 * [ENDED + WAITING, BACK[:-1]]
