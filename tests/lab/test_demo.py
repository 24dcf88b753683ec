# SPDX-License-Identifier: MIT
"""The fleet of the demo, as vd-discover follows it."""

import signal

import pytest

from labkit.discover import events
from labkit.paths import FLEET

CAMERAS = {"Lobby": "10.77.0.101", "Loading dock": "10.77.0.102", "Parking deck P2": "10.77.0.103",
           "Kühlraum – Küche 🧊": "10.77.0.104", "Stairwell A": "10.77.0.105", "Stairwell B": "10.77.0.106",
           "Server room": "10.77.0.107", "Roof, north": "10.77.0.108", "Roof, south": "10.77.0.109"}
STORAGE = {"Archive 1": "10.77.0.120", "Archive 2": "10.77.0.121", "Archive 3 (spare)": "10.77.0.122"}
DEVICES = {**CAMERAS, **STORAGE}
CHANGING = ["Lobby", "Archive 1", "Parking deck P2", "Loading dock"]


def play_demo(stage):
    """Runs the demo; returns the exit status, the events and what was written on standard error."""
    lab = stage.lab()
    follower = stage.discover(lab, "--follow", "--long-lived", "--format", "json", "--verbose")
    assert follower.errors.wait_for(lambda lines: sum(b"-> starting to browse" in line for line in lines) == 2)
    fleet = lab.start("fleet", FLEET, stderr=None)
    assert fleet.communicate(timeout=60) and fleet.returncode == 0
    status, output, errors, _ = follower.interrupt(signal.SIGINT)
    return status, events(output), errors


demo = pytest.mark.story.with_args(play_demo)


def told_of(story, name):
    """The events of one device, with the members that change during the demo."""
    _, all_events, _ = story
    return [(event, service["addresses"], service["addressRemoved"],
             service["errorText"] or service["freeCapacity"])
            for event, service in all_events if service["serviceName"] == name]


@demo
def test_it_shows_the_twelve_devices_in_the_order_in_which_they_appear_and_not_the_printer(story):
    status, all_events, errors = story
    found = [(service["serviceName"], service["addresses"], service["deviceKind"])
             for event, service in all_events[:12] if event == "found"]
    assert found == [(name, [address], 1 if name in CAMERAS else 1024) for name, address in DEVICES.items()]
    assert {service["serviceName"] for _, service in all_events} == DEVICES.keys()
    assert status == 0
    assert b"vd-discover:" not in errors


@demo
@pytest.mark.parametrize("name", [name for name in DEVICES if name not in CHANGING])
def test_a_device_that_does_not_change_is_found_and_at_the_end_lost(story, name):
    assert [(event, addresses) for event, addresses, _, _ in told_of(story, name)] == [
        ("found", [DEVICES[name]]), ("lost", [DEVICES[name]])]


@demo
def test_the_error_that_the_lobby_reports_is_told(story):
    address = [DEVICES["Lobby"]]
    assert told_of(story, "Lobby") == [("found", address, False, ""), ("text", address, False, "heater failure"),
                                       ("lost", address, False, "heater failure")]


@demo
def test_the_room_that_is_left_in_the_archive_is_told(story):
    address = [DEVICES["Archive 1"]]
    assert told_of(story, "Archive 1") == [("found", address, False, "11 TB"), ("text", address, False, "2 TB"),
                                           ("lost", address, False, "2 TB")]


@demo
def test_the_dock_is_lost_and_found_again(story):
    address = [DEVICES["Loading dock"]]
    assert told_of(story, "Loading dock") == [("found", address, False, ""), ("lost", address, False, ""),
                                              ("found", address, False, ""), ("lost", address, False, "")]


@demo
def test_the_parking_deck_gains_an_address_and_loses_the_first(story):
    first, second = "10.77.0.103", "10.77.0.203"
    assert told_of(story, "Parking deck P2") == [
        ("found", [first], False, ""), ("address", [first, second], False, ""), ("address", [first], True, ""),
        ("lost", [second], True, "")]
