# SPDX-License-Identifier: MIT
"""The class for applications that run for months, through restarts, flaps and limits."""

import time

import pytest

from labkit.devices import camera, camera_txt
from labkit.labs import FEW_OBJECTS, NO_DAEMON, TWO_SEGMENTS
from labkit.lines import Lines, wait_until
from labkit.paths import WORKER_THREAD_EXAMPLE

UNAVAILABLE, CONNECTING, RUNNING = 0, 1, 2
BACK_WITHIN_S = 2.0

# What breaks the daemon, and what mends it again.
BREAKS = {"daemon-stop": ["daemon-start"], "daemon-kill": ["daemon-start"],
          "dbus-kill": ["dbus-start", "daemon-start"]}
breaks = pytest.mark.parametrize("fault", BREAKS)


def numbered(number):
    return camera(f"Cam {number}", f"camera-{number}", f"10.77.0.{100 + number}")


def managed(stage, options=(), lab_options=None):
    lab = stage.lab(lab_options) if lab_options else stage.lab()
    return lab, stage.probe(lab, "--managed", *options), stage.publisher(lab)


def states(probe):
    return [line["state"] for line in probe.said.all if line["event"] == "state"]


def wait_for_state(probe, state):
    return probe.said.wait_for(lambda lines: states(probe)[-1:] == [state])


def found(probe, publisher, lab, *devices):
    publisher.publish(*devices)
    signals = probe.take_signals(len(devices))
    assert sorted(name for name, _ in signals) == ["serviceFound"] * len(devices)


def mend(lab, fault):
    """Mends it; returns when the daemon was ready."""
    for step in BREAKS[fault]:
        lab.fault("viewer", step)
    return time.monotonic()


def test_a_device_is_found_and_followed(stage):
    lab, probe, publisher = managed(stage)
    assert probe.call("browse", type="_http._tcp") is True
    assert wait_for_state(probe, RUNNING)
    publisher.publish(camera())
    assert [name for name, _ in probe.take_signals(1)] == ["serviceFound"]
    publisher.goodbye("Lobby")
    assert [name for name, _ in probe.take_signals(1)] == ["serviceLost"]
    assert probe.table() == {}


@breaks
def test_devices_that_are_still_there_after_a_restart_cause_no_signal(stage, fault):
    lab, probe, publisher = managed(stage, ["--grace", "6000"])
    probe.call("browse", type="_http._tcp")
    found(probe, publisher, lab, camera())
    before = probe.table()
    lab.fault("viewer", fault)
    assert wait_for_state(probe, UNAVAILABLE)
    assert probe.call("is-browsing") is True
    assert probe.table() == before
    ready = mend(lab, fault)
    assert wait_for_state(probe, RUNNING)
    assert time.monotonic() - ready < BACK_WITHIN_S
    assert probe.take_signals(0, quiet=8) == []
    assert probe.table() == before


@breaks
def test_changes_during_a_restart_are_signalled(stage, fault):
    lab, probe, publisher = managed(stage, ["--grace", "5000"])
    probe.call("browse", type="_http._tcp")
    text, gone = numbered(2), numbered(3)
    found(probe, publisher, lab, camera(), text, gone)
    lab.fault("viewer", fault)
    assert wait_for_state(probe, UNAVAILABLE)
    publisher.goodbye(gone.name)
    publisher.add_address("Lobby", "10.77.0.250")
    publisher.set_txt(text.name, camera_txt(version="5.0"))
    new = numbered(4)
    publisher.publish(new)
    time.sleep(1)
    mend(lab, fault)
    assert wait_for_state(probe, RUNNING)
    signals = probe.take_signals(4, quiet=7)
    told = sorted((name, dict(record)["serviceName"]) for name, record in signals)
    assert told == [("serviceAddress", "Lobby"), ("serviceFound", new.name), ("serviceLost", gone.name),
                    ("serviceText", text.name)]


