# SPDX-License-Identifier: MIT
"""What else can happen to a client on its machine: no descriptors left, a clock that is set, a process that is stopped."""

import json
import os
import signal
import struct
import time
from datetime import datetime
from pathlib import Path

import pytest

from labkit.devices import camera, camera_txt, numbered
from labkit.discover import events, with_either_class
from labkit.lines import wait_until
from labkit.managed import RUNNING, wait_for_state
from labkit.paths import BUILD, PROBE
from labkit.usage import share_of_a_processor

SHIFTED_CLOCK = BUILD / "tests" / "lab" / "probe" / "vd-shifted-clock.so"

either_class = pytest.mark.parametrize("options", [["--managed"], []], ids=["managed", "plain"])

# Managed discovery tries again every 8 s at last.
RECOVERED_WITHIN_S = 12
SOON_S = 3
# What is done in so many seconds of peace takes far less than a loop that never waits.
WATCHED_S = 2
MOST_CPU = 0.5

HOUR_S = 3600


def with_descriptors(limit):
    return ["prlimit", f"--nofile={limit}"]


def names(probe, signal_name):
    return [dict(line["argument"])["serviceName"] for line in probe.said.all
            if line["event"] == "signal" and line["signal"] == signal_name]


def is_found(probe, device, seconds=SOON_S):
    return probe.said.wait_for(lambda _: device.name in names(probe, "serviceFound"), seconds)


def is_lost(probe, name, seconds=SOON_S):
    return probe.said.wait_for(lambda _: name in names(probe, "serviceLost"), seconds)


@with_either_class
def test_64_descriptors_are_enough_for_any_number_of_devices(stage, plain):
    lab = stage.lab()
    stage.publisher(lab).tell("fleet", count=200)
    running = stage.discover(lab, "--count", "200", "--timeout", "12", "--long-lived", "--format", "json", *plain,
                             before=with_descriptors(64))
    status, output, errors, _ = running.wait()
    assert (status, errors) == (0, b"")
    assert len({service["serviceName"] for event, service in events(output) if event == "found"}) == 200


@with_either_class
def test_a_run_without_enough_descriptors_ends_soon_with_one_line(stage, plain):
    lab = stage.lab()
    stage.publisher(lab).publish(camera())
    outcomes = []
    # With fewer not even the program's libraries can be loaded.
    for limit in range(4, 16):
        running = stage.discover(lab, "--count", "1", "--timeout", "2", *plain, before=with_descriptors(limit))
        status, output, errors, seconds = running.wait()
        outcomes.append((status, output.count(b"Lobby"), errors.count(b"\n")))
        assert seconds < SOON_S + 2
        assert not errors or errors.startswith(b"vd-discover: this process may not open enough files")
    first_found = outcomes.index((0, 1, 0))
    assert outcomes == [(3, 0, 1)] * first_found + [(0, 1, 0)] * (len(outcomes) - first_found)


def test_managed_discovery_begins_when_there_are_descriptors_again(stage):
    lab = stage.lab()
    probe, publisher = stage.probe(lab, "--managed", program=[*with_descriptors(64), PROBE]), stage.publisher(lab)
    publisher.publish(camera())
    assert probe.call("take-descriptors") > 0
    assert probe.call("browse", type="_http._tcp") is True
    assert share_of_a_processor(probe.pid, WATCHED_S) < MOST_CPU
    assert names(probe, "serviceFound") == []

    probe.call("give-descriptors-back")
    assert is_found(probe, camera(), RECOVERED_WITHIN_S)


def test_plain_discovery_fails_without_descriptors_and_can_begin_later(stage):
    lab = stage.lab()
    probe, publisher = stage.probe(lab, program=[*with_descriptors(64), PROBE]), stage.publisher(lab)
    publisher.publish(camera())
    assert probe.call("take-descriptors") > 0
    assert probe.call("browse", type="_http._tcp") is False
    assert share_of_a_processor(probe.pid, WATCHED_S) < MOST_CPU

    probe.call("give-descriptors-back")
    assert probe.call("browse", type="_http._tcp") is True
    assert is_found(probe, camera())


def test_managed_discovery_gets_over_a_restart_of_the_bus_without_descriptors(stage):
    lab = stage.lab()
    probe, publisher = stage.probe(lab, "--managed", program=[*with_descriptors(64), PROBE]), stage.publisher(lab)
    assert probe.call("browse", type="_http._tcp") is True
    publisher.publish(camera())
    assert is_found(probe, camera())
    probe.call("take-descriptors")
    lab.fault("viewer", "dbus-kill")
    # What the lost connection held is free for a moment.
    probe.call("take-descriptors")
    for fault in ("dbus-start", "daemon-start"):
        lab.fault("viewer", fault)
    publisher.publish(numbered(1))
    assert share_of_a_processor(probe.pid, WATCHED_S) < MOST_CPU
    assert not is_found(probe, numbered(1), 0)

    probe.call("give-descriptors-back")
    assert is_found(probe, numbered(1), RECOVERED_WITHIN_S)
    assert names(probe, "serviceLost") == []


class WallClock:
    """That of one program, as the program before it on the command line."""

    def __init__(self, lab):
        self._shift = lab.folder / "clock-shift"
        self.set(0)
        self.before = ["env", f"LD_PRELOAD={SHIFTED_CLOCK}", f"VD_CLOCK_SHIFT={self._shift}"]

    def set(self, seconds):
        """So far from the machine's own."""
        with open(self._shift, "r+b" if self._shift.exists() else "wb", buffering=0) as file:
            file.write(struct.pack("q", seconds))

    @staticmethod
    def is_that_of(pid):
        return SHIFTED_CLOCK.name in Path(f"/proc/{pid}/maps").read_text()


