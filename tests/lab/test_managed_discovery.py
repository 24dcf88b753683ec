# SPDX-License-Identifier: MIT
"""The class for applications that run for months, through restarts, flaps and limits."""

import time

import pytest

from labkit.devices import camera, camera_txt, numbered
from labkit.hostile import Packet, spoofed_camera, wire
from labkit.labs import FEW_OBJECTS, NO_DAEMON, PLAIN, TWO_SEGMENTS
from labkit.lines import Lines, wait_until
from labkit.managed import RUNNING, UNAVAILABLE, found, managed, states, told, wait_for_state
from labkit.paths import WORKER_THREAD_EXAMPLE
from labkit.usage import share_of_a_processor

TIMED_OUT = "ManagedServiceDiscovery::ServiceResolve() -> failed to resolve service: Lobby error: Timeout reached"

BACK_WITHIN_S = 2.0
HANG_S = 3
NEW_ADDRESS = "10.77.0.250"
TYPES = ["_http._tcp", "_https._tcp"]

# What breaks the daemon, and what mends it again.
BREAKS = {"daemon-stop": ["daemon-start"], "daemon-kill": ["daemon-start"],
          "dbus-kill": ["dbus-start", "daemon-start"]}
breaks = pytest.mark.parametrize("fault", BREAKS)


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
    found(probe, publisher, camera())
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
    found(probe, publisher, camera(), text, gone)
    lab.fault("viewer", fault)
    assert wait_for_state(probe, UNAVAILABLE)
    publisher.goodbye(gone.name)
    publisher.add_address("Lobby", NEW_ADDRESS)
    publisher.set_txt(text.name, camera_txt(version="5.0"))
    new = numbered(4)
    publisher.publish(new)
    time.sleep(1)
    mend(lab, fault)
    assert wait_for_state(probe, RUNNING)
    signals = probe.take_signals(4, quiet=7)
    assert told(signals) == [("serviceAddress", "Lobby"), ("serviceFound", new.name), ("serviceLost", gone.name),
                             ("serviceText", text.name)]


@breaks
def test_every_type_is_browsed_again_after_a_restart(stage, fault):
    lab, probe, publisher = managed(stage, ["--grace", "4000"])
    assert [probe.call("browse", type=service_type) for service_type in TYPES] == [True] * len(TYPES)
    found(probe, publisher, *(numbered(number, type=of) for number, of in enumerate(TYPES, 1)))
    before = probe.table()
    lab.fault("viewer", fault)
    assert wait_for_state(probe, UNAVAILABLE)
    new = [numbered(number, type=of) for number, of in enumerate(TYPES, len(TYPES) + 1)]
    publisher.publish(*new)
    ready = mend(lab, fault)
    assert wait_for_state(probe, RUNNING)
    assert time.monotonic() - ready < BACK_WITHIN_S
    assert probe.wait_for_found(*(device.name for device in new)) - ready < BACK_WITHIN_S
    assert told(probe.take_signals(len(new), quiet=5)) == [("serviceFound", device.name) for device in new]
    assert before.items() <= probe.table().items()


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


ATTEMPT = "AvahiServiceDiscovery::BrowseServices() -> starting to browse for Bonjour services"
WATCHED_S = 3
# An attempt without a bus takes 0.3 ms. Where there is one, Avahi waits for the daemon, and nothing is done.
MOST_ATTEMPTS_WITHOUT_A_BUS = 4
CPU_S_OF_AN_ATTEMPT = 0.001
MOST_OTHER_CPU_S = 0.003


def times_of_attempts(probe):
    return [time for line, time in zip(list(probe.said.all), probe.said.times) if line.get("text") == ATTEMPT]


