# SPDX-License-Identifier: MIT
"""A simulated device: what it publishes, what it remembers, and whether it is there."""

import dataclasses

from . import txt

CAMERA, STORAGE, OTHER = "camera", "storage", "other"

# Silent is a device that went without a goodbye: whoever knew it goes on to believe that it is there.
ALIVE, SILENT, GONE = "alive", "silent", "gone"


@dataclasses.dataclass(frozen=True)
class Network:
    """The network settings of a device."""

    addresses: tuple
    mask: str
    dns: tuple = ()


@dataclasses.dataclass
class Device:
    kind: str
    name: str
    type: str
    host: str
    port: int
    network: Network
    record: bytes  # the TXT record as it is on the wire
    serial: bytes = b""
    serial_key: str = ""
    presence: str = ALIVE
    saved: Network = None  # the settings after a restart, when they are others
    original: bytes = None  # the TXT record from before all changes

    def __post_init__(self):
        self.original = self.record

    @property
    def addresses(self):
        return list(self.network.addresses)

    def account(self):
        """All that is to be known of it, as members of a JSON object."""
        return {
            "device": self.name, "kind": self.kind, "presence": self.presence, "type": self.type,
            "host": self.host, "port": self.port, "addresses": self.addresses, "mask": self.network.mask,
            "dns": list(self.network.dns), "serial": self.serial.hex(), **txt.described(self.record),
        }
