# SPDX-License-Identifier: MIT
"""What a published record asks a device to become, read as strictly as a device would."""

import base64
import binascii
import dataclasses
import hmac
import ipaddress

from . import txt
from .device import STORAGE, Network

SERIAL_BYTES = 3
ADDRESS_BYTES = 4
DNS_KEYS = ("DNS1", "DNS2", "DNS3")


class Refusal(Exception):
    """Why a record is not obeyed; the password is never part of it."""


@dataclasses.dataclass(frozen=True)
class Credentials:
    user: bytes
    password: bytes


class Record:
    """A published TXT record. Of a key that stands there twice, the first one counts."""

    def __init__(self, record, domain):
        self._strings = txt.strings_of(record)
        self._domain = domain

    def is_reconfiguration(self):
        return self._string("ZEPH") is not None

    def serial(self):
        """The serial number of the device that is meant."""
        return self._bytes("ZEPH", SERIAL_BYTES)

    def require(self, credentials):
        if self._value("USER") != credentials.user:
            # Escaped, for it may hold anything.
            raise Refusal(f"wrong user {ascii(self._value('USER').decode(errors='replace'))}")
        try:
            password = base64.b64decode(self._value("PWD"), validate=True)
        except binascii.Error:
            raise Refusal("PWD is not Base64") from None
        if not hmac.compare_digest(password, credentials.password):
            raise Refusal("wrong password")

    def network(self, kind):
        """The network settings for a device of a kind; only storage servers take name servers."""
        address, mask = self._address("NEWIP"), self._address("MASK")
        _require_usable(address, mask)
        keys = DNS_KEYS if kind == STORAGE else ()
        servers = [self._address(key) for key in keys if self._string(key) is not None]
        return Network((str(address),), str(mask), tuple(map(str, servers)))

    def save(self):
        value = self._value("SAVE")
        if value not in (b"T", b"F"):
            raise Refusal("SAVE is neither T nor F")
        return value == b"T"

    def _address(self, label):
        # The dotted address's bytes, in their order.
        return ipaddress.IPv4Address(self._bytes(label, ADDRESS_BYTES))

    def _bytes(self, label, count):
        value = self._value(label)
        if len(value) != count:
            raise Refusal(f"{label} has {len(value)} bytes, not {count}")
        return value

    def _value(self, label):
        string = self._string(label)
        if string is None:
            raise Refusal(f"{label} is missing")
        value = txt.value_of(string)
        if value is None:
            raise Refusal(f'{label} is without "="')
        return value

    def _string(self, label):
        number = txt.find(self._strings, f"{label}.{self._domain}")
        return None if number is None else self._strings[number]


def _require_usable(address, mask):
    bits = int(mask)
    # What remains of a contiguous mask is ones only, so that one more makes it a power of two.
    rest = bits ^ 0xFFFFFFFF
    if bits == 0 or rest & (rest + 1):
        raise Refusal(f"MASK {mask} is no net mask")
    if address.is_multicast or address.is_reserved or address.is_loopback or int(address) >> 24 == 0:
        raise Refusal(f"NEWIP {address} is no address of a host")
    host = int(address) & rest
    if rest > 1 and host in (0, rest):
        raise Refusal(f"NEWIP {address} is no address of a host in a network with the mask {mask}")
