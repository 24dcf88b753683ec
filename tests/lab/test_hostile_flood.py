# SPDX-License-Identifier: MIT
"""Records at 5,000 packets a second, more than the daemon can read: what discovery does meanwhile and after it."""

import dataclasses

import pytest

from labkit.devices import camera, camera_txt
from labkit.hostile import Flood, Packet, camera_data, spoofed_fleet, wire
from labkit.labs import PLAIN
from labkit.lines import wait_until
from labkit.usage import handles, memory_kib, of_true_memory

LARGE_CACHE = (*PLAIN, "--config", "viewer:cache-entries-max=20000")
DEVICES = 1000
RATE = 5000
# So that a busy machine comes up to the rate.
ASKED_RATE = 6000
SECONDS = 20
CLASSES = {"managed": [], "plain": ["--plain"]}
# Measured: under 4 KiB for each device.
MOST_KIB_A_DEVICE = 8
# The daemon catches up first, and a call may wait for it until D-Bus gives up.
PATIENCE_S = 120
RESENDS = 8
CAMERAS_AFTER = 4
NEW_MODEL = "Dome 5"


def flood():
    """Each device with one address and text, and then with another, over and over."""
    fleet = spoofed_fleet(DEVICES)
    changed = [dataclasses.replace(device, address=device.address.replace("10.99.", "10.98."),
                                   txt=camera_data(model=b"Other")) for device in fleet]
    return fleet, [device.packet() for device in (*fleet, *changed)]


class Watch:
    def __init__(self, stage, lab, options):
        self.program = stage.discover(lab, *options, "--follow", "--format", "json", "--requery")
        self.peak_kib = 0

    def count(self, event, name="Spoofed"):
        """How many times it told so of devices whose names begin like that."""
        return self.told(event, f'"serviceName":"{name}')

    def told(self, event, part):
        begin = f'{{"event":"{event}"'.encode()
        return sum(line.startswith(begin) and part.encode() in line for line in list(self.program.output.all))

    def measure(self):
        self.peak_kib = max(self.peak_kib, memory_kib(self.program.pid))


def everyone(watches, condition, seconds=PATIENCE_S):
    def holds():
        for watch in watches.values():
            watch.measure()
        return all(map(condition, watches.values()))
    return wait_until(holds, seconds)


def play(stage):
    lab = stage.lab(LARGE_CACHE)
    watches = {name: Watch(stage, lab, options) for name, options in CLASSES.items()}
    honest, hostile = stage.publisher(lab), stage.hostile(lab)
    honest.publish(camera())
    assert everyone(watches, lambda watch: watch.count("found", "Lobby"))
    before = {name: (memory_kib(watch.program.pid), handles(watch.program.pid)) for name, watch in watches.items()}

    fleet, packets = flood()
    flooding = Flood(lambda: stage.hostile(lab), packets, ASKED_RATE, SECONDS)
    everyone(watches, lambda watch: False, SECONDS)
    story = {"rate": flooding.rate(PATIENCE_S)}
    story["found"], others = find_another(watches, honest)
    story["left"] = withdraw(watches, hostile, fleet)
    followed = follow(watches, honest, others)
    for name, watch in watches.items():
        story[name] = {"begin": before[name][0], "peak": watch.peak_kib,
                       "handles": (before[name][1], handles(watch.program.pid)),
                       "spoofed": watch.count("found"), "followed": followed[name]}
    return story


def find_another(watches, honest):
    """Publishes cameras until everyone has found one: the plain class gives up those it can't resolve in time.

    Returns whether everyone has, and the names of these cameras.
    """
    names = []
    for number in range(CAMERAS_AFTER):
        names.append(f"Attic {number}")
        honest.publish(camera(names[-1], f"attic-{number}", f"10.77.0.{110 + number}"))
        if everyone(watches, lambda watch: watch.count("found", "Attic"), PATIENCE_S / CAMERAS_AFTER):
            return True, names
    return False, names


def withdraw(watches, hostile, fleet):
    """Takes back what the flood brought; returns how many each has found and not lost."""
    for _ in range(RESENDS):
        hostile.send([Packet(wire.response(device.records(), ttl=0)) for device in fleet])
        if everyone(watches, lambda watch: 0 < watch.count("lost") == watch.count("found"), PATIENCE_S / RESENDS):
            break
    return {name: watch.count("found") - watch.count("lost") for name, watch in watches.items()}


def follow(watches, honest, others):
    """Gives the camera from before another model; returns who has told of it.

    The plain class queries the first and the last of its queue only. The flood shuffles that, and where it leaves
    one of the other cameras at both ends, this one has no turn before they are gone.
    """
    honest.set_txt("Lobby", camera_txt(model=NEW_MODEL))
    followed = {"managed": has_told_of_new_model(watches, "managed")}
    honest.goodbye(*others)
    return {**followed, "plain": has_told_of_new_model(watches, "plain")}


def has_told_of_new_model(watches, name):
    part = f'"modelName":"{NEW_MODEL}"'
    return bool(everyone({name: watches[name]}, lambda watch: watch.told("text", part)))


the_flood = pytest.mark.story.with_args(play)
of_each_class = pytest.mark.parametrize("of_class", CLASSES)


@the_flood
def test_so_many_packets_were_sent_that_it_was_a_flood(story):
    print(f"{story['rate']:.0f} packets a second of {ASKED_RATE}")
    assert story["rate"] >= RATE


@the_flood
def test_a_camera_that_comes_after_the_flood_is_found(story):
    assert story["found"]


@the_flood
@of_each_class
def test_the_camera_from_before_is_followed_after_the_flood(story, of_class):
    assert story[of_class]["followed"]


@the_flood
def test_all_that_the_flood_brought_is_lost_with_its_goodbyes(story):
    assert story["left"] == dict.fromkeys(CLASSES, 0)


@the_flood
@of_each_class
def test_the_flood_was_noticed(story, of_class):
    assert story[of_class]["spoofed"] > 0


@the_flood
@of_each_class
@of_true_memory
def test_memory_grows_by_devices_and_not_by_packets(story, of_class):
    assert story[of_class]["peak"] - story[of_class]["begin"] <= MOST_KIB_A_DEVICE * DEVICES


@the_flood
@of_each_class
def test_as_many_descriptors_and_threads_are_open_as_before(story, of_class):
    before, after = story[of_class]["handles"]
    assert after == before
