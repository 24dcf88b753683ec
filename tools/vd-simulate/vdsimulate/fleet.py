# SPDX-License-Identifier: MIT
"""The fleet: devices made by chance, the same ones from the same seed, and their finding."""

import ipaddress
import itertools

from . import catalogue, txt
from .device import ALIVE, CAMERA, OTHER, STORAGE, Device, Network
from .requests import RequestError

MAX_LABEL = 63
STORAGE_DOMAIN = "snapserver.com"
WEB, SECURE_WEB = "_http._tcp", "_https._tcp"


class AddressPlan:
    """The addresses of a network, from the first one or that which its text names: 10.0.0.100/24."""

    def __init__(self, text):
        interface = ipaddress.IPv4Interface(text)
        self.network = interface.network
        self.mask = str(self.network.netmask)
        # The first and the last address of a network are those of no host, unless it has no others.
        has_reserved = self.network.prefixlen < 31
        lowest = int(self.network.network_address) + has_reserved
        self._first = max(int(interface.ip), lowest)
        self._end = int(self.network.broadcast_address) + 1 - has_reserved

    def room(self):
        return self._end - self._first

    def address(self, number):
        """The address of a number, counted round from 0."""
        return str(ipaddress.IPv4Address(self._first + number % self.room()))


class Fleet:
    def __init__(self, devices, plan):
        self._devices = {device.name: device for device in devices}
        self._plan = plan

    def __iter__(self):
        return iter(self._devices.values())

    def __len__(self):
        return len(self._devices)

    def alive(self):
        return [device for device in self if device.presence == ALIVE]

    def find(self, name):
        if name not in self._devices:
            raise RequestError(f"there is no device '{name}'")
        return self._devices[name]

    def other_user_of(self, address, device):
        """Another device that has an address, or will have it after its restart, or None."""
        return next((other for other in self if other is not device and address in _addresses_of(other)), None)

    def free_address(self, random):
        """An address that no device has, or None."""
        taken = {address for device in self for address in _addresses_of(device)}
        room = self._plan.room()
        start = random.randrange(room)
        candidates = map(self._plan.address, range(start, start + min(room, len(taken) + 1)))
        return next((address for address in candidates if address not in taken), None)


def _addresses_of(device):
    return {*device.network.addresses, *(device.saved.addresses if device.saved else ())}


def make_fleet(counts, plan, random, vendor_domain):
    """Makes so many devices of each kind; the dice alone decide what they are like."""
    total = sum(counts.values())
    if plan.room() < total:
        raise RequestError(f"{plan.network} has room for {plan.room()} of {total} devices; "
                           "name a larger network with --addresses")
    serials = map(_three_bytes, random.sample(range(1, 1 << 24), counts[CAMERA] + counts[STORAGE]))
    numbers, addresses = itertools.count(1), map(plan.address, itertools.count())
    kinds = [(CAMERA, catalogue.PLACES, lambda place: _camera(random, place, next(serials), vendor_domain)),
             (STORAGE, catalogue.ARCHIVES, lambda name: _storage(random, name, next(serials))),
             (OTHER, catalogue.OTHERS, lambda thing: _other(random, thing, next(numbers)))]
    devices = []
    for kind, entries, members in kinds:
        for entry, suffix in itertools.islice(_shuffled(random, entries), counts[kind]):
            device = Device(kind=kind, network=Network((next(addresses),), plan.mask), **members(entry))
            device.name += suffix
            devices.append(device)
    return Fleet(devices, plan)


def camera_strings(serial, model, version, error, owner, privacy, domain):
    # Only a change of the first string is signalled by discovery, so it is the one that changes most.
    return _pairs([("error", error), ("ser_no", serial), ("full_name", model), ("fs_vers", version),
                   ("userdata_owner", owner), ("privacy_mode", privacy)], domain)


def storage_strings(serial, model, version, error, total, free):
    return _pairs([("freecapacity", free), ("ser_no", serial), ("model", model), ("sw_version", version),
                   ("error", error), ("totalcapacity", total)], STORAGE_DOMAIN)


def _camera(random, place, serial, domain):
    choose = random.choice
    strings = camera_strings(serial, choose(catalogue.CAMERA_MODELS), choose(catalogue.CAMERA_VERSIONS),
                             choose(catalogue.CAMERA_ERRORS), choose(catalogue.OWNERS), choose("FFFT"), domain)
    service_type, port = random.choice([(WEB, 80), (WEB, 80), (WEB, 8080), (SECURE_WEB, 443)])
    return {"name": place, "type": service_type, "port": port,
            "host": f"camera-{serial.hex()}", "serial": serial, "serial_key": f"ser_no.{domain}",
            "record": txt.record_of(strings)}


def _storage(random, name, serial):
    total = random.choice(catalogue.CAPACITIES_TB)
    strings = storage_strings(serial, random.choice(catalogue.STORAGE_MODELS),
                              random.choice(catalogue.STORAGE_VERSIONS), random.choice(catalogue.STORAGE_ERRORS),
                              f"{total} TB", f"{random.randint(0, total)} TB")
    service_type, port = random.choice([(SECURE_WEB, 443), (SECURE_WEB, 8443), (WEB, 80)])
    return {"name": name, "type": service_type, "port": port,
            "host": f"storage-{serial.hex()}", "serial": serial, "serial_key": f"ser_no.{STORAGE_DOMAIN}",
            "record": txt.record_of(strings)}


def _other(random, thing, number):
    name, host, strings = thing
    service_type, port = random.choice([(WEB, 80), (WEB, 8080), (WEB, 631), (SECURE_WEB, 443)])
    return {"name": name, "type": service_type, "port": port, "host": f"{host}-{number}",
            "record": txt.record_of([string.encode() for string in strings])}


def _pairs(values, domain):
    return [txt.pair(f"{key}.{domain}", value if isinstance(value, bytes) else value.encode())
            for key, value in values]


def _three_bytes(number):
    return number.to_bytes(3, "big")


def _shuffled(random, entries):
    """All entries in an order by chance, and all once more, each with what is to be added to a name then."""
    order = random.sample(entries, len(entries))
    for round_number in itertools.count(1):
        yield from ((entry, "" if round_number == 1 else f" {round_number}") for entry in order)
