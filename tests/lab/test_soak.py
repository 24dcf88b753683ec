# SPDX-License-Identifier: MIT
"""A short soak, and that the one on command would notice what it looks for."""

import subprocess
import sys

import pytest

from labkit.paths import BUILD, ROOT

sys.path.insert(0, str(ROOT / "bench"))

from levels import PARTS, level  # noqa: E402
from tables import TYPES, Comparison, objects_amiss  # noqa: E402

DEVICES = 200
RESTARTS = 3


def play_soak(_):
    # In a lab of its own, with the daemon restarted more often than in the long one.
    command = [ROOT / "bench" / "soak", "--minutes", "3", "--restart-every", "45", "--devices", str(DEVICES),
               "--build", BUILD]
    outcome = subprocess.run(command, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                             text=True, timeout=400, check=False)
    return outcome.returncode, outcome.stdout


soak = pytest.mark.story.with_args(play_soak)


@soak
def test_after_three_minutes_of_changes_all_is_level_and_the_table_is_right(story):
    status, report = story
    assert status == 0, report


@soak
def test_the_daemon_was_restarted_while_devices_changed(story):
    _, report = story
    assert f" {RESTARTS} restarts; " in report, report


def course(figure, value):
    """Ten minutes of a figure, whose value depends on the second."""
    return [{"seconds": second, figure: value(second)} for second in range(600)]


def is_level(figure, value):
    return level(figure, course(figure, value), DEVICES).is_kept


def test_a_peak_at_each_restart_is_level(stage):
    assert is_level("objects", lambda second: 190 if second % 45 < 4 else 45)


def test_what_begins_before_a_tenth_of_the_time_is_level(stage):
    assert is_level("rssKiB", lambda second: 14000 if second >= 600 // PARTS else 8000)


@pytest.mark.parametrize("figure", ["descriptors", "timers", "qtObjects"])
def test_one_thing_that_is_left_behind_at_each_restart_is_not_level(stage, figure):
    assert not is_level(figure, lambda second: 7 + second // 100)


@pytest.mark.parametrize("figure, a_second", [("rssKiB", 2), ("objects", 0.05), ("queue", 0.05)])
def test_slow_growth_is_not_level(stage, figure, a_second):
    assert not is_level(figure, lambda second: 45 + a_second * second)


def test_a_late_step_is_not_level(stage):
    assert not is_level("descriptors", lambda second: 7 if second < 500 else 9)


def camera(name="Lobby", presence="alive", addresses=("10.0.0.1",)):
    """A device in the simulator's account."""
    return {"device": name, "kind": "camera", "presence": presence, "type": "_http._tcp", "host": "camera-1",
            "port": 80, "addresses": list(addresses),
            "txt": [{"key": "error.vandrel.com", "text": ""}, {"key": "ser_no.vandrel.com", "value": "AQID"}]}


def known(name="Lobby", **members):
    """That device in the table of discovery."""
    return {"serviceName": name, "serviceType": "_http._tcp", "port": 80, "https": False,
            "hostName": "camera-1.local", "recordHostName": "camera-1.local", "addresses": ["10.0.0.1"],
            "deviceKind": 1, "serialNumber": 0x010203, "privacyMode": False, "modelName": "", "softwareVersion": "",
            "errorText": "", "userdataOwner": "", "totalCapacity": "", "freeCapacity": "", "txtChecksum": 0xA9D8,
            **members}


def differences(account, services, queue=None):
    services = {record["serviceName"]: record for record in services}
    queue = queue or [[name, "_http._tcp"] for name in services]
    return Comparison({device["device"]: device for device in account}, services, queue).differences


def test_a_table_like_the_account_has_no_differences(stage):
    assert differences([camera(), camera("Attic", "gone")], [known()]) == []


def test_a_device_that_is_not_in_the_table_is_a_difference(stage):
    assert differences([camera(), camera("Attic")], [known()]) == ["'Attic' is alive and not in the table"]


@pytest.mark.parametrize("presence", ["gone", "silent"])
def test_a_device_that_is_away_and_in_the_table_is_a_difference(stage, presence):
    assert differences([camera(presence=presence)], [known()]) == ["'Lobby' is in the table and not alive"]


@pytest.mark.parametrize("member, value", [
    ("addresses", ["10.0.0.2"]), ("addresses", ["10.0.0.1", "10.0.0.2"]), ("port", 81), ("hostName", "x.local"),
    ("recordHostName", "x.local"), ("serviceType", "_https._tcp"), ("https", True), ("deviceKind", 1024),
    ("serialNumber", 1), ("errorText", "hot"), ("txtChecksum", 1), ("privacyMode", True)])
def test_each_member_that_is_wrong_is_a_difference(stage, member, value):
    record = known(**{member: value})
    [difference] = differences([camera()], [record], [["Lobby", record["serviceType"]]])
    assert difference.startswith(f"'Lobby' {member}: alive with ")


def test_a_queue_with_one_service_twice_is_a_difference(stage):
    entry = ["Lobby", "_http._tcp"]
    assert differences([camera()], [known()], [entry, entry]) == [
        "the queue of 2 is not one pair for each of the 1 services"]


NEEDED = [*(f"browser of {service_type}" for service_type in TYPES), "resolver of Lobby",
          "address browser of camera-1.local"]


def test_what_browses_and_what_long_lived_queries_need_may_be_open(stage):
    assert objects_amiss({"Lobby": known(), "Attic": known("Attic")}, ["Lobby"], NEEDED) == []


def test_a_resolver_of_no_long_lived_query_is_amiss(stage):
    assert objects_amiss({"Lobby": known()}, ["Lobby"], [*NEEDED, "resolver of Attic"]) == [
        "open and not needed: 'resolver of Attic'"]


def test_a_long_lived_query_without_its_address_browser_is_amiss(stage):
    assert objects_amiss({"Lobby": known()}, ["Lobby"], NEEDED[:-1]) == [
        "needed and not open: 'address browser of camera-1.local'"]
