# SPDX-License-Identifier: MIT
"""Programs that publish services on a host of the lab, all but that for fleets by means of other makers."""

from .conversation import Conversation
from .paths import PUBLISHERS
from .records import encoded

ZEROCONF = "zeroconf-publisher.py"
MULTICAST_DNS = "multicast-dns-responder.mjs"
BONJOUR_SERVICE = "bonjour-service-publisher.mjs"
FLEET_PUBLISHER = "fleet-publisher.py"


class Publisher(Conversation):
    def __init__(self, lab, program=ZEROCONF, host="fleet", arguments=()):
        super().__init__(lab.start(host, PUBLISHERS / program, *arguments, stderr=None))

    def is_answer(self, line):
        return line["event"] in ("done", "error")

    def tell(self, command, **fields):
        answer = self.request(command, **fields)
        assert answer["event"] == "done", answer

    def publish(self, *devices):
        self.tell("publish", services=[device.request() for device in devices])

    def set_txt(self, name, txt):
        self.tell("set-txt", service=name, txt=encoded(txt))

    def add_address(self, name, address):
        self.tell("add-address", service=name, address=address)

    def remove_address(self, name, address):
        self.tell("remove-address", service=name, address=address)

    def goodbye(self, *names):
        self.tell("goodbye", services=list(names))

    def replace(self, device):
        """The device comes back changed, all of it told in one packet."""
        self.tell("vanish", services=[device.name])
        self.publish(device)
