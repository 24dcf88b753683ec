# SPDX-License-Identifier: MIT
"""vd-simulate that obeys records, and vd-discover that publishes one, with a spoofer on the link."""

import base64
import dataclasses
import json
import signal

import pytest

from discover_messages import READABLE_BY_ALL, taken
from labkit.devices import SERIAL
from labkit.hostile import (Flood, Packet, broken_packets, camera_with_longest_text, spoofed_camera, spoofed_fleet,
                            txt_data, wire)
from labkit.labs import TWO_DAEMONS, WITH_DESK
from labkit.lines import wait_until
from labkit.reader import txt_of
from labkit.terminal import whole_lines
from labkit.usage import handles, memory_kib, of_true_memory

SEED = 2
TYPE = "_setup._tcp"
WIRE_TYPE = (b"_setup", b"_tcp", b"local")
NAME = "Dock"
ORDINARY = ("publish", NAME, "--type", TYPE, "--zeph", "0x0100ff", "--ip", "10.77.0.99", "--mask",
            "255.255.255.128", "--format", "json")
WARNING = READABLE_BY_ALL + b"\n"
STEERING = "Steering \x1b[31m\r\nFORGED\x07\x7f \u009b2J\u2028\u202e"
CROWD = "Crowd"
FLOODING, FLOOD_RATE, FLOOD_S = 200, 1000, 5
PATIENCE_S = 120
# Measured: 6 MiB for the simulator, which remembers what it heard, and next to nothing for vd-discover.
MOST_GROWTH_KIB = 16384


@dataclasses.dataclass(frozen=True)
class Kind:
    """What is sent, and why the device that is meant refuses it; None when nobody takes it for a record."""

    packet: Packet
    reason: str = None


def spoofed(name, *strings, **fields):
    return spoofed_camera(name, **{"type": WIRE_TYPE, "txt": txt_data(*strings), **fields}).packet()


def kinds(serial):
    """By the names of the services: records for the device of this number, of which none is to be obeyed."""
    def key(name, value):
        return name + b".vandrel.com=" + value

    def kind(name, reason, *strings, **fields):
        return {name: Kind(spoofed(name, *strings, **fields), reason)}

    whole = [key(b"ZEPH", serial), key(b"USER", b"admin"), key(b"PWD", base64.b64encode(b"simulated")),
             key(b"NEWIP", b"\x0a\x4d\0\xd3"), key(b"MASK", b"\xff\xff\xff\0"), key(b"SAVE", b"T")]
    zeph, user, password, address, mask, save = whole
    filler = [b"k%03d=" % number + b"x" * 245 for number in range(32)]
    return {
        **kind("No string", None, txt=b""),
        **kind("Truncated text", "SAVE is neither T nor F", txt=txt_data(*whole)[:-1]),
        **kind("Text of 8 KiB", "wrong password", *filler, zeph, user, key(b"PWD", b""), *whole[3:]),
        # More than a device reads.
        "Longest text": Kind(camera_with_longest_text("Longest text", type=WIRE_TYPE).packet()),
        **kind("Without values", 'USER is without "="', zeph, b"USER.vandrel.com", b"PWD.vandrel.com", b"="),
        **kind("Wrong password", "PWD is not Base64", zeph, user, key(b"PWD", b"\xff=\x1b[2J\r\n"), *whole[3:]),
        **kind("Wrong user", f"wrong user {ascii(STEERING)}", zeph, key(b"USER", STEERING.encode()), *whole[2:]),
        **kind("First key counts", "wrong user 'other'", zeph, key(b"USER", b"other"), *whole[1:]),
        **kind("Short address", "NEWIP has 1 bytes, not 4", *whole[:3], key(b"NEWIP", b"\x0a"), mask, save),
        **kind("Address of a group", "NEWIP 224.0.0.251 is no address of a host", *whole[:3],
               key(b"NEWIP", b"\xe0\0\0\xfb"), mask, save),
        **kind("Mask with gaps", "MASK 255.0.255.0 is no net mask", *whole[:4], key(b"MASK", b"\xff\0\xff\0"),
               save),
        **kind("Neither true nor false", "SAVE is neither T nor F", *whole[:5], key(b"SAVE", b"\x1b[2J")),
        **kind(STEERING, "wrong password", zeph, user, key(b"PWD", b"")),
        **kind("n" * 63, "PWD is missing", zeph, user, host=(b"h" * 63, b"local")),
        **kind("Elsewhere", "USER is missing", zeph, host=(b"www", b"example", b"com")),
        "Deeper": Kind(Packet(wire.response([wire.pointer(WIRE_TYPE, (b"Deeper", b"Below", *WIRE_TYPE))]))),
    }


def questions():
    """All that a device may be asked, in one message after the other."""
    names = (b"_http", b"_setup", b"_services")
    return [Packet(b"\0\0\0\0" + count.to_bytes(2, "big") + bytes(6)
                   + b"".join(bytes([len(label)]) + label for label in (name, b"_tcp", b"local")) + b"\0" + asked)
            for name in names for count in (1, 0xFFFF)
            for asked in (b"\0\x0c\0\x01", b"\0\xff\x80\x01", b"\xff\xff\xff\xff", b"")]


