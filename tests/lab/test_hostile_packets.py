# SPDX-License-Identifier: MIT
"""Every kind of packet that a spoofer may send, seen by both classes and by every way of writing what was seen.

All are sent once, in one lab, while programs of every kind look on; the tests look at what these have written.
"""

import dataclasses
import json
import re
import signal
import struct
import time

import pytest

from labkit.devices import camera, camera_txt
from labkit.hostile import (SERIAL, SOURCE, Packet, broken_packets, camera_data, camera_with_longest_text,
                            spoofed_camera, txt_data, wire)
from labkit.records import MEMBERS
from labkit.terminal import LOG_LINE, whole_lines
from labkit.usage import handles

SEED = 1
CLASSES = {"managed": [], "plain": ["--plain"]}
# Longer than Avahi's patience with a service that has no address, even on a busy machine.
SETTLING_S = 60
ATTEMPTS = 4
# What Avahi leaves to a record after its goodbye, and some more.
EXPIRY_S = 2
# A lie that begins what would be a line of its own.
FORGED = (b'\r\nFORGED  Vandrel camera  10.0.0.1\r\n{"event":"lost"}\x1b[2J\x07\xe2\x80\xa8\xe2\x80\xaeFORGED'
          b'\x00FORGED')
# Text ends where C says that it does.
FORGED_TEXT = FORGED.partition(b"\0")[0].decode()


@dataclasses.dataclass(frozen=True)
class Kind:
    """What is sent, and members of the service that is to be found by it; None when none is to be."""

    packets: list
    found: dict


def kind_of(spoof, ttl=None, found=(), **fields):
    return Kind([spoof.packet(ttl, **fields)], dict(found))


def of_records(*records):
    return Kind([Packet(wire.response(records))], None)


def with_data(name, record_type, data):
    """A spoofed camera one of whose records has other data, and which is not found so."""
    records = [dataclasses.replace(record, data=data, target=()) if record.type == record_type else record
               for record in spoofed_camera(name).records()]
    return of_records(*records)


def kinds():
    """By the names of the services."""
    return {**sources_and_addresses(), **texts(), **names(), **lifetimes(), **other_types(), **incomplete()}


def sources_and_addresses():
    addresses = ("0.0.0.0", "255.255.255.255", "127.0.0.1", "224.0.0.251")
    return {
        "Off link": kind_of(spoofed_camera("Off link"), source="203.0.113.9"),
        "One hop": kind_of(spoofed_camera("One hop"), hops=1),
        **{f"At {address}": kind_of(spoofed_camera(f"At {address}", host=(b"at-" + address.encode(), b"local"),
                                                   address=address), found={"addresses": [address]})
           for address in addresses},
        "Port 0": kind_of(spoofed_camera("Port 0", port=0), found={"port": 0}),
        "Viewer": kind_of(spoofed_camera("Viewer", host=(b"viewer", b"local")),
                          found={"hostName": "viewer.local"}),
        "Of others": kind_of(spoofed_camera("Of others", host=(b"www", b"example", b"com")),
                             found={"hostName": "www.example.com", "addresses": [SOURCE]}),
    }


