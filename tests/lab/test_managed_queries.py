# SPDX-License-Identifier: MIT
"""Queries of managed discovery: of all devices in turn, and long-lived ones, each of which ends alone."""

import re

from labkit.devices import camera_txt, numbered
from labkit.labs import WITH_DESK
from labkit.lines import wait_until
from labkit.managed import RUNNING, UNAVAILABLE, found, managed, told, wait_for_state

RESOLVED = re.compile(r"ManagedServiceDiscovery::ServiceResolve\(\) -> resolved: (Cam \d+) host: .*")
ROUNDS = 3
# The first of them begins after 15 s, and each query is 200 ms after the last one.
ROUNDS_WITHIN_S = 30

BROWSER = 1
OBJECTS_A_QUERY = 2

GRACE_S = 3
NESTED_LOOP_S = 2 * GRACE_S


def resolved(probe):
    """The devices in the order in which they were resolved, ever since."""
    matches = [RESOLVED.fullmatch(line["text"]) for line in list(probe.said.all) if line["event"] == "log"]
    return [match[1] for match in matches if match]


def test_each_round_queries_every_device_once_and_in_the_same_order(stage):
    _, probe, publisher = managed(stage)
    probe.call("browse", type="_http._tcp")
    devices = [numbered(number) for number in range(1, 8)]
    found(probe, publisher, *devices)
    order = [name for name, _ in probe.queue()]
    assert sorted(order) == [device.name for device in devices]

    before = len(resolved(probe))
    probe.call("start-query-all")
    wanted = ROUNDS * len(devices)
    assert probe.said.wait_for(lambda _: len(resolved(probe)) - before >= wanted, ROUNDS_WITHIN_S)
    assert resolved(probe)[before:][:wanted] == ROUNDS * order


def test_the_end_of_a_long_lived_query_ends_no_other(stage):
    _, probe, publisher = managed(stage)
    probe.call("browse", type="_http._tcp")
    text, stopped, address = numbered(1), numbered(2), numbered(3)
    found(probe, publisher, text, stopped, address)
    for device in (text, stopped, address):
        assert probe.start_query(device.name, True) is True

    def are_open(queries):
        return wait_until(lambda: probe.call("count-avahi-objects") == BROWSER + queries * OBJECTS_A_QUERY)

    assert are_open(3)
    # By then each has seen all addresses there are.
    assert probe.take_signals(0, quiet=3) == []
    assert are_open(3)
    probe.stop_query(stopped.name)
    assert are_open(2)
    assert {name: dict(record)["longLiveQuery"] for name, record in probe.table().items()} == {
        text.name: True, stopped.name: False, address.name: True}

    for device in (text, stopped):
        publisher.set_txt(device.name, camera_txt(model="Dome 5"))
    publisher.add_address(stopped.name, "10.77.0.202")
    publisher.add_address(address.name, "10.77.0.203")
    assert told(probe.take_signals(2, quiet=4)) == [("serviceAddress", address.name), ("serviceText", text.name)]
    assert are_open(2)

    probe.start_query(stopped.name, False)
    assert told(probe.take_signals(2)) == [("serviceAddress", stopped.name), ("serviceText", stopped.name)]
    assert are_open(2)


def test_an_event_loop_in_a_slot_longer_than_the_grace_period_loses_nothing(stage):
    lab = stage.lab(WITH_DESK)
    probe = stage.probe(lab, "--managed", "--grace", str(GRACE_S * 1000),
                        "--nested-loop", str(NESTED_LOOP_S * 1000), "--nested-loop-at", "serviceText")
    publisher, other = stage.publisher(lab), stage.publisher(lab, host="desk")
    probe.call("browse", type="_http._tcp")
    late, changed = [numbered(number) for number in range(1, 6)], numbered(6)
    found(probe, publisher, *late)
    found(probe, other, changed)

    lab.fault("viewer", "daemon-kill")
    assert wait_for_state(probe, UNAVAILABLE)
    # The one that changed is seen first, and the others while its slot runs the loop.
    lab.fault("fleet", "isolate")
    other.set_txt(changed.name, camera_txt(model="Dome 5"))
    lab.fault("viewer", "daemon-start")
    assert probe.said.wait_for(lambda lines: {"event": "nested-loop-begins"} in lines)
    assert wait_for_state(probe, RUNNING)
    lab.fault("fleet", "join")
    for device in late:
        publisher.set_txt(device.name, device.txt)
    assert {"event": "nested-loop-ends"} not in probe.said.all

    assert probe.said.wait_for(lambda lines: {"event": "nested-loop-ends"} in lines)
    assert told(probe.take_signals(1, quiet=GRACE_S + 1)) == [("serviceText", changed.name)]
    assert sorted(probe.table()) == sorted(device.name for device in (*late, changed))
    # They were seen again.
    publisher.goodbye(*(device.name for device in late))
    assert told(probe.take_signals(len(late))) == [("serviceLost", device.name) for device in late]
