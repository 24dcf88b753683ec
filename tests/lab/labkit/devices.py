# SPDX-License-Identifier: MIT
"""The camera that most tests use, and the record that discovery is to make of it."""

from .records import Device, checksum, record

SERIAL = b"\x01\x02\x03"


def camera(name="Lobby", host="camera-1", address="10.77.0.101", txt=None, **fields):
    """A camera; without an address the publisher is to take that of the interface."""
    return Device(**{"name": name, "host": host, "addresses": [address] if address else [],
                     "txt": txt or camera_txt(), **fields})


def numbered(number, **fields):
    """One of many cameras."""
    return camera(f"Cam {number}", f"camera-{number}", f"10.77.0.{100 + number}", **fields)


def camera_txt(serial=SERIAL, model="Dome 4", version="4.2.1"):
    """Its head, the only part whose changes are signalled, tells the model."""
    return [b"full_name.vandrel.com=" + model.encode(), b"ser_no.vandrel.com=" + serial,
            b"fs_vers.vandrel.com=" + version.encode()]


def model_checksum(model):
    """The checksum of the head of a camera's text."""
    return checksum(camera_txt(model=model)[0])


def camera_record(lab, name="Lobby", host="camera-1", address="10.77.0.101", **members):
    """The record of that camera, as it is when it is found."""
    return record(**{
        "serviceType": "_http._tcp", "interfaceIndex": lab.interface_indexes["lan0"], "deviceKind": 1,
        "serviceName": name, "hostName": f"{host}.local", "recordHostName": f"{host}.local",
        "addresses": [address], "serialNumber": 0x010203, "modelName": "Dome 4", "softwareVersion": "4.2.1",
        **members})


def host_record(name="Lobby"):
    """The entry that leads from a host to its service."""
    return record(serviceName=name)