def texts():
    filler = [b"k%03d=" % number + b"x" * 245 for number in range(34)]
    long_key = b"k" * 200 + b"=1"

    def kind(name, *strings, **found):
        return kind_of(spoofed_camera(name, txt=txt_data(*strings)), found=found)

    model, serial = b"full_name.vandrel.com=", b"ser_no.vandrel.com="
    return {
        "Text of 1.5 KiB": kind("Text of 1.5 KiB", model + b"Dome", serial + SERIAL, *filler[:6],
                                modelName="Dome"),
        "Text of 8.8 KiB": kind("Text of 8.8 KiB", *filler, model + b"Dome", serial + SERIAL,
                                modelName="Dome"),
        "Longest text": kind_of(camera_with_longest_text("Longest text"), found={"modelName": "Dome 4"}),
        "Empty strings": kind_of(spoofed_camera("Empty strings", txt=bytes(8000) + camera_data() + bytes(400)),
                                 found={"modelName": "Dome 4"}),
        "Repeated keys": kind("Repeated keys", model + b"first", serial + SERIAL, model + b"second",
                              serial + b"\xff\xff\xff", modelName="first", serialNumber=0x010203),
        "Other case": kind("Other case", b"FULL_NAME.Vandrel.COM=Dome", b"Ser_No.VANDREL.com=" + SERIAL,
                           modelName="Dome", serialNumber=0x010203),
        "Without values": kind("Without values", b"full_name.vandrel.com", b"ser_no.vandrel.com", b"=", b"=x",
                               modelName="", serialNumber=0),
        "Long key": kind("Long key", long_key, serial + SERIAL, modelName="", serialNumber=0x010203),
        "Both makers": kind("Both makers", serial + SERIAL, b"ser_no.snapserver.com=\x04\x05\x06", deviceKind=1,
                            serialNumber=0x010203),
        "Long serial": kind("Long serial", serial + b"\x01\x02\x03" * 70, serialNumber=0x010203),
        "Forged text": kind("Forged text", *(key + b".vandrel.com=" + FORGED for key in (
            b"full_name", b"fs_vers", b"error", b"userdata_owner", b"privacy_mode")), serial + b"\n\r\x1b",
            **dict.fromkeys(("modelName", "softwareVersion", "errorText", "userdataOwner"), FORGED_TEXT),
            serialNumber=0x0A0D1B),
        "Bytes": kind("Bytes", model + bytes(range(0x80, 0x100)), serial + b"\xff\xfe\xfd",
                      modelName="\ufffd" * 128, serialNumber=0xFFFEFD),
    }


def names():
    longest = "n" * 63
    steering = "Steering \x1b[31m\r\nFORGED\x07\x7f \u009b2J\u2028\u202e"
    dots = "a.b\\.c\\\\\u200b"
    return {
        longest: kind_of(spoofed_camera(longest, host=(b"h" * 63, b"local")),
                         found={"hostName": "h" * 63 + ".local"}),
        steering: kind_of(spoofed_camera(steering)),
        dots: kind_of(spoofed_camera(dots)),
        "Steering host": kind_of(spoofed_camera("Steering host", host=(b"\x1b[31m\r\n", b"local")),
                                 found={"hostName": r"\027\09131m\013\010.local"}),
        # What it would be shown as, had it come through.
        "Not UTF-8 \ufffd": Kind([spoofed_camera(b"Not UTF-8 \xff").packet()], None),
        "NUL ": Kind([spoofed_camera(b"NUL \0FORGED").packet()], None),
        "": Kind([spoofed_camera("").packet()], None),
    }


def lifetimes():
    seconds = {"0 s": 0, "1 s": 1, "120 s": 120, "4500 s": 4500, "2^31-1 s": 2**31 - 1, "2^31 s": 2**31,
               "2^32-1 s": 2**32 - 1}
    return {f"For {text}": Kind([spoofed_camera(f"For {text}").packet(ttl)], {} if ttl else None)
            for text, ttl in seconds.items()}


def other_types():
    def kind(name, *service_type):
        return Kind([spoofed_camera(name, type=service_type).packet()], None)

    web = (b"_http", b"_tcp", b"local")
    return {
        "By UDP": kind("By UDP", b"_http", b"_udp", b"local"),
        "By httpx": kind("By httpx", b"_httpx", b"_tcp", b"local"),
        "By HTTP": kind("By HTTP", b"_HTTP", b"_TCP", b"local"),
        "Elsewhere": kind("Elsewhere", b"_http", b"_tcp", b"example", b"com"),
        "Of a subtype": of_records(wire.pointer((b"_sub1", b"_sub", *web), (b"Of a subtype", *web)),
                                   *spoofed_camera("Of a subtype").records()[1:]),
        "Of a file server": of_records(
            wire.pointer(web, (b"Of a file server", b"_ftp", b"_tcp", b"local")),
            *spoofed_camera("Of a file server", type=(b"_ftp", b"_tcp", b"local")).records()[1:]),
        "Deeper": of_records(wire.pointer(web, (b"Deeper", b"Below", *web))),
        "_http": of_records(wire.pointer(web, web)),
    }


