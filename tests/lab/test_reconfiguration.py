# SPDX-License-Identifier: MIT
"""The whole way: a reconfiguration is published on one host, a device takes it, and a third host follows."""

import os
import signal
import subprocess

import pytest

from labkit.discover import events
from labkit.labs import FOLDER_VARIABLE, TWO_DAEMONS
from labkit.paths import RECONFIGURATION, VD_DISCOVER
from labkit.simulator import as_discovered, discovered

TYPE = "_setup._tcp"
PASSWORD = "Grüße = 1 2"
NEW_ADDRESS, OTHER_ADDRESS = "10.77.0.210", "10.77.0.211"


class Course:
    """A simulated fleet, who follows it, and reconfigurations for one of its devices."""

    def __init__(self, stage, kind):
        self._stage = stage
        self._lab = stage.lab(TWO_DAEMONS)
        self._password = self._lab.folder / "password"
        self._password.write_text(PASSWORD + "\n", encoding="utf-8")
        self.simulator = stage.simulator(self._lab, "--cameras", "2", "--storage", "2", "--obey", TYPE,
                                         "--user", "jürgen", "--password-file", self._password)
        self.follower = stage.discover(self._lab, "--follow", "--long-lived", "--format", "json")
        self.follower.wait_for_output(4)
        self.device = next(device for device in self.simulator.state().values() if device["kind"] == kind)
        self.obeyed = []

    def publish(self, *options, user="jürgen", serial=None):
        """Publishes until the fleet has told of it; returns the line of the account, and what is written."""
        told = len(self._told())
        serial = serial or self.device["serial"]
        running = self._stage.discover(
            self._lab, "publish", "Move. It", "--type", TYPE, "--user", user, "--password-file", self._password,
            "--zeph", f"0x{serial}", "--mask", "255.255.255.128", *options, host="other")
        line = self.simulator.said.wait_for(lambda _: self._told()[told:])
        # A device may be quicker than the daemon is to say that it has published.
        running.wait_for_output(1)
        status, output, errors, _ = running.interrupt(signal.SIGTERM)
        assert line and status == 0, errors
        return line[0]

    def followed(self, begin, count):
        """The events of the device behind the first `begin` lines, as soon as there are so many."""
        lines = self.follower.wait_for_output(begin + count)[begin:]
        return [(event, service["serviceName"], service["addresses"], service["addressRemoved"])
                for event, service in events(lines)]

    def discovered(self):
        _, output, _, _ = self._stage.discover(self._lab, "--format", "json", "--timeout", "3").wait()
        return discovered(service for _, service in events(output))

    def account(self):
        records = map(as_discovered, self.simulator.state().values())
        return {record["serviceName"]: record for record in records}

    def _told(self):
        return [line for line in self.simulator.said.all if line["event"] in ("obeyed", "refused")]


def play(kind, stage):
    """Moves a device for good, then until its restart, and asks in vain with another user and another number."""
    course = Course(stage, kind)
    option = {"camera": ["--kind", "camera"],
              "storage": ["--kind", "snap", "--dns", "10.77.0.53", "--dns", "9.8.7.6"]}[kind]
    course.saved = course.publish("--ip", NEW_ADDRESS, "--save", *option)
    course.events = course.followed(4, 2)
    course.seen = course.discovered(), course.account()
    course.wrong_user = course.publish("--ip", OTHER_ADDRESS, *option, user="jurgen\u0308")
    course.wrong_number = course.publish("--ip", OTHER_ADDRESS, *option, serial="000000")
    course.unsaved = course.publish("--ip", OTHER_ADDRESS, *option)
    course.simulator.tell("restart", device=course.device["device"])
    course.restarted = course.simulator.state()[course.device["device"]]
    return course


def play_camera(stage):
    return play("camera", stage)


def play_storage(stage):
    return play("storage", stage)


both_kinds = pytest.mark.parametrize("", [
    pytest.param(id="camera", marks=pytest.mark.story.with_args(play_camera)),
    pytest.param(id="storage", marks=pytest.mark.story.with_args(play_storage))])


@both_kinds
def test_a_published_reconfiguration_moves_the_device(story):
    servers = ["10.77.0.53", "9.8.7.6"] if story.device["kind"] == "storage" else []
    state = {**story.device, "addresses": [NEW_ADDRESS], "mask": "255.255.255.128", "dns": servers}
    line = story.saved
    assert (line["event"], line["device"], line["record"], line["save"], line["state"]) == (
        "obeyed", story.device["device"], "Move. It", True, state)


@both_kinds
def test_who_follows_is_told_of_the_new_address_and_then_of_the_end_of_the_old_one(story):
    name, [former] = story.device["device"], story.device["addresses"]
    assert story.events[:2] == [("address", name, [former, NEW_ADDRESS], False), ("address", name, [former], True)]


@both_kinds
def test_discovery_then_finds_the_whole_fleet_as_its_account_has_it(story):
    found, account = story.seen
    assert found == account
    assert found[story.device["device"]]["addresses"] == [NEW_ADDRESS]


@both_kinds
def test_a_reconfiguration_by_another_user_is_refused(story):
    line = story.wrong_user
    assert (line["event"], line["device"], line["reason"]) == (
        "refused", story.device["device"], "wrong user 'jurgen\\u0308'")


@both_kinds
def test_a_reconfiguration_for_a_number_that_no_device_has_is_refused(story):
    line = story.wrong_number
    assert (line["event"], line["device"], line["reason"]) == (
        "refused", None, "no device has the serial number 000000")


@both_kinds
def test_what_was_published_without_save_ends_with_a_restart_and_what_was_saved_does_not(story):
    assert (story.unsaved["event"], story.unsaved["save"], story.unsaved["state"]["addresses"]) == (
        "obeyed", False, [OTHER_ADDRESS])
    assert (story.restarted["presence"], story.restarted["addresses"]) == ("alive", [NEW_ADDRESS])


def test_the_demo_moves_a_camera_and_who_follows_sees_it(stage):
    lab = stage.lab(TWO_DAEMONS)
    follower = stage.discover(lab, "--follow", "--long-lived", "--format", "json")
    outcome = subprocess.run([RECONFIGURATION, VD_DISCOVER, "fleet", "other"], stdin=subprocess.DEVNULL,
                             env={**os.environ, FOLDER_VARIABLE: str(lab.folder)}, capture_output=True, text=True,
                             timeout=60, check=False)
    assert (outcome.returncode, outcome.stderr) == (0, "")
    assert outcome.stdout.splitlines() == [
        "  - Main gate appears, a camera that lets itself be reconfigured",
        "  - other publishes a new address for the serial number f44666",
        "  - Main gate obeys and is at 10.77.0.222 now",
        "  - other withdraws it, and Main gate says goodbye"]
    _, output, _, _ = follower.interrupt(signal.SIGINT)
    told = [(event, service["serviceName"], service["addresses"]) for event, service in events(output)]
    assert told[:2] == [("found", "Main gate", ["10.77.0.151"]),
                        ("address", "Main gate", ["10.77.0.151", "10.77.0.222"])]
    assert told[-1][:2] == ("lost", "Main gate")
