# SPDX-License-Identifier: MIT
"""The life of one camera, published by programs of three makers: exactly what each step of it signals."""

import functools
import time

import pytest

from labkit.devices import camera, camera_record, camera_txt, host_record, model_checksum
from labkit.probe import QUIET_S
from labkit.publishers import BONJOUR_SERVICE, MULTICAST_DNS, ZEROCONF
from labkit.records import record
from labkit.steps import Steps

SERIAL = b"\x00\xC1\xFF"
QUEUED = ("Lobby", "_http._tcp")


class Life:
    """Plays the steps, and then shows what each of them brought about."""

    serial_number = 0x00C1FF
    address = "10.77.0.101"
    further_address = "10.77.0.201"
    removed_address = address

    def __init__(self, stage, program):
        self.lab, self.probe, self.publisher = stage.set_up(program=program)
        self.steps = Steps(self.probe)

    def play(self):
        step = self.steps.play
        self.probe.browse()
        step("publish", 1, lambda: self.publisher.publish(self.device()))
        step("change the tail of the text", 0, lambda: self._change_text(version="5.0"))
        step("change the head of the text", 1, lambda: self._change_text(model="Dome 5", version="5.0"))
        self._leave_one_address_query_open()
        step("add an address", 1, self.add_address)
        step("remove an address", 1, self.remove_address)
        step("say goodbye", 1, lambda: self.publisher.goodbye("Lobby"))
        return self

    def device(self, **txt):
        return camera(txt=camera_txt(SERIAL, **txt))

    def record(self, **members):
        return camera_record(self.lab, **{"address": self.address, "serialNumber": self.serial_number, **members})

    def changed_record(self, **members):
        """The record after both changes of the text."""
        return self.record(**{"modelName": "Dome 5", "softwareVersion": "5.0",
                              "txtChecksum": model_checksum("Dome 5"), **members})

    def add_address(self):
        self.publisher.add_address("Lobby", self.further_address)

    def remove_address(self):
        self.publisher.remove_address("Lobby", self.removed_address)

    def _change_text(self, **txt):
        self.publisher.set_txt("Lobby", camera_txt(SERIAL, **txt))
        # The daemon keeps the text from before for another second, and would answer with it.
        time.sleep(QUIET_S)
        self.probe.start_query("Lobby", False)

    def _leave_one_address_query_open(self):
        # One that is long-lived stays open at the end of what is cached, and also when it is stopped then.
        self.probe.take_log()
        self.probe.start_query("Lobby", True)
        self.probe.wait_for_log("AvahiServiceDiscovery::RecordBrowse() -> camera-1.local avahi cache exhausted  "
                                "- service restarting might help!")
        time.sleep(QUIET_S)
        self.probe.stop_query("Lobby")


class LifeByBonjourService(Life):
    """The package knows no addresses but those of the interface, and turns bytes from 80 up into EF BF BD."""

    serial_number = 0x00EFBF
    address = "10.77.0.2"
    removed_address = Life.further_address

    def __init__(self, stage, program):
        super().__init__(stage, program)
        # It runs beforehand, as a removal must not take the second after which the goodbye would be final.
        self._shell = self.lab.start("fleet", "sh")

    def device(self, **txt):
        return camera(address=None, txt=camera_txt(SERIAL, **txt))

    def add_address(self):
        self._change_interface("add")
        self.publisher.set_txt("Lobby", self._latest_device().txt)

    def remove_address(self):
        # It bids farewell to the addresses that the interface has then, so the order matters.
        self.publisher.goodbye("Lobby")
        self._change_interface("del")
        self.publisher.publish(self._latest_device())

    def _latest_device(self):
        return self.device(model="Dome 5", version="5.0")

    def _change_interface(self, change):
        self._shell.stdin.write(f"ip address {change} {self.further_address}/24 dev lan0; echo\n".encode())
        self._shell.stdin.flush()
        self._shell.stdout.readline()


def play(life_class, program, stage):
    return life_class(stage, program).play()


def lives(*cases):
    return pytest.mark.parametrize("", [
        pytest.param(id=name,
                     marks=pytest.mark.story.with_args(functools.partial(play, life_class, program)))
        for name, life_class, program in cases])


ALL_LIVES = lives(("zeroconf", Life, ZEROCONF), ("multicast-dns", Life, MULTICAST_DNS),
                  ("bonjour-service", LifeByBonjourService, BONJOUR_SERVICE))


@ALL_LIVES
def test_a_camera_that_appears_is_found_once(story):
    assert story.steps["publish"].signals == [("serviceFound", story.record())]


@ALL_LIVES
def test_a_found_camera_stands_in_the_table_beside_its_host(story):
    assert story.steps["publish"].table == {"Lobby": story.record(txtChecksum=model_checksum("Dome 4")),
                                         "camera-1.local": host_record()}


@ALL_LIVES
def test_a_change_behind_the_head_of_the_text_is_read_without_a_signal(story):
    step = "change the tail of the text"
    assert story.steps[step].signals == []
    record_now = story.record(softwareVersion="5.0", txtChecksum=model_checksum("Dome 4"))
    assert story.steps[step].table["Lobby"] == record_now


@ALL_LIVES
def test_a_change_of_the_head_of_the_text_is_signalled_once(story):
    assert story.steps["change the head of the text"].signals == [("serviceText", story.changed_record())]


@ALL_LIVES
def test_an_address_that_is_added_is_signalled_with_all_addresses(story):
    both = [story.address, story.further_address]
    assert story.steps["add an address"].signals == [("serviceAddress", story.changed_record(addresses=both))]


@ALL_LIVES
def test_an_address_that_is_removed_is_signalled_alone(story):
    removed = story.changed_record(addresses=[story.removed_address], addressRemoved=True)
    assert story.steps["remove an address"].signals == [("serviceAddress", removed)]


@ALL_LIVES
def test_the_table_keeps_the_removed_address_and_no_other(story):
    removed = story.changed_record(addresses=[story.removed_address], addressRemoved=True)
    assert story.steps["remove an address"].table == {"Lobby": removed, "camera-1.local": host_record()}


@ALL_LIVES
def test_a_camera_that_says_goodbye_is_lost_with_its_record_as_it_stood(story):
    lost = story.changed_record(addresses=[story.removed_address], addressRemoved=True)
    assert story.steps["say goodbye"].signals == [("serviceLost", lost)]


@ALL_LIVES
def test_a_lost_camera_leaves_the_table_but_an_open_address_query_leaves_empty_entries(story):
    assert story.steps["say goodbye"].table == {"": record(), "camera-1.local": record()}


@ALL_LIVES
def test_the_queue_grows_with_every_resolve_until_the_camera_is_lost(story):
    steps = ["publish", "change the tail of the text", "change the head of the text"]
    assert [story.steps[step].queue for step in steps] == [[QUEUED], 2 * [QUEUED], 3 * [QUEUED]]
    # The long-lived query that was made meanwhile resolved it too; what its address query tells resolves nothing.
    steps = ["add an address", "remove an address", "say goodbye"]
    assert [story.steps[step].queue for step in steps] == [4 * [QUEUED], 4 * [QUEUED], []]