def incomplete():
    no_address, pointer_only = spoofed_camera("No address"), spoofed_camera("Pointer only")
    return {
        "No text": kind_with_no_text("No text"),
        "Text of length 0": with_data("Text of length 0", wire.TYPE_TXT, b""),
        "Truncated text": with_data("Truncated text", wire.TYPE_TXT, camera_data() + b"\xffabc"),
        "No address": of_records(*no_address.records()[:3]),
        "Pointer only": of_records(pointer_only.pointer),
        "No target": with_data("No target", wire.TYPE_SRV, struct.pack("!3H", 0, 0, 80) + b"\0"),
        "Target cut off": with_data("Target cut off", wire.TYPE_SRV, struct.pack("!3H", 0, 0, 80) + b"\x3fab"),
        **{f"Address of {size} bytes": with_data(f"Address of {size} bytes", wire.TYPE_A, b"\x0a" * size)
           for size in (0, 3, 5, 16)},
    }


def kind_with_no_text(name):
    records = spoofed_camera(name).records()
    return of_records(*records[:2], records[3])


KINDS = kinds()
BROKEN = broken_packets(SEED)
FOUND = {name: kind.found for name, kind in KINDS.items() if kind.found is not None}


class Watchers:
    """Everything that can look on, of one class."""

    def __init__(self, stage, lab, options):
        self.json = stage.discover(lab, *options, "--follow", "--format", "json", "--long-lived", "--verbose")
        self.lines = stage.discover(lab, *options, "--follow", "--requery")
        self.table = stage.discover(lab, *options, "--timeout", "600", "--long-lived")
        self.all = {"json": self.json, "lines": self.lines, "table": self.table}

    def saw(self, event, name, seconds=SETTLING_S, **members):
        """Whether it was told of before the deadline, with these members of the service."""
        return self.json.output.wait_for(lambda lines: any(
            line["event"] == event and line["service"]["serviceName"] == name
            and members.items() <= line["service"].items() for line in map(json.loads, lines)), seconds)

    def handles(self):
        return {name: handles(watcher.pid) for name, watcher in self.all.items()}

    def end(self):
        return {name: watcher.interrupt(signal.SIGINT)[:3] for name, watcher in self.all.items()}


def all_see(watchers, event, name, **members):
    for watcher in watchers.values():
        assert watcher.saw(event, name, **members), f"{event} {name}"


def bring(watchers, name, withdraw, send):
    """Sends again what was not found: on a busy machine the plain class gives up what it can't resolve in time."""
    for _ in range(ATTEMPTS):
        if all(watcher.saw("found", name, SETTLING_S / ATTEMPTS) for watcher in watchers.values()):
            return
        withdraw()
        time.sleep(EXPIRY_S)
        send()
    all_see(watchers, "found", name)


def goodbye(name):
    return Packet(wire.response(spoofed_camera(name).records(), ttl=0))


def play(stage):
    """Sends every kind of packet between honest devices; returns what was written, and the handles held."""
    lab = stage.lab()
    watchers = {name: Watchers(stage, lab, options) for name, options in CLASSES.items()}
    honest, hostile = stage.publisher(lab), stage.hostile(lab)
    honest.publish(camera())
    all_see(watchers, "found", "Lobby", modelName="Dome 4")
    before = {name: watcher.handles() for name, watcher in watchers.items()}

    for kind in KINDS.values():
        hostile.send(kind.packets)
    for name in FOUND:
        bring(watchers, name, lambda: hostile.send([goodbye(name)]), lambda: hostile.send(KINDS[name].packets))
    hostile.send(BROKEN)

    attic = camera("Attic", "camera-2", "10.77.0.102")
    honest.publish(attic)
    bring(watchers, "Attic", lambda: honest.goodbye("Attic"), lambda: honest.publish(attic))
    honest.add_address("Lobby", "10.77.0.201")
    all_see(watchers, "address", "Lobby", addresses=["10.77.0.101", "10.77.0.201"])
    honest.remove_address("Lobby", "10.77.0.101")
    all_see(watchers, "address", "Lobby", addresses=["10.77.0.101"], addressRemoved=True)
    honest.set_txt("Lobby", camera_txt(model="Dome 5"))
    all_see(watchers, "text", "Lobby", modelName="Dome 5")

    hostile.send([goodbye(name) for name in FOUND])
    honest.goodbye("Attic")
    for name in (*FOUND, "Attic"):
        all_see(watchers, "lost", name)
    after = {name: watcher.handles() for name, watcher in watchers.items()}
    return {name: (watcher.end(), before[name], after[name]) for name, watcher in watchers.items()}


