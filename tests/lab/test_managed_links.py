# SPDX-License-Identifier: MIT
"""Managed discovery of devices that not every link answers for."""

import json
import time

import pytest

from labkit.devices import camera
from labkit.hostile import Packet, Spoof, camera_data, wire
from labkit.labs import TWO_SEGMENTS
from labkit.lines import wait_until

CAMERA = ("Stock", "_http._tcp", "80", "ser_no.vandrel.com=abc", "full_name.vandrel.com=Dome 4")
# A link that does not answer is given up after 5 s.
FOUND_WITHIN_S = 12

def ipv4_addresses(lab, host):
    interfaces = json.loads(lab.run(host, "ip", "-json", "-4", "address", "show", "scope", "global"))
    return [address["local"] for interface in interfaces for address in interface["addr_info"]]

def addresses_of(probe, name):
    return {key: dict(record)["addresses"] for key, record in probe.table().items()}.get(name)

@pytest.mark.parametrize("begins_first", ["device", "discovery"])
def test_a_device_that_tells_its_ipv4_addresses_over_ipv4_only_is_found(stage, begins_first):
    """As every device does whose responder is a daemon of Avahi's as it comes."""
    lab = stage.lab(("viewer", "other"))
    probe = stage.probe(lab, "--managed")
    if begins_first == "discovery":
        assert probe.call("browse", type="_http._tcp") is True
        time.sleep(1)
    lab.start("other", "avahi-publish", "-s", *CAMERA)
    if begins_first == "device":
        assert wait_until(lambda: lab.run("viewer", "avahi-browse", "-ptk", "_http._tcp").count("+;") == 2)
        assert probe.call("browse", type="_http._tcp") is True
    assert wait_until(lambda: addresses_of(probe, "Stock"), FOUND_WITHIN_S) == ipv4_addresses(lab, "other")

@pytest.mark.parametrize("left_on, address", [("lan0", "10.78.0.2"), ("lan1", "10.77.0.2")])
def test_what_is_left_of_a_device_on_one_network_does_not_hide_it_on_the_other(stage, left_on, address):
    lab = stage.lab(TWO_SEGMENTS)
    # Its other records live two minutes only.
    left = Spoof(b"Lobby", camera_data(), host=(b"camera-1", b"local"))
    hostile, publisher = stage.hostile(lab, interface=left_on), stage.publisher(lab, arguments=[address])
    hostile.send([Packet(wire.response([left.pointer, left.text]))])
    publisher.publish(camera())
    assert wait_until(lambda: lab.run("viewer", "avahi-browse", "-ptk", "_http._tcp").count("+;") >= 1)
    time.sleep(1)
    probe = stage.probe(lab, "--managed")
    assert probe.call("browse", type="_http._tcp") is True
    assert wait_until(lambda: addresses_of(probe, "Lobby"), FOUND_WITHIN_S) == camera().addresses
