# SPDX-License-Identifier: MIT
"""Packets in the name of a camera that is there, sent by somebody else: whatever they claim passes with them."""

import pytest

from labkit.devices import camera, camera_txt
from labkit.hostile import Packet, camera_data, spoofed_camera, wire
from labkit.lines import wait_until

HOST = (b"camera-1", b"local")
OWN, SECOND = "10.77.0.101", "10.77.0.201"
# The daemon looks again for what it was told is gone, ever less often.
PATIENCE_S = 45
CONFLICTS = 50
MANY = 500

with_each_class = pytest.mark.parametrize("options", [["--managed"], []], ids=["managed", "plain"])


def followed_camera(stage, options):
    """A camera that was found and is asked again and again; returns the probe, its publisher and the spoofer."""
    lab = stage.lab()
    probe, honest, hostile = stage.probe(lab, *options), stage.publisher(lab), stage.hostile(lab)
    assert probe.call("browse", type="_http._tcp")
    honest.publish(camera())
    assert [name for name, _ in probe.take_signals(1)] == ["serviceFound"]
    probe.call("start-query-all")
    return probe, honest, hostile


def becomes(probe, condition):
    """Whether the camera's record is so in the end; else what it is."""
    def record():
        return dict(probe.table().get("Lobby", []))
    return wait_until(lambda: (known := record()) and condition(known), PATIENCE_S) or record()


def shows(probe, **members):
    return becomes(probe, lambda record: members.items() <= record.items())


def has_addresses(probe, plain, *addresses):
    """Whether these are its addresses; the plain class keeps removed ones beside them."""
    def has(record):
        known = set(record["addresses"])
        return known == set(addresses) or (plain and known >= set(addresses))
    return becomes(probe, has)


def signals(probe, name):
    return [line["argument"] for line in list(probe.said.all) if line.get("signal") == name]


def addresses_of_camera(dotted, unique=False):
    return [wire.address(HOST, address, unique) for address in dotted]


def said_by(source, records, ttl=None):
    return Packet(wire.response(records, ttl=ttl), source=source)


@with_each_class
def test_a_goodbye_loses_the_camera_and_its_next_word_brings_it_back(stage, options):
    probe, honest, hostile = followed_camera(stage, options)
    lobby = spoofed_camera("Lobby")
    hostile.send([said_by("10.77.0.66", [lobby.pointer], ttl=0)])
    assert wait_until(lambda: signals(probe, "serviceLost"))
    honest.set_txt("Lobby", camera_txt(model="Dome 5"))
    assert shows(probe, modelName="Dome 5", hostName="camera-1.local", addresses=[OWN]) is True


@with_each_class
def test_after_the_goodbyes_of_two_that_claimed_addresses_in_turn_the_own_ones_are_back_and_if_managed_alone(
        stage, options):
    probe, honest, hostile = followed_camera(stage, options)
    claims = [addresses_of_camera([address], unique=True) for address in ("10.66.0.1", "10.66.0.2")]
    for _ in range(CONFLICTS):
        hostile.send([said_by("10.77.0.66", claims[0]), said_by("10.77.0.67", claims[1])], pause_ms=2)
    assert wait_until(lambda: any("10.66.0.2" in dict(record)["addresses"]
                                  for record in signals(probe, "serviceAddress")))
    hostile.send([said_by("10.77.0.66", [*claims[0], *claims[1]], ttl=0)])
    honest.add_address("Lobby", SECOND)
    assert has_addresses(probe, not options, OWN, SECOND) is True


@with_each_class
def test_hundreds_of_addresses_go_with_their_goodbyes(stage, options):
    probe, _, hostile = followed_camera(stage, options)
    # Of the plain class, only this one notices that an address goes.
    assert probe.start_query("Lobby", True)
    claimed = addresses_of_camera(f"10.67.{number // 250}.{number % 250 + 1}" for number in range(MANY))
    hostile.send([said_by("10.77.0.66", [claim]) for claim in claimed])
    assert becomes(probe, lambda record: len(record["addresses"]) > MANY) is True
    hostile.send([said_by("10.77.0.66", [claim], ttl=0) for claim in claimed])
    # Of the plain class one that was removed stays.
    assert becomes(probe, lambda record: len(record["addresses"]) <= 2) is True
    assert has_addresses(probe, not options, OWN) is True


@with_each_class
def test_another_host_under_the_name_of_the_camera_goes_with_its_goodbye(stage, options):
    probe, honest, hostile = followed_camera(stage, options)
    other = spoofed_camera("Lobby", host=(b"other", b"local"), address="10.66.6.6",
                           txt=camera_data(model=b"Other"))
    hostile.send([other.packet()])
    assert shows(probe, modelName="Other", hostName="other.local") is True
    hostile.send([said_by("10.77.0.66", other.records()[1:], ttl=0)])
    honest.set_txt("Lobby", camera_txt(model="Dome 6"))
    assert shows(probe, modelName="Dome 6", hostName="camera-1.local") is True
    assert has_addresses(probe, not options, OWN) is True