def test_browsing_begins_when_the_daemon_does(stage):
    lab, probe, publisher = managed(stage, lab_options=NO_DAEMON)
    publisher.publish(camera())
    assert probe.call("browse", type="_http._tcp") is True
    assert probe.call("is-browsing") is True
    assert states(probe)[-1:] in ([], [UNAVAILABLE])
    lab.fault("viewer", "daemon-start")
    ready = time.monotonic()
    assert wait_for_state(probe, RUNNING)
    assert time.monotonic() - ready < BACK_WITHIN_S
    assert [name for name, _ in probe.take_signals(1)] == ["serviceFound"]


@breaks
def test_a_published_service_is_published_again(stage, fault):
    lab, probe, _ = managed(stage)
    probe.call("browse", type="_http._tcp")
    reader = stage.reader(lab, "_reconf._tcp")
    assert probe.register("Setup", "_reconf._tcp") is True
    assert reader.wait_for("found", "Setup")
    lab.fault("viewer", fault)
    assert wait_for_state(probe, UNAVAILABLE)
    mend(lab, fault)
    assert wait_for_state(probe, RUNNING)
    # One that remembers nothing of the service from before.
    assert stage.reader(lab, "_reconf._tcp").wait_for("found", "Setup")
    assert probe.call("is-registered") is True


def test_a_hung_daemon_loses_nothing(stage):
    lab, probe, publisher = managed(stage, ["--grace", "5000"])
    probe.call("browse", type="_http._tcp")
    found(probe, publisher, lab, camera())
    lab.fault("viewer", "daemon-hang")
    time.sleep(3)
    publisher.add_address("Lobby", "10.77.0.250")
    lab.fault("viewer", "daemon-continue")
    time.sleep(2)
    assert list(probe.table()) == ["Lobby"]
    publisher.publish(numbered(2))
    assert wait_until(lambda: set(probe.table()) == {"Lobby", "Cam 2"})


def test_flaps_of_one_of_two_networks_lose_nothing(stage):
    lab, probe, publisher = managed(stage, lab_options=TWO_SEGMENTS)
    probe.call("browse", type="_http._tcp")
    found(probe, publisher, lab, camera())
    for _ in range(3):
        lab.fault("viewer", "link-down", "--link", "1")
        time.sleep(1.5)
        lab.fault("viewer", "link-up", "--link", "1")
        time.sleep(1.5)
    assert [name for name, _ in probe.take_signals(0)] == []
    assert list(probe.table()) == ["Lobby"]


def test_more_devices_than_the_daemon_has_objects_are_all_found(stage):
    lab, probe, publisher = managed(stage, lab_options=FEW_OBJECTS)
    probe.call("browse", type="_http._tcp")
    devices = [numbered(number) for number in range(1, 61)]
    publisher.publish(*devices)
    assert wait_until(lambda: len(probe.table()) == 60, 40)


def test_an_address_that_moves_is_followed(stage):
    lab, probe, publisher = managed(stage)
    probe.call("browse", type="_http._tcp")
    found(probe, publisher, lab, camera())
    assert probe.start_query("Lobby", True) is True
    time.sleep(1)
    publisher.add_address("Lobby", "10.77.0.250")
    publisher.remove_address("Lobby", camera().addresses[0])
    signals = probe.take_signals(2, quiet=3)
    assert [(name, dict(record)["addresses"], dict(record)["addressRemoved"]) for name, record in signals] == [
        ("serviceAddress", [camera().addresses[0], "10.77.0.250"], False),
        ("serviceAddress", [camera().addresses[0]], True)]
    assert dict(probe.table()["Lobby"])["addresses"] == ["10.77.0.250"]


def test_the_example_of_a_worker_thread_tells_of_devices(stage):
    lab = stage.lab()
    publisher = stage.publisher(lab)
    told = Lines(lab.start("viewer", WORKER_THREAD_EXAMPLE, stdin=None).stderr)
    publisher.publish(camera())
    assert told.wait_for(lambda lines: b'found "Lobby" QList("10.77.0.101")\n' in lines)
    publisher.goodbye("Lobby")
    assert told.wait_for(lambda lines: b'lost "Lobby"\n' in lines)