def attack(stage, lab, hostile, serial):
    """Everything once, and then so much that nobody can read it all."""
    hostile.send([*(kind.packet for kind in kinds(serial).values()), *questions(),
                  *broken_packets(SEED, type=WIRE_TYPE)])
    crowd = [*(spoofed(f"{CROWD} {number}", b"ZEPH.vandrel.com=" + SERIAL) for number in range(FLOODING)),
             *(device.packet() for device in spoofed_fleet(FLOODING))]
    Flood(lambda: stage.hostile(lab), crowd, FLOOD_RATE, FLOOD_S).rate(PATIENCE_S)


def settings(simulator):
    """What a device is told to be, whatever the spoofer says."""
    return {name: (device["presence"], device["addresses"], device["mask"], device["txt"])
            for name, device in simulator.state().items()}


def play_obedience(stage):
    lab = stage.lab(WITH_DESK)
    hostile = stage.hostile(lab)
    simulator = stage.simulator(lab, "--cameras", "2", "--obey", TYPE, host="desk")
    before = settings(simulator)
    victim, other = simulator.state().values()
    story = {"before": before, "handles": [handles(simulator.pid)], "memory": [memory_kib(simulator.pid)]}
    attack(stage, lab, hostile, bytes.fromhex(victim["serial"]))
    # In the name of a device itself.
    hostile.send([spoofed_camera(victim["device"], host=(victim["host"].encode(), b"local")).packet()])
    story["after"] = settings(simulator)

    publish_for(stage, lab, other)
    wait_until(lambda: simulator.state()[other["device"]]["addresses"] == ["10.77.0.210"], PATIENCE_S)
    story["memory"].append(memory_kib(simulator.pid))
    story["handles"].append(handles(simulator.pid))
    simulator.tell("quit")
    story["end"] = simulator.wait()
    return {**story, "victim": victim, "other": other, "account": list(simulator.said.all)}


def publish_for(stage, lab, device):
    password = lab.folder / "password"
    password.write_text("simulated\n", encoding="utf-8")
    stage.discover(lab, "publish", "Move", "--type", TYPE, "--zeph", f"0x{device['serial']}", "--ip",
                   "10.77.0.210", "--mask", "255.255.255.0", "--user", "admin", "--password-file", password)


def play_publication(stage):
    lab = stage.lab(TWO_DAEMONS)
    hostile = stage.hostile(lab)
    running = stage.discover(lab, *ORDINARY)
    running.wait_for_output(1)
    story = {"txt": [txt_of(stage.reader(lab, TYPE).wait_for("found", NAME))], "handles": [handles(running.pid)],
             "memory": [memory_kib(running.pid)]}
    attack(stage, lab, hostile, b"\x01\x00\xff")
    story["txt"].append(txt_of(stage.reader(lab, TYPE).wait_for("found", NAME)))
    story["handles"].append(handles(running.pid))
    story["memory"].append(memory_kib(running.pid))
    story["end"] = running.interrupt(signal.SIGINT)[:3]
    return story


obedience = pytest.mark.story.with_args(play_obedience)
publication = pytest.mark.story.with_args(play_publication)
of_each = pytest.mark.parametrize("play", [
    pytest.param(name, marks=pytest.mark.story.with_args(act))
    for name, act in {"obedience": play_obedience, "publication": play_publication}.items()])


@obedience
def test_no_record_of_a_spoofer_changes_a_simulated_device(story):
    assert story["after"] == story["before"]


@obedience
def test_a_simulated_device_still_obeys_an_honest_record(story):
    obeyed = [(line["device"], line["record"]) for line in story["account"] if line["event"] == "obeyed"]
    assert obeyed == [(story["other"]["device"], "Move")]


@obedience
def test_records_that_do_not_fit_are_refused_each_by_its_reason(story):
    victim = story["victim"]
    refused = {line["record"]: (line["device"], line["reason"]) for line in story["account"]
               if line["event"] == "refused" and not line["record"].startswith(CROWD)}
    assert refused == {name: (victim["device"], kind.reason)
                       for name, kind in kinds(bytes.fromhex(victim["serial"])).items() if kind.reason}


@obedience
def test_the_simulator_ends_in_good_order_and_has_nothing_to_complain_of(story):
    # Its account was read line by line as JSON meanwhile.
    assert story["end"] == (0, b"")


@publication
def test_another_host_reads_the_same_record_before_and_after(story):
    before, after = story["txt"]
    assert after == before


@publication
def test_the_publication_is_told_and_withdrawn_and_nothing_else(story):
    status, output, errors = story["end"]
    assert (status, errors) == (0, WARNING)
    assert [json.loads(line)["event"] for line in whole_lines(output)] == ["established", "withdrawn"]


@of_each
def test_as_many_descriptors_and_threads_are_open_as_before(story, play):
    before, after = story["handles"]
    assert after == before


@of_each
@of_true_memory
def test_memory_grows_by_little(story, play):
    before, after = story["memory"]
    print(f"{play}: {before} KiB before, {after} KiB after")
    assert after - before <= MOST_GROWTH_KIB


def test_a_service_of_the_same_name_takes_the_name_away(stage):
    lab = stage.lab(TWO_DAEMONS)
    running, hostile = stage.discover(lab, *ORDINARY), stage.hostile(lab)
    running.wait_for_output(1)

    def is_taken():
        hostile.send([spoofed(NAME, b"ZEPH.vandrel.com=" + SERIAL)])
        return len(running.output.all) > 1
    assert wait_until(is_taken, PATIENCE_S)
    status, output, errors, _ = running.wait()
    assert (status, errors) == (1, WARNING + taken(NAME) + b"\n")
    assert [json.loads(line)["event"] for line in whole_lines(output)] == ["established", "collision"]