the_attack = pytest.mark.story.with_args(play)
of_each_class = pytest.mark.parametrize("of_class", CLASSES)
of_each_watcher = pytest.mark.parametrize("watcher", ["json", "lines", "table"])

EVENT = re.compile(r"\d\d:\d\d:\d\d  (found  |address|text   |lost   )  \S")
DEVICE = re.compile(r"\S.*  Vandrel camera  ")


def written(story, of_class, watcher):
    """The exit status of a program, and the lines of its standard output and standard error."""
    status, output, errors = story[of_class][0][watcher]
    return status, output.decode().split("\n")[:-1], errors.decode().split("\n")[:-1]


@the_attack
@of_each_class
@of_each_watcher
def test_a_program_writes_whole_lines_and_nothing_that_steers_a_terminal(story, of_class, watcher):
    _, output, errors = story[of_class][0][watcher]
    assert whole_lines(output)
    assert bool(whole_lines(errors)) == (watcher == "json")


@the_attack
@of_each_class
@of_each_watcher
def test_a_program_ends_in_good_order_and_has_nothing_to_complain_of(story, of_class, watcher):
    status, _, errors = written(story, of_class, watcher)
    assert status == 0
    assert [line for line in errors if not LOG_LINE.match(line)] == []


@the_attack
@of_each_class
@of_each_watcher
def test_a_program_holds_as_many_descriptors_and_threads_as_before(story, of_class, watcher):
    _, before, after = story[of_class]
    assert after[watcher] == before[watcher]


@the_attack
@of_each_class
@pytest.mark.parametrize("name", KINDS)
def test_a_packet_shows_what_it_says_and_nothing_when_avahi_drops_it(story, of_class, name):
    _, lines, _ = written(story, of_class, "json")
    told = [line["service"] for line in map(json.loads, lines)
            if line["event"] == "found" and line["service"]["serviceName"] == name]
    assert bool(told) == (name in FOUND)
    if told:
        assert {member: told[0][member] for member in FOUND[name]} == FOUND[name]


def is_held_by_broken_packets(name):
    """Whether one of them says something of this name, as a mutant of a camera does for all that Avahi knows."""
    label = name.encode()
    return any(bytes([len(label)]) + label in packet.message for packet in BROKEN)


def unescaped(shown):
    return re.sub(r"\\x([0-9a-f]{2})|\\u([0-9a-f]{4})", lambda found: chr(int(found[1] or found[2], 16)), shown)


def names_told(watcher, lines):
    """Of all that were found, and in the table of those that are left."""
    if watcher == "json":
        return {line["service"]["serviceName"] for line in map(json.loads, lines) if line["event"] == "found"}
    told = lines[1:]
    if watcher == "lines":
        told = [line.split("  found    ")[1] for line in lines if "  found    " in line]
    return {unescaped(row.split("  ")[0]) for row in told}


@the_attack
@of_each_class
@of_each_watcher
def test_nothing_is_found_but_what_was_sent(story, of_class, watcher):
    _, lines, _ = written(story, of_class, watcher)
    names = {name for name in names_told(watcher, lines) if not is_held_by_broken_packets(name)}
    assert names == ({"Lobby"} if watcher == "table" else {*FOUND, "Lobby", "Attic"})


@the_attack
@of_each_class
def test_each_json_line_is_one_event_with_every_member(story, of_class):
    _, lines, _ = written(story, of_class, "json")
    events = list(map(json.loads, lines))
    assert {tuple(event) for event in events} == {("event", "time", "service")}
    assert {event["event"] for event in events} == {"found", "address", "text", "lost"}
    assert {frozenset(event["service"]) for event in events} == {frozenset(MEMBERS)}


@the_attack
@of_each_class
def test_each_line_of_following_is_one_event(story, of_class):
    _, lines, _ = written(story, of_class, "lines")
    assert [line for line in lines if not EVENT.match(line)] == []


@the_attack
@of_each_class
def test_each_row_of_the_table_is_one_device_that_is_left(story, of_class):
    _, lines, _ = written(story, of_class, "table")
    assert lines[0].startswith("NAME")
    assert [line for line in lines[1:] if not DEVICE.match(line)] == []
    assert len([line for line in lines if line.startswith("Lobby ")]) == 1
