# SPDX-License-Identifier: MIT
"""A camera and the viewer on two networks at once."""

from labkit.devices import camera, camera_record, host_record, model_checksum
from labkit.labs import TWO_SEGMENTS
from labkit.records import changed

RESOLVE = "AvahiServiceDiscovery::ResolveService () -> trying to resolve service: Lobby"


def find(stage):
    """A camera was found; returns the lab, the probe, the publisher and the record it was found with."""
    lab, probe, publisher = stage.set_up(TWO_SEGMENTS)
    probe.browse()
    publisher.publish(camera())
    [(name, found)] = probe.take_signals(1)
    assert name == "serviceFound"
    return lab, probe, publisher, found


def test_it_is_found_once_and_resolved_on_each(stage):
    lab, probe, _, found = find(stage)
    indexes = {lab.interface_indexes["lan0"], lab.interface_indexes["lan1"]}
    [first] = indexes & {dict(found)["interfaceIndex"]}
    [second] = indexes - {first}
    assert found == camera_record(lab, interfaceIndex=first)
    assert probe.table() == {"Lobby": changed(found, interfaceIndex=second, txtChecksum=model_checksum("Dome 4")),
                             "camera-1.local": host_record()}
    assert probe.queue() == 2 * [("Lobby", "_http._tcp")]
    assert probe.take_log().count(RESOLVE) == 2


def test_a_goodbye_on_both_is_one_loss(stage):
    _, probe, publisher, _ = find(stage)
    stored = probe.table()["Lobby"]
    publisher.goodbye("Lobby")
    assert probe.take_signals(1) == [("serviceLost", stored)]
    assert (probe.table(), probe.queue()) == ({}, [])


def test_the_end_of_one_network_is_a_loss_and_that_of_the_other_is_silent(stage):
    lab, probe, publisher, _ = find(stage)
    stored = probe.table()["Lobby"]
    lab.fault("viewer", "link-down", "--link", "1")
    assert probe.take_signals(1) == [("serviceLost", stored)]
    assert probe.table() == {}

    publisher.goodbye("Lobby")
    assert probe.take_signals(0) == []


def test_an_address_on_each_is_told_one_after_the_other(stage):
    _, probe, publisher = stage.set_up(TWO_SEGMENTS)
    probe.browse()
    both = ["10.77.0.101", "10.78.0.101"]
    publisher.publish(camera(addresses=both))
    signals = probe.take_signals(2)
    assert [name for name, _ in signals] == ["serviceFound", "serviceAddress"]
    found, address = (dict(record) for _, record in signals)
    assert len(found["addresses"]) == 1 and found["addresses"] == address["addresses"][:1]
    assert sorted(address["addresses"]) == both
