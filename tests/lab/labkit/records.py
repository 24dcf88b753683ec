# SPDX-License-Identifier: MIT
"""Devices as a publisher is told to publish them, and the records that discovery is to make of them."""

import base64
import dataclasses

MEMBERS = {
    "serviceType": "",
    "interfaceIndex": 0,
    "addressRemoved": False,
    "longLiveQuery": False,
    "deviceKind": 0,
    "serviceName": "",
    "hostName": "",
    "recordHostName": "",
    "addresses": [],
    "port": 80,
    "https": False,
    "macAddress": "00:00:00:00:00:00",
    "serialNumber": 0,
    "softwareVersion": "",
    "modelName": "",
    "errorText": "",
    "userdataOwner": "",
    "privacyMode": False,
    "totalCapacity": "",
    "freeCapacity": "",
    "txtChecksum": 0,
}


def record(**members):
    """All members of a record, in their order: a default record but for these."""
    assert not members.keys() - MEMBERS.keys(), members
    return list({**MEMBERS, **members}.items())


def changed(pairs, **members):
    return record(**{**dict(pairs), **members})


def checksum(text):
    """The CRC-16 of ISO 3309 (X.25), bit by bit."""
    crc = 0xFFFF
    for byte in text:
        crc ^= byte
        for _ in range(8):
            crc = crc >> 1 ^ 0x8408 if crc & 1 else crc >> 1
    return crc ^ 0xFFFF


@dataclasses.dataclass(frozen=True)
class Device:
    """A service and the host it stands on. `txt` is a list of strings in bytes, the head first.

    Publishers know it by its `identifier`, which is its name unless another service has that name too.
    """

    name: str
    host: str
    addresses: list
    txt: list
    type: str = "_http._tcp"
    port: int = 80
    identifier: str = ""

    def request(self):
        """The service as a publisher is told of it."""
        return {"service": self.identifier or self.name, "name": self.name, "type": self.type, "host": self.host,
                "port": self.port, "addresses": self.addresses, "txt": encoded(self.txt)}


def encoded(txt):
    return [_encoded_string(string) for string in txt]


def _encoded_string(string):
    key, separator, value = string.partition(b"=")
    if not separator or not key.isascii():
        return {"raw": base64.b64encode(string).decode()}
    return {"key": key.decode(), "value": base64.b64encode(value).decode()}
