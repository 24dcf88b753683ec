# SPDX-License-Identifier: MIT
"""Packets that no honest device sends, and the program that sends them."""

import base64
import dataclasses
import random
import struct
import sys

from .paths import PUBLISHERS
from .publishers import Publisher

sys.path.insert(1, str(PUBLISHERS))

import mdns_wire as wire  # noqa: E402

HOSTILE = "hostile-publisher.py"
SOURCE = "10.77.0.66"
SERIAL = b"\x01\x02\x03"
HEADER_SIZE = 12
# What an IP packet carries, less its header and that of UDP: 64 KiB do not fit.
MAX_MESSAGE = 65507
# So many packets are sent in good time on a busy machine too.
AT_ONCE = 50


@dataclasses.dataclass(frozen=True)
class Packet:
    message: bytes
    source: str = SOURCE
    hops: int = 255

    def request(self):
        return {"message": base64.b64encode(self.message).decode(), "source": self.source, "hops": self.hops}


class HostilePublisher(Publisher):
    def __init__(self, lab, host="fleet", interface="lan0"):
        super().__init__(lab, HOSTILE, host, [interface])

    def send(self, packets, pause_ms=1):
        requests = [packet.request() for packet in packets]
        for begin in range(0, len(requests), AT_ONCE):
            self.tell("send", packets=requests[begin:begin + AT_ONCE], pause=pause_ms)

    def post_flood(self, packets, rate, seconds):
        """Sends them over and over, so many a second; its answer is read by `flood_answer`."""
        self.post("flood", packets=[packet.request() for packet in packets], rate=rate, seconds=seconds)

    def flood_answer(self, seconds):
        """How many packets there were, and in how many seconds; waits for the end of the flood."""
        answer = self.said.wait_for(lambda lines: next(
            (line for line in lines if line.get("command") == "flood"), None), seconds)
        assert answer and answer["event"] == "done", answer
        return answer["sent"], answer["seconds"]


class Flood:
    """Packets over and over, so many a second in all.

    They come from several processes, so that on a busy machine one of them has its turn.
    """

    SENDERS = 3

    def __init__(self, new_publisher, packets, rate, seconds):
        self._senders = [new_publisher() for _ in range(self.SENDERS)]
        for number, sender in enumerate(self._senders):
            sender.post_flood(packets[number::self.SENDERS], rate / self.SENDERS, seconds)

    def rate(self, seconds):
        """How many packets a second there were; waits so long for the end of the flood."""
        answers = [sender.flood_answer(seconds) for sender in self._senders]
        return sum(sent for sent, _ in answers) / max(took for _, took in answers)


@dataclasses.dataclass(frozen=True)
class Spoof:
    """A device that does not exist. Names are tuples of labels, and `txt` is the data of its TXT record."""

    name: bytes
    txt: bytes
    host: tuple = ()
    address: str = SOURCE
    type: tuple = (b"_http", b"_tcp", b"local")
    port: int = 80

    @property
    def instance(self):
        return (self.name, *self.type)

    @property
    def host_name(self):
        return self.host or (b"spoofed-" + self.name[:40].replace(b" ", b"-"), b"local")

    def records(self):
        return [self.pointer, self.service, self.text, wire.address(self.host_name, self.address)]

    @property
    def pointer(self):
        return wire.pointer(self.type, self.instance)

    @property
    def service(self):
        return wire.service(self.instance, self.port, self.host_name)

    @property
    def text(self):
        return wire.Record(self.instance, wire.TYPE_TXT, wire.OTHER_TTL, True, self.txt)

    def packet(self, ttl=None, **fields):
        return Packet(wire.response(self.records(), ttl=ttl), **fields)


def txt_data(*strings):
    """The data of a TXT record of these strings."""
    return b"".join(bytes([len(string)]) + string for string in strings)


def camera_data(*more, model=b"Dome 4", serial=SERIAL):
    return txt_data(b"full_name.vandrel.com=" + model, b"ser_no.vandrel.com=" + serial, *more)


