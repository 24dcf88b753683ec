#!/usr/bin/python3
# SPDX-License-Identifier: MIT
"""Puts packets on the network that no honest device sends, steered by JSON lines (see ../README.md).

Each is a UDP message to the group of multicast DNS, of any content, from whichever address it is to seem to come.
"""

import base64
import itertools
import socket
import sys
import time

import scapy
from scapy.arch import get_if_hwaddr
from scapy.layers.inet import IP, UDP, fragment
from scapy.layers.l2 import Ether, getmacbyip
from scapy.packet import Raw

from publisher_control import Control, RequestError, checked_address, require_lab

GROUP = "224.0.0.251"
PORT = 5353
HOPS = 255
# Of the data of an IP packet on an Ethernet, in whole eight bytes.
FRAGMENT_SIZE = 1480
MAX_MESSAGE = 65507


class Frames:
    """The frames that carry the packets of a request, each with what it repeats of itself."""

    def __init__(self, packets, interface):
        if not isinstance(packets, list) or not packets:
            raise RequestError("packets is a list with at least one packet")
        self._header = bytes(Ether(src=get_if_hwaddr(interface), dst=getmacbyip(GROUP), type=0x0800))
        self._numbers = itertools.count(1)
        self.packets = [self._of_packet(packet) for packet in packets]

    def _of_packet(self, packet):
        message = _message(packet.get("message"))
        header = IP(src=checked_address(packet.get("source")), dst=GROUP, ttl=packet.get("hops", HOPS),
                    id=next(self._numbers) & 0xFFFF)
        whole = header / UDP(sport=PORT, dport=PORT) / Raw(message)
        return [self._header + bytes(part) for part in fragment(whole, FRAGMENT_SIZE)]


class HostilePublisher:
    def __init__(self, link, interface):
        self._link = link
        self._interface = interface
        self.handlers = {"send": self._send, "flood": self._flood}

    def _send(self, request):
        """Sends each packet once, `pause` milliseconds apart."""
        pause = _number(request, "pause", 1) / 1000
        for frames in Frames(request.get("packets"), self._interface).packets:
            self._put(frames)
            time.sleep(pause)

    def _flood(self, request):
        """Sends the packets over and over, so many a second; tells how many there were in how many seconds."""
        packets = Frames(request.get("packets"), self._interface).packets
        rate, seconds = _number(request, "rate"), _number(request, "seconds")
        begin, sent = time.monotonic(), 0
        end = begin + seconds
        for number, frames in enumerate(itertools.cycle(packets), 1):
            sent += self._put(frames)
            ahead = begin + number / rate - time.monotonic()
            # Shorter sleeps than the kernel grants would only slow it down.
            if ahead > 0.001:
                time.sleep(ahead)
            if time.monotonic() >= end:
                return {"sent": sent, "seconds": time.monotonic() - begin}

    def _put(self, frames):
        """Whether the link has taken all of it; as on any network, one that is down takes nothing."""
        try:
            for frame in frames:
                self._link.send(frame)
        except OSError:
            return False
        return True


def _number(request, key, default=None):
    number = request.get(key, default)
    if not isinstance(number, (int, float)) or number < 0 or (number == 0 and key == "rate"):
        raise RequestError(f"{key} is a number, not {number!r}")
    return number


def _message(encoded):
    try:
        message = base64.b64decode(encoded, validate=True)
    except (TypeError, ValueError):
        raise RequestError("message is Base64") from None
    if len(message) > MAX_MESSAGE:
        raise RequestError(f"a message has at most {MAX_MESSAGE} bytes, not {len(message)}")
    return message


def main():
    require_lab()
    interface = sys.argv[1] if len(sys.argv) == 2 else "lan0"
    with socket.socket(socket.AF_PACKET, socket.SOCK_RAW) as link:
        link.bind((interface, 0))
        control = Control("hostile", scapy.__version__, HostilePublisher(link, interface).handlers)
        try:
            for line in sys.stdin.buffer:
                if not control.handle_line(line):
                    break
        except KeyboardInterrupt:
            pass


if __name__ == "__main__":
    main()