@pytest.mark.parametrize("lab_options, faults_before, faults_after, most_attempts", [
    (NO_DAEMON, [], [], 0), (NO_DAEMON, ["dbus-kill"], [], MOST_ATTEMPTS_WITHOUT_A_BUS),
    (PLAIN, [], ["daemon-kill"], 0), (PLAIN, [], ["dbus-kill"], MOST_ATTEMPTS_WITHOUT_A_BUS),
], ids=["no-daemon", "no-bus", "daemon-killed", "bus-killed"])
def test_waiting_takes_next_to_no_cpu(stage, lab_options, faults_before, faults_after, most_attempts):
    lab = stage.lab(lab_options)
    probe = stage.probe(lab, "--managed")
    for fault in faults_before:
        lab.fault("viewer", fault)
    for service_type in ("_http._tcp", "_https._tcp"):
        assert probe.call("browse", type=service_type) is True
    for fault in faults_after:
        assert wait_for_state(probe, RUNNING)
        lab.fault("viewer", fault)
        assert wait_for_state(probe, UNAVAILABLE)
    # The first attempt follows at once.
    time.sleep(BACK_WITHIN_S / 4)
    before = len(times_of_attempts(probe))
    most_cpu_s = MOST_OTHER_CPU_S + most_attempts * CPU_S_OF_AN_ATTEMPT
    assert share_of_a_processor(probe.pid, WATCHED_S) * WATCHED_S < most_cpu_s
    assert len(times_of_attempts(probe)) - before <= most_attempts


def test_attempts_without_a_bus_become_ever_more_seldom(stage):
    lab = stage.lab(NO_DAEMON)
    probe = stage.probe(lab, "--managed")
    lab.fault("viewer", "dbus-kill")
    assert probe.call("browse", type="_http._tcp") is True
    assert probe.said.wait_for(lambda _: len(times_of_attempts(probe)) == 6)
    times = times_of_attempts(probe)
    gaps = [later - earlier for earlier, later in zip(times, times[1:])]
    # Each is twice as long, and the machine may be busy.
    assert gaps == sorted(gaps) and gaps[-1] > 4 * gaps[0], gaps


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


@pytest.mark.parametrize("hanging", ["daemon", "dbus"])
def test_what_hangs_loses_nothing_and_what_changed_meanwhile_is_told_then(stage, hanging):
    lab, probe, publisher = managed(stage, ["--grace", "1000"])
    probe.call("browse", type="_http._tcp")
    other, new = numbered(2), numbered(3)
    found(probe, publisher, camera(), other)
    assert probe.start_query("Lobby", True) is True
    assert probe.take_signals(0) == []
    lab.fault("viewer", f"{hanging}-hang")
    publisher.add_address("Lobby", NEW_ADDRESS)
    # So that there is something to ask the daemon.
    assert probe.start_query(other.name, False) is True
    assert probe.take_signals(0, quiet=HANG_S) == []

    continues = time.monotonic()
    lab.fault("viewer", f"{hanging}-continue")
    publisher.publish(new)
    assert probe.wait_for_found(new.name) - continues < BACK_WITHIN_S
    signals = probe.take_signals(2, quiet=4)
    assert told(signals) == [("serviceAddress", "Lobby"), ("serviceFound", new.name)]
    both = [*camera().addresses, NEW_ADDRESS]
    assert dict(dict(signals)["serviceAddress"])["addresses"] == both
    assert dict(probe.table()["Lobby"])["addresses"] == both


def test_flaps_of_one_of_two_networks_lose_nothing(stage):
    lab, probe, publisher = managed(stage, lab_options=TWO_SEGMENTS)
    probe.call("browse", type="_http._tcp")
    found(probe, publisher, camera())
    for _ in range(3):
        lab.fault("viewer", "link-down", "--link", "1")
        time.sleep(1.5)
        lab.fault("viewer", "link-up", "--link", "1")
        time.sleep(1.5)
    assert [name for name, _ in probe.take_signals(0)] == []
    assert list(probe.table()) == ["Lobby"]


@pytest.mark.parametrize("end", ["goodbye", "link-down"])
@pytest.mark.parametrize("first, second", ["01", "10"])
def test_a_device_on_two_networks_is_lost_once_with_the_last_of_them(stage, first, second, end):
    lab, probe, publisher = managed(stage, lab_options=TWO_SEGMENTS)
    probe.call("browse", type="_http._tcp")
    found(probe, publisher, camera())
    lab.fault("viewer", "link-down", "--link", first)
    assert probe.take_signals(0, quiet=4) == []
    assert list(probe.table()) == ["Lobby"]
    if end == "goodbye":
        publisher.goodbye("Lobby")
    else:
        lab.fault("viewer", "link-down", "--link", second)
    assert told(probe.take_signals(1, quiet=3)) == [("serviceLost", "Lobby")]
    assert probe.table() == {}