def spoofed_camera(name, **fields):
    name = name.encode() if isinstance(name, str) else name
    return Spoof(name, **{"txt": camera_data(), **fields})


def camera_with_longest_text(name, **fields):
    """All that a message can carry is its text, and what makes it a camera stands at the end."""
    whole = len(spoofed_camera(name, **fields).packet().message)
    strings, rest = divmod(MAX_MESSAGE - whole, 256)
    filler = [b"k=" + b"x" * 253] * strings + ([b"x" * (rest - 1)] if rest else [])
    return spoofed_camera(name, txt=txt_data(*filler) + camera_data(), **fields)


def spoofed_fleet(count, first=1, txt=None):
    """Devices on hosts and addresses of their own."""
    txt = camera_data() if txt is None else txt
    return [Spoof(f"Spoofed {number}".encode(), txt, (f"spoofed-{number}".encode(), b"local"),
                  f"10.99.{number // 256}.{number % 256}") for number in range(first, first + count)]


def broken_packets(seed, **fields):
    """Messages that break the rules of their format, and random ones; the seed decides what is random.

    `fields` are those of the spoofed camera from which they are made.
    """
    whole = spoofed_camera("Mutant", **fields).packet().message
    cut_off = (whole[:length] for length in range(len(whole)))
    return [Packet(message) for message in (*_misshapen(whole), *cut_off, *_random(random.Random(seed), whole))]


def _misshapen(whole):
    def answers(count, body):
        return struct.pack("!6H", 0, 0x8400, 0, count, 0, 0) + body

    record = struct.pack("!2HIH", wire.TYPE_PTR, 1, 120, 2)
    here = struct.pack("!H", 0xC000 | HEADER_SIZE)
    huge = 0xFFFF
    long_name = b"".join(b"\x3f" + bytes([97 + number]) * 63 for number in range(5)) + b"\0"
    # Each points at the one before it.
    chain = b"\x01a\0" + b"".join(struct.pack("!H", 0xC000 | HEADER_SIZE + max(0, 3 + 2 * (number - 1)))
                                  for number in range(4000))
    yield from (b"", b"\0", whole[:HEADER_SIZE])
    yield struct.pack("!6H", 0, 0x8400, huge, huge, huge, huge)
    yield struct.pack("!6H", 0, 0, huge, 0, 0, 0) + b"\x05_http\x04_tcp\x05local\0\0\x0c\0\x01" * 200
    yield struct.pack("!6H", 0, 0x8400, 0, huge, huge, huge) + whole[HEADER_SIZE:]
    # Names that point at themselves, at each other, forward and beyond the end.
    yield answers(1, here + record + here)
    yield answers(1, struct.pack("!H", 0xC000 | HEADER_SIZE + 2) + here + record + here)
    yield answers(1, b"\xff\xff" + record + b"\xff\xff")
    yield answers(1, b"\x05_http\x04_tcp\x05local\0" + record + struct.pack("!H", 0xC000 | HEADER_SIZE + 30))
    yield answers(1, chain)
    # Labels of kinds that do not exist, a name beyond 255 bytes, data that ends after the message.
    yield from (answers(1, bytes([kind]) + b"_http" + record + here) for kind in (0x45, 0x85))
    yield answers(1, long_name + record + here)
    yield answers(1, b"\x05_http\x04_tcp\x05local\0" + struct.pack("!2HIH", wire.TYPE_PTR, 1, 120, huge) + here)
    # Other operations, errors, and a query that is an answer as well.
    yield from (whole[:2] + struct.pack("!H", flags) + whole[4:] for flags in (0xAC00, 0x8403, 0x0000, 0x8600))


def _random(choice, whole):
    for _ in range(300):
        yield choice.randbytes(choice.randrange(1472))
    for _ in range(300):
        yield whole[:HEADER_SIZE] + choice.randbytes(choice.randrange(200))
    for _ in range(1000):
        mutant = bytearray(whole)
        for _ in range(choice.randrange(1, 6)):
            mutant[choice.randrange(len(mutant))] = choice.randrange(256)
        yield bytes(mutant)
