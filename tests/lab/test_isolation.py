# SPDX-License-Identifier: MIT
"""Nothing a lab does leaves it, and nothing of it stays."""

import json
import os
import socket
import subprocess
import sys
from pathlib import Path

import pytest

from labkit.devices import camera
from labkit.labs import TWO_SEGMENTS, processes_of_lab
from labkit.lines import wait_until

# Prints a line for each packet on any interface, in or out, that holds the given bytes.
SNIFFER = """
import socket, sys
with socket.socket(socket.AF_PACKET, socket.SOCK_RAW, socket.htons(3)) as sniffer:
    print("ready", flush=True)
    while True:
        packet, (interface, *_) = sniffer.recvfrom(65536)
        if sys.argv[1].encode() in packet:
            print(interface, flush=True)
"""

SYSTEM_BUS = Path("/run/dbus/system_bus_socket")


def can_sniff():
    try:
        with socket.socket(socket.AF_PACKET, socket.SOCK_RAW):
            return True
    except PermissionError:
        return False


def links(lab, host):
    return json.loads(lab.run(host, "ip", "-json", "-details", "link"))


@pytest.mark.skipif(not can_sniff(), reason="only root may listen to all packets of the machine")
def test_no_packet_of_a_lab_is_seen_outside(stage):
    lab, probe, publisher = stage.set_up()
    mark = f"Stray {os.getpid()}"
    outside = subprocess.Popen([sys.executable, "-c", SNIFFER, mark], stdout=subprocess.PIPE, text=True)
    inside = lab.start("viewer", sys.executable, "-c", SNIFFER, mark, text=True)
    assert (outside.stdout.readline(), inside.stdout.readline()) == ("ready\n", "ready\n")

    probe.browse()
    publisher.publish(camera(mark))
    assert [name for name, _ in probe.take_signals(1)] == ["serviceFound"]
    publisher.goodbye(mark)
    assert [name for name, _ in probe.take_signals(1)] == ["serviceLost"]

    for sniffer in (inside, outside):
        sniffer.kill()
    assert outside.communicate()[0] == ""
    assert "lan0" in inside.stdout.read().splitlines()


def test_every_link_of_a_lab_ends_at_its_own_switch(stage):
    lab = stage.lab(TWO_SEGMENTS)
    switch = {link["ifindex"]: link["ifname"] for link in links(lab, "switch")}
    assert sorted(switch.values()) == ["br0", "br1", "lo", "port1-0", "port1-1", "port2-0", "port2-1"]
    for number, host in enumerate(("viewer", "fleet"), 1):
        # The other end of each, as an index over there.
        far_ends = {link["ifname"]: switch.get(link.get("link_index")) for link in links(lab, host)}
        assert far_ends == {"lo": None, "lan0": f"port{number}-0", "lan1": f"port{number}-1"}


def test_a_lab_has_no_route_to_anywhere_else(stage):
    lab = stage.lab()
    for host in ("viewer", "fleet"):
        routes = json.loads(lab.run(host, "ip", "-json", "route"))
        assert [(route["dst"], route["dev"], route.get("gateway")) for route in routes] == [
            ("10.77.0.0/24", "lan0", None), ("224.0.0.0/4", "lan0", None)]
    assert json.loads(lab.run("switch", "ip", "-json", "route")) == []


def test_the_machine_gets_no_interface_and_no_bus_from_a_lab(stage):
    interfaces = set(os.listdir("/sys/class/net"))
    bus = SYSTEM_BUS.stat().st_ino if SYSTEM_BUS.exists() else None
    lab = stage.lab()
    assert set(os.listdir("/sys/class/net")) == interfaces
    assert (SYSTEM_BUS.stat().st_ino if SYSTEM_BUS.exists() else None) == bus
    assert lab.run("viewer", "stat", "-c", "%F", str(SYSTEM_BUS)) == "socket\n"


def test_a_lab_that_goes_down_takes_every_process_and_its_folder_along(stage):
    lab = stage.lab()
    lab.start("viewer", "setsid", "sleep", "1000")
    programs = {"avahi-daemon", "dbus-daemon", "sleep 1000"}
    assert wait_until(lambda: programs <= {command.split(" --")[0] for command in processes_of_lab(lab.folder)})
    lab.command("down")
    assert wait_until(lambda: not processes_of_lab(lab.folder)), processes_of_lab(lab.folder)
    assert not lab.folder.exists()