@pytest.mark.parametrize("first, second", [TYPES, TYPES[::-1]])
def test_a_device_of_two_types_is_lost_once_with_the_last_of_them(stage, first, second):
    _, probe, publisher = managed(stage)
    for service_type in TYPES:
        probe.call("browse", type=service_type)
    publisher.publish(*(camera(type=service_type, identifier=service_type) for service_type in TYPES))
    assert told(probe.take_signals(1)) == [("serviceFound", "Lobby")]
    publisher.goodbye(first)
    assert probe.take_signals(0, quiet=4) == []
    assert dict(probe.table()["Lobby"])["serviceType"] == second
    publisher.goodbye(second)
    assert told(probe.take_signals(1, quiet=3)) == [("serviceLost", "Lobby")]
    assert probe.table() == {}


def test_more_devices_than_the_daemon_has_objects_are_all_found(stage):
    lab, probe, publisher = managed(stage, lab_options=FEW_OBJECTS)
    probe.call("browse", type="_http._tcp")
    devices = [numbered(number) for number in range(1, 61)]
    publisher.publish(*devices)
    assert wait_until(lambda: len(probe.table()) == 60, 40)


def test_an_address_that_moves_is_followed(stage):
    lab, probe, publisher = managed(stage)
    probe.call("browse", type="_http._tcp")
    found(probe, publisher, camera())
    assert probe.start_query("Lobby", True) is True
    time.sleep(1)
    publisher.add_address("Lobby", NEW_ADDRESS)
    publisher.remove_address("Lobby", camera().addresses[0])
    signals = probe.take_signals(2, quiet=3)
    assert [(name, dict(record)["addresses"], dict(record)["addressRemoved"]) for name, record in signals] == [
        ("serviceAddress", [camera().addresses[0], NEW_ADDRESS], False),
        ("serviceAddress", [camera().addresses[0]], True)]
    assert dict(probe.table()["Lobby"])["addresses"] == [NEW_ADDRESS]


@pytest.mark.parametrize("long_lived", [True, False], ids=["long-lived", "once"])
def test_an_address_and_a_text_that_change_together_are_both_told(stage, long_lived):
    lab, probe, publisher = managed(stage)
    probe.call("browse", type="_http._tcp")
    found(probe, publisher, camera())
    if long_lived:
        assert probe.start_query("Lobby", True) is True
        assert probe.take_signals(0) == []
    publisher.replace(camera(address=NEW_ADDRESS, txt=camera_txt(version="5.0")))
    if not long_lived:
        # The daemon keeps what was before for another second, and would answer with it.
        assert probe.take_signals(0, quiet=2) == []
        assert probe.start_query("Lobby", False) is True
    signals = probe.take_signals(3, quiet=4)
    assert told(signals) == [("serviceAddress", "Lobby"), ("serviceAddress", "Lobby"), ("serviceText", "Lobby")]
    addresses = [dict(record)["addresses"] for name, record in signals if name == "serviceAddress"]
    assert addresses == [[*camera().addresses, NEW_ADDRESS], camera().addresses]
    left = dict(probe.table()["Lobby"])
    assert (left["addresses"], left["softwareVersion"]) == ([NEW_ADDRESS], "5.0")


def test_a_resolve_that_fails_leaves_what_is_known(stage):
    lab = stage.lab()
    probe, hostile = stage.probe(lab, "--managed"), stage.hostile(lab)
    probe.call("browse", type="_http._tcp")
    lobby = spoofed_camera("Lobby")
    hostile.send([lobby.packet()])
    assert told(probe.take_signals(1)) == [("serviceFound", "Lobby")]
    before = probe.table()
    # All that is left of it is that there is such a service.
    hostile.send([Packet(wire.response([record for record in lobby.records() if record != lobby.pointer], ttl=0))])
    assert probe.take_signals(0, quiet=2) == []
    assert probe.start_query("Lobby", False) is True
    assert probe.wait_for_log(TIMED_OUT)
    assert probe.take_signals(0) == []
    assert probe.table() == before


def test_the_example_of_a_worker_thread_tells_of_devices(stage):
    lab = stage.lab()
    publisher = stage.publisher(lab)
    told = Lines(lab.start("viewer", WORKER_THREAD_EXAMPLE, stdin=None).stderr)
    publisher.publish(camera())
    assert told.wait_for(lambda lines: b'found "Lobby" QList("10.77.0.101")\n' in lines)
    publisher.goodbye("Lobby")
    assert told.wait_for(lambda lines: b'lost "Lobby"\n' in lines)
