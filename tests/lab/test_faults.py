# SPDX-License-Identifier: MIT
"""Daemons that die, come back or refuse, and how a host application gets over it."""

import pytest

from labkit.devices import camera, camera_record, model_checksum
from labkit.labs import FEW_OBJECTS
from labkit.records import Device

CLIENT_FAILURE = "AvahiServiceDiscovery::SAvahiClient_callback() -> Avahi client failure"
NO_BROWSER = "AvahiServiceDiscovery::BrowseServices() -> could not create Avahi Service Browser "
NO_CLIENT = "AvahiServiceDiscovery::BrowseServices() ->  could not create Avahi client"

RETURNS = {"daemon-kill": ["daemon-start"], "dbus-kill": ["dbus-start", "daemon-start"]}

kills = pytest.mark.parametrize("kill", RETURNS)


def found_and_killed(stage, kill):
    """A camera was found, and then the daemon or its bus killed; returns the lab and the probe."""
    lab, probe, publisher = stage.set_up()
    probe.browse()
    publisher.publish(camera())
    assert probe.take_signals(1) == [("serviceFound", camera_record(lab))]
    probe.take_log()
    lab.fault("viewer", kill)
    assert probe.wait_for_log(CLIENT_FAILURE)
    return lab, probe


def come_back(lab, kill):
    for fault in RETURNS[kill]:
        lab.fault("viewer", fault)


@kills
def test_a_failure_is_one_line_in_the_log_and_changes_nothing(stage, kill):
    lab, probe = found_and_killed(stage, kill)
    assert probe.take_signals(0) == []
    assert probe.take_log() == [CLIENT_FAILURE]
    assert probe.call("is-browsing") is True
    assert probe.table()["Lobby"] == camera_record(lab, txtChecksum=model_checksum("Dome 4"))
    assert probe.queue() == [("Lobby", "_http._tcp")]


@kills
def test_queries_fail_with_a_message_after_a_failure(stage, kill):
    _, probe = found_and_killed(stage, kill)
    probe.take_log()
    assert probe.start_query("Lobby", False) is False
    assert probe.take_log() == [
        "AvahiServiceDiscovery::StartQueryRecords () -> Lobby on camera-1.local longLiveQuery 0",
        "AvahiServiceDiscovery::ResolveService () -> trying to resolve service: Lobby",
        "AvahiServiceDiscovery::ResolveService() -> failed create AvahiServiceResolver Lobby error: Bad state",
    ]


@kills
def test_nothing_recovers_by_itself(stage, kill):
    lab, probe = found_and_killed(stage, kill)
    come_back(lab, kill)
    assert probe.take_signals(0) == []
    assert probe.take_log() == [CLIENT_FAILURE]


@kills
def test_ending_discovery_and_beginning_anew_recovers(stage, kill):
    lab, probe = found_and_killed(stage, kill)
    assert probe.call("terminate") is True
    assert (probe.table(), probe.queue(), probe.call("is-browsing")) == ({}, [], False)
    come_back(lab, kill)
    probe.browse()
    assert probe.take_signals(1) == [("serviceFound", camera_record(lab))]


@kills
def test_browsing_cannot_begin_while_the_daemon_is_away(stage, kill):
    _, probe = found_and_killed(stage, kill)
    probe.call("terminate")
    probe.take_log()
    assert probe.call("browse", type="_http._tcp") is False
    assert probe.take_log()[1:] == [NO_BROWSER if kill == "daemon-kill" else NO_CLIENT]
    assert probe.call("is-browsing") is False


def test_objects_beyond_the_daemons_limit_fail_with_a_message_until_discovery_begins_anew(stage):
    lab, probe, publisher = stage.set_up(FEW_OBJECTS)
    # The resolvers of services without a vendor's key stay, so that these alone use up what the daemon grants.
    names = [f"Printer {number}" for number in range(1, 26)]
    probe.browse()
    publisher.publish(*(Device(name, f"printer-{number}", [f"10.77.0.{100 + number}"], [b"ty=Printer"])
                        for number, name in enumerate(names, 1)))
    refused = ("AvahiServiceDiscovery::ResolveService() -> failed create AvahiServiceResolver {} "
               "error: Too many objects")
    probe.wait_for_log(refused.format(names[-1]))
    assert probe.take_signals(0) == []
    # One of the twenty objects is the browser.
    assert [line for line in probe.take_log() if "failed" in line] == [refused.format(name) for name in names[19:]]
    assert sorted(probe.table()) == sorted(names[:19])
    assert probe.start_query(names[0], False) is False

    publisher.goodbye(*names)
    assert len(probe.take_signals(19)) == 19
    probe.call("terminate")
    probe.browse()
    publisher.publish(camera())
    assert probe.take_signals(1) == [("serviceFound", camera_record(lab))]
