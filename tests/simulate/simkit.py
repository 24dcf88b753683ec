# SPDX-License-Identifier: MIT
"""A small fleet without a network, and hand-made reconfigurations for it."""

import asyncio
import base64
import json
import random
import struct

from vdsimulate.actions import Actions
from vdsimulate.churn import Churn
from vdsimulate.commands import Commands
from vdsimulate.device import CAMERA, OTHER, STORAGE, Device, Network
from vdsimulate.fleet import AddressPlan, Fleet
from vdsimulate.obedience import Obedience
from vdsimulate.reconfiguration import Credentials

CAMERA_SERIAL, STORAGE_SERIAL = b"\x00\xC1\xFF", b"\x5A\x00\x01"
CAMERA_RECORD = b"\x12error.vandrel.com=\x16ser_no.vandrel.com=\x00\xC1\xFF"
STORAGE_RECORD = b"\x19ser_no.snapserver.com=\x5A\x00\x01"
PRINTER_RECORD = b"\x05ty=42"
MASK = "255.255.255.0"


class NotedAnnouncements:
    """Notes down what would be made known, as (what, names of devices, further)."""

    def __init__(self):
        self.all = []
        self.times_withdrawn = []

    async def publish(self, devices):
        self.all.append(("publish", *[(device.name, device.addresses, device.record) for device in devices]))

    async def withdraw_addresses(self, devices, addresses):
        self.all.append(("withdraw addresses", *[device.name for device in devices], addresses))

    async def withdraw(self, devices, hosts_kept=(), times=1):
        self.all.append(("withdraw", *[device.name for device in devices]))
        self.times_withdrawn.append(times)

    def forget(self, devices):
        self.all.append(("forget", *[device.name for device in devices]))


class NotedAccount:
    """Notes down what would be told: (event, members)."""

    def __init__(self):
        self.all = []

    def tell(self, event, **members):
        self.all.append((event, members))

    def tell_of(self, event, device, **members):
        self.tell(event, device=device.name, **members, state=device.account())

    def events(self):
        return [(event, members.get("device")) for event, members in self.all]

    def messages(self):
        return [members["message"] for event, members in self.all if event == "error"]

    def reasons(self):
        return [(members["device"], members["reason"]) for event, members in self.all if event == "refused"]


class Simulated:
    def __init__(self):
        self.camera = _device(CAMERA, "Lobby", "10.0.0.1", CAMERA_RECORD, CAMERA_SERIAL, "ser_no.vandrel.com")
        self.storage = _device(STORAGE, "Archive", "10.0.0.2", STORAGE_RECORD, STORAGE_SERIAL,
                               "ser_no.snapserver.com")
        self.printer = _device(OTHER, "Printer", "10.0.0.3", PRINTER_RECORD, b"", "")
        self.devices = [self.camera, self.storage, self.printer]
        self.fleet = Fleet(self.devices, AddressPlan("10.0.0.0/24"))
        self.announced, self.account = NotedAnnouncements(), NotedAccount()
        self.actions = Actions(self.fleet, self.announced, self.account)
        self.quits = []
        self.churn = Churn(self.fleet, self.actions, random.Random(1))
        self.commands = Commands(self.fleet, self.actions, self.account, self.churn, lambda: self.quits.append(True))
        self.obedience = Obedience(self.fleet, self.actions, self.account, Credentials(b"admin", b"s3cret"),
                                   "vandrel.com")
        self.actions.on_return(self.obedience.catch_up)

    def command(self, command, **members):
        self.line(json.dumps({"command": command, **members}))

    def line(self, line):
        asyncio.run(self.commands.handle(line, "input", 1))

    def appear(self, record, name="Move"):
        asyncio.run(self.obedience.appear(name, record))


def _device(kind, name, address, record, serial, serial_key):
    return Device(kind, name, "_http._tcp", name.lower(), 80, Network((address,), MASK), record, serial, serial_key)


def encoded(data):
    return base64.b64encode(data).decode()


def reconfiguration(*further, without=(), domain=b"vandrel.com", **values):
    """A record for the camera as a publisher writes it, but for some values, and without some keys."""
    values = {"ZEPH": CAMERA_SERIAL, "USER": b"admin", "PWD": b"czNjcmV0", "NEWIP": struct.pack("4B", 10, 0, 0, 77),
              "MASK": struct.pack("4B", 255, 255, 255, 0), "SAVE": b"T", **values}
    strings = [key.encode() + b"." + domain + b"=" + value for key, value in values.items() if key not in without]
    return b"".join(struct.pack("B", len(string)) + string for string in [*strings, *further])
