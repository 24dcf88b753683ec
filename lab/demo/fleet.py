#!/usr/bin/python3
# SPDX-License-Identifier: MIT
"""Publishes the demo's devices and lets them live a short life, telling on standard output what it does.

usage: fleet.py    on the host of the lab that is to publish; ends after about 17 s, with goodbyes of every device
"""

import base64
import json
import signal
import subprocess
import sys
import time
from pathlib import Path

PUBLISHER = Path(__file__).resolve().parents[1] / "publishers" / "zeroconf-publisher.py"


def camera(number, name, model, owner="operator", privacy="F"):
    serial = bytes([0x4C, number, 0xC1])
    return device(number, name, f"camera-{number}", "_http._tcp", 80, [
        ("error.vandrel.com", ""), ("ser_no.vandrel.com", serial), ("full_name.vandrel.com", model),
        ("fs_vers.vandrel.com", "4.2.1"), ("userdata_owner.vandrel.com", owner),
        ("privacy_mode.vandrel.com", privacy)])


def storage(number, name, free):
    serial = bytes([0x5A, number, 0x00])
    return device(number, name, f"storage-{number}", "_https._tcp", 443, [
        ("freecapacity.snapserver.com", free), ("ser_no.snapserver.com", serial),
        ("model.snapserver.com", "Shelf 12"), ("sw_version.snapserver.com", "10.3"),
        ("error.snapserver.com", ""), ("totalcapacity.snapserver.com", "48 TB")])


def device(number, name, host, service_type, port, txt):
    return {"name": name, "type": service_type, "host": host, "port": port,
            "addresses": [f"10.77.0.{100 + number}"], "txt": [txt_entry(key, value) for key, value in txt]}


def txt_entry(key, value):
    data = value if isinstance(value, bytes) else value.encode()
    return {"key": key, "value": base64.b64encode(data).decode()}


DEVICES = [
    camera(1, "Lobby", "Dome 4"),
    camera(2, "Loading dock", "Bullet 2"),
    camera(3, "Parking deck P2", "Bullet 2"),
    camera(4, "Kühlraum – Küche 🧊", "Dome 4"),
    camera(5, "Stairwell A", "Corner 1"),
    camera(6, "Stairwell B", "Corner 1"),
    camera(7, "Server room", "Dome 4", privacy="T"),
    camera(8, "Roof, north", "PTZ 9"),
    camera(9, "Roof, south", "PTZ 9"),
    storage(20, "Archive 1", "11 TB"),
    storage(21, "Archive 2", "37 TB"),
    storage(22, "Archive 3 (spare)", "48 TB"),
    device(30, "Office printer", "printer", "_http._tcp", 80, [("ty", "Printer"), ("note", "2nd floor")]),
]


class Fleet:
    def __init__(self):
        # Ctrl+C is for this program alone: the publisher ends with its input.
        self._publisher = subprocess.Popen([PUBLISHER], stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True,
                                           start_new_session=True)
        self._answer()

    def say(self, text, command, **request):
        print(f"  - {text}", flush=True)
        self._publisher.stdin.write(json.dumps({"command": command, **request}) + "\n")
        self._publisher.stdin.flush()
        self._answer()

    def _answer(self):
        line = self._publisher.stdout.readline()
        if not line:
            sys.exit(self._publisher.wait())
        answer = json.loads(line)
        if answer["event"] == "error":
            sys.exit(f"fleet.py: {answer['message']}")


def changed(name, key, value):
    """The TXT record of a device with another value for one of its keys."""
    txt = next(device["txt"] for device in DEVICES if device["name"] == name)
    return [txt_entry(key, value) if entry["key"] == key else entry for entry in txt]


def main():
    dock = next(device for device in DEVICES if device["name"] == "Loading dock")
    fleet = Fleet()
    fleet.say(f"{len(DEVICES)} devices appear; one is a printer, which is none of ours", "publish",
              services=DEVICES)
    time.sleep(4)
    fleet.say("Lobby reports an error", "set-txt", service="Lobby",
              txt=changed("Lobby", "error.vandrel.com", "heater failure"))
    fleet.say("Archive 1 fills up", "set-txt", service="Archive 1",
              txt=changed("Archive 1", "freecapacity.snapserver.com", "2 TB"))
    time.sleep(3)
    fleet.say("Parking deck P2 gets a second address", "add-address", service="Parking deck P2",
              address="10.77.0.203")
    time.sleep(2)
    fleet.say("Parking deck P2 gives up its first address", "remove-address", service="Parking deck P2",
              address="10.77.0.103")
    fleet.say("Loading dock is unplugged and says goodbye", "goodbye", services=["Loading dock"])
    time.sleep(4)
    fleet.say("Loading dock comes back", "publish", services=[dock])
    time.sleep(4)
    fleet.say("everyone says goodbye", "goodbye")
    time.sleep(2)


if __name__ == "__main__":
    try:
        main()
    except KeyboardInterrupt:
        sys.exit(128 + signal.SIGINT)
