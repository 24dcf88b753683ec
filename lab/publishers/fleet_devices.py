# SPDX-License-Identifier: MIT
"""Simulated devices of both makers, each on a host and an address of its own."""

import ipaddress

from publisher_control import RequestError, Service

VENDORS = ("vandrel", "snap", "mixed", "none")
MAX_DEVICES = 10000


def make_fleet(request):
    """Builds the services that a "fleet" request describes; {n} in a name stands for the device's number."""
    count, first = _integer(request, "count", None), _integer(request, "first", 1)
    vendor = request.get("vendor", "vandrel")
    if vendor not in VENDORS:
        raise RequestError(f"vendor is one of {', '.join(VENDORS)}")
    if not 1 <= count <= MAX_DEVICES:
        raise RequestError(f"count is 1 to {MAX_DEVICES}")
    return [_device(request, vendor, number) for number in range(first, first + count)]


def serial_number(number):
    """Three raw bytes, of which none is text: C1 00 01 for the first device."""
    return (0xC10000 + number).to_bytes(3, "big")


def vandrel_txt(number, domain="vandrel.com"):
    return [
        f"ser_no.{domain}=".encode() + serial_number(number),
        f"full_name.{domain}=Vandrel V{100 + number % 5 * 10}".encode(),
        f"fs_vers.{domain}=7.{number % 10}.1".encode(),
        f"error.{domain}=".encode(),
        f"userdata_owner.{domain}=lab".encode(),
        f"privacy_mode.{domain}={'T' if number % 4 == 0 else 'F'}".encode(),
    ]


def snap_txt(number):
    return [
        b"ser_no.snapserver.com=" + serial_number(number),
        f"model.snapserver.com=Snap Server {400 + number % 3 * 100}".encode(),
        f"sw_version.snapserver.com=6.{number % 10}".encode(),
        b"error.snapserver.com=",
        b"totalcapacity.snapserver.com=4000 GB",
        f"freecapacity.snapserver.com={4000 - number % 40 * 100} GB".encode(),
    ]


def _device(request, vendor, number):
    if vendor == "mixed":
        vendor = "snap" if number % 2 == 0 else "vandrel"
    txt = {"vandrel": lambda: vandrel_txt(number, request.get("vendorDomain", "vandrel.com")),
           "snap": lambda: snap_txt(number),
           "none": lambda: [b"path=/"]}[vendor]()
    service = Service.from_request({
        "name": request.get("name", "Device {n}").replace("{n}", str(number)),
        "type": request.get("type", "_http._tcp"),
        "host": request.get("host", "device-{n}").replace("{n}", str(number)),
        "port": request.get("port", 80),
        "addresses": [_address(request.get("network", "10.99.0.0/16"), number)],
    })
    service.txt = txt
    return service


def _address(network, number):
    try:
        return str(ipaddress.IPv4Network(network)[number])
    except (ValueError, IndexError):
        raise RequestError(f"'{network}' is not an IPv4 network with room for device {number}") from None


def _integer(request, key, default):
    value = request.get(key, default)
    if not isinstance(value, int) or value < 0:
        raise RequestError(f"{key} is a number")
    return value
