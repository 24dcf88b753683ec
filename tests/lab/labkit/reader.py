# SPDX-License-Identifier: MIT
"""What another host reads of a published service, by an implementation of multicast DNS that is not Avahi's."""

import base64

from .conversation import Conversation
from .paths import READERS


class Reader(Conversation):
    def __init__(self, lab, service_type):
        super().__init__(lab.start("fleet", READERS / "zeroconf-reader.py", service_type, stderr=None))

    def events(self):
        return self.said.all[1:]

    def wait_for(self, event, name, txt=None):
        """Waits until a service was found, updated or lost, with this TXT record if one is given."""
        return self.said.wait_for(lambda lines: next(
            (line for line in lines if line["event"] == event and line["name"] == name
             and (txt is None or txt_of(line) == txt)), None))


def txt_of(line):
    """The strings of a TXT record in the order of the wire."""
    wire, strings = base64.b64decode(line["txt"]), []
    while wire:
        strings.append(wire[1:1 + wire[0]])
        wire = wire[1 + wire[0]:]
    return strings