STEPS = (HOUR_S, 0, -HOUR_S, 0)


def queries(probe):
    """How many services were resolved, or asked for, so far."""
    return sum("resolved: Cam" in line["text"] or "trying to resolve service: Cam" in line["text"]
               for line in list(probe.said.all) if line["event"] == "log")


@either_class
def test_discovery_and_queries_go_on_when_the_clock_is_set(stage, options):
    lab = stage.lab()
    clock = WallClock(lab)
    probe, publisher = stage.probe(lab, *options, program=[*clock.before, PROBE]), stage.publisher(lab)
    assert clock.is_that_of(probe.pid)
    assert probe.call("browse", type="_http._tcp") is True
    probe.call("start-query-all")
    publisher.publish(numbered(0))
    assert is_found(probe, numbered(0))
    # The first round begins after 15 s.
    assert wait_until(lambda: queries(probe) > 5, 20)
    for number, shift in enumerate(STEPS, 1):
        clock.set(shift)
        publisher.publish(numbered(number))
        assert is_found(probe, numbered(number)), shift
        publisher.goodbye(numbered(number).name)
        assert is_lost(probe, numbered(number).name), shift
        before = queries(probe)
        assert share_of_a_processor(probe.pid, WATCHED_S) < MOST_CPU, shift
        assert queries(probe) - before >= WATCHED_S * 3, shift


@with_either_class
def test_the_tool_ends_in_time_when_the_clock_is_set(stage, plain):
    lab = stage.lab()
    clock = WallClock(lab)
    publisher = stage.publisher(lab)
    publisher.publish(camera())
    running = stage.discover(lab, "--timeout", "4", "--format", "json", *plain, before=clock.before)
    running.wait_for_output(1)
    clock.set(-HOUR_S)
    publisher.publish(numbered(1))
    running.wait_for_output(2)
    clock.set(HOUR_S)
    publisher.publish(numbered(2))
    status, output, errors, seconds = running.wait()
    assert (status, errors, [service["serviceName"] for _, service in events(output)]) == (
        0, b"", [camera().name, numbered(1).name, numbered(2).name])
    hours = [datetime.fromisoformat(json.loads(line)["time"].replace("Z", "+00:00")).timestamp() / HOUR_S
             for line in output.splitlines()]
    assert [round(hour - hours[0]) for hour in hours] == [0, -1, 1]
    # Qt's timers may be a twentieth early.
    assert 3.7 < seconds < 4 + SOON_S


SUSPENDED_S = 10


def suspend(probe, meanwhile):
    os.kill(probe.pid, signal.SIGSTOP)
    begin = time.monotonic()
    meanwhile()
    time.sleep(begin + SUSPENDED_S - time.monotonic())
    os.kill(probe.pid, signal.SIGCONT)


@either_class
def test_a_process_that_was_stopped_catches_up(stage, options):
    lab = stage.lab()
    probe, publisher = stage.probe(lab, *options), stage.publisher(lab)
    assert probe.call("browse", type="_http._tcp") is True
    publisher.publish(numbered(1), numbered(2), numbered(3))
    assert is_found(probe, numbered(3))
    probe.take_signals(0)

    def meanwhile():
        publisher.goodbye("Cam 1")
        publisher.publish(numbered(4))
        publisher.publish(numbered(5))
        publisher.goodbye("Cam 5")

    suspend(probe, meanwhile)
    assert is_found(probe, numbered(4)) and is_lost(probe, "Cam 1")
    time.sleep(SOON_S)
    assert sorted(key for key, record in probe.table().items() if dict(record)["deviceKind"]) == [
        "Cam 2", "Cam 3", "Cam 4"]
    assert not {"Cam 2", "Cam 3", "Cam 4"} & set(names(probe, "serviceLost"))


def test_changes_of_devices_are_told_after_a_stop(stage):
    lab = stage.lab()
    probe, publisher = stage.probe(lab, "--managed"), stage.publisher(lab)
    assert probe.call("browse", type="_http._tcp") is True
    publisher.publish(numbered(1), numbered(2))
    assert is_found(probe, numbered(1)) and is_found(probe, numbered(2))
    for number in (1, 2):
        probe.start_query(f"Cam {number}", True)

    def meanwhile():
        publisher.add_address("Cam 1", "10.77.0.200")
        publisher.remove_address("Cam 1", "10.77.0.101")
        publisher.set_txt("Cam 2", camera_txt(model="Other"))

    time.sleep(SOON_S)
    suspend(probe, meanwhile)
    assert wait_until(lambda: dict(probe.table()["Cam 1"])["addresses"] == ["10.77.0.200"])
    assert wait_until(lambda: dict(probe.table()["Cam 2"])["modelName"] == "Other")
    assert names(probe, "serviceLost") == []


def test_a_stop_during_the_grace_period_loses_nobody(stage):
    lab = stage.lab()
    probe, publisher = stage.probe(lab, "--managed", "--grace", "2000"), stage.publisher(lab)
    assert probe.call("browse", type="_http._tcp") is True
    publisher.publish(numbered(1), numbered(2))
    assert is_found(probe, numbered(1)) and is_found(probe, numbered(2))
    lab.fault("viewer", "daemon-kill")
    # Nobody answers, so that nobody is seen again before the stop.
    lab.fault("fleet", "isolate")
    lab.fault("viewer", "daemon-start")
    assert wait_for_state(probe, RUNNING)
    suspend(probe, lambda: lab.fault("fleet", "join"))
    time.sleep(2 * SOON_S)
    assert names(probe, "serviceLost") == []
    assert sorted(probe.table()) == ["Cam 1", "Cam 2"]
