# SPDX-License-Identifier: MIT
"""vd-discover, with a daemon and devices in health."""

import json
import re
import signal
import time

import pytest

from labkit.devices import camera, camera_record, camera_txt, model_checksum
from labkit.discover import events, with_either_class
from labkit.records import MEMBERS, Device

STORAGE = Device("Archive", "storage-1", ["10.77.0.120"], [
    b"ser_no.snapserver.com=\x5A\x00\xFF", b"model.snapserver.com=Shelf 12", b"sw_version.snapserver.com=10.3"],
    "_https._tcp", 8443)
KITCHEN = camera("Kühlraum – Küche 🧊", "camera-2", "10.77.0.102")
PRINTER = Device("Office printer", "printer", ["10.77.0.130"], [b"ty=Printer"])

TABLE = """\
NAME                 KIND                 ADDRESS      PORT        MODEL     VERSION  SERIAL
Archive              Snap Server storage  10.77.0.120  8443 https  Shelf 12  10.3     5a00ff
Kühlraum – Küche 🧊  Vandrel camera       10.77.0.102  80          Dome 4    4.2.1    010203
Lobby                Vandrel camera       10.77.0.101  80          Dome 4    4.2.1    010203
"""


def with_devices(stage, *devices):
    lab = stage.lab()
    publisher = stage.publisher(lab)
    if devices:
        publisher.publish(*devices)
    return lab, publisher


def found_record(lab, plain):
    """As it is in the first event: the plain class fills in the checksum later."""
    return camera_record(lab, **({} if plain else {"txtChecksum": model_checksum("Dome 4")}))


@with_either_class
def test_the_table_shows_every_device_and_nothing_else(stage, plain):
    lab, _ = with_devices(stage, camera(), KITCHEN, STORAGE, PRINTER)
    status, output, errors, seconds = stage.discover(lab, "--timeout", "2", *plain).wait()
    assert (status, output.decode(), errors) == (0, TABLE, b"")
    # A timer of Qt may be early by a twentieth.
    assert 1.9 < seconds < 4


@with_either_class
def test_a_json_line_has_all_members_of_the_record(stage, plain):
    lab, _ = with_devices(stage, camera())
    status, output, errors, _ = stage.discover(lab, "--format", "json", "--timeout", "1", *plain).wait()
    assert (status, errors, output.count(b"\n"), output[-1:]) == (0, b"", 1, b"\n")
    line = json.loads(output)
    assert list(line) == ["event", "time", "service"]
    assert line["event"] == "found"
    assert re.fullmatch(r"\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}Z", line["time"])
    assert line["service"] == dict(found_record(lab, plain))
    assert len(line["service"]) == len(MEMBERS) == 21


def test_json_lines_of_both_makers_carry_serial_and_kind_as_numbers(stage):
    lab, _ = with_devices(stage, camera(), STORAGE)
    _, output, _, _ = stage.discover(lab, "--format", "json", "--count", "2").wait()
    told = {service["serviceName"]: (service["deviceKind"], service["serialNumber"])
            for _, service in events(output)}
    assert told == {"Lobby": (1, 0x010203), "Archive": (1024, 0x5A00FF)}


def test_count_ends_the_run_with_so_many_devices(stage):
    lab, _ = with_devices(stage, camera(), KITCHEN, STORAGE)
    running = stage.discover(lab, "--count", "2", "--timeout", "60", "--format", "json")
    status, output, errors, seconds = running.wait()
    assert (status, errors) == (0, b"")
    assert [event for event, _ in events(output)] == ["found", "found"]
    assert seconds < 10


def test_without_a_device_it_ends_after_the_timeout_with_status_1(stage):
    lab, _ = with_devices(stage, PRINTER)
    status, output, errors, seconds = stage.discover(lab, "--timeout", "1.5").wait()
    assert (status, output, errors) == (1, b"", b"")
    assert 1.42 < seconds < 3.5


def test_types_that_are_named_are_browsed_and_no_others(stage):
    lab, _ = with_devices(stage, camera(), STORAGE)
    _, output, _, _ = stage.discover(lab, "_https._tcp", "--format", "json", "--timeout", "1.5").wait()
    assert [(event, service["serviceName"]) for event, service in events(output)] == [("found", "Archive")]


@with_either_class
def test_following_long_lived_tells_each_change_as_it_happens(stage, plain):
    lab, publisher = with_devices(stage)
    follower = stage.discover(lab, "--follow", "--long-lived", "--format", "json", *plain)
    publisher.publish(camera())
    follower.wait_for_output(1)
    # The query is opened behind the event, and answered from the cache.
    time.sleep(1)
    publisher.set_txt("Lobby", camera_txt(model="Dome 5"))
    follower.wait_for_output(2)
    publisher.add_address("Lobby", "10.77.0.201")
    follower.wait_for_output(3)
    publisher.goodbye("Lobby")
    follower.wait_for_output(4)
    status, output, _, _ = follower.interrupt(signal.SIGINT)

    later = {"longLiveQuery": True, "modelName": "Dome 5", "txtChecksum": model_checksum("Dome 5")}
    both = {**later, "addresses": ["10.77.0.101", "10.77.0.201"]}
    assert status == 0
    assert events(output) == [
        ("found", dict(found_record(lab, plain))),
        ("text", dict(camera_record(lab, **later))),
        ("address", dict(camera_record(lab, **both))),
        ("lost", dict(camera_record(lab, **both))),
    ]


def test_following_is_one_readable_line_an_event(stage):
    lab, publisher = with_devices(stage, camera())
    follower = stage.discover(lab, "--follow")
    follower.wait_for_output(1)
    publisher.goodbye("Lobby")
    follower.wait_for_output(2)
    _, output, _, _ = follower.interrupt(signal.SIGINT)
    lines = [re.sub(r"^\d\d:\d\d:\d\d  ", "TIME  ", line) for line in output.decode().splitlines()]
    assert lines == [
        "TIME  found    Lobby                 "
        "10.77.0.101 port 80, Vandrel camera Dome 4, version 4.2.1, serial 010203",
        "TIME  lost     Lobby                 was at 10.77.0.101",
    ]


@pytest.mark.parametrize("number", [signal.SIGINT, signal.SIGTERM])
@pytest.mark.parametrize("options", [["--follow"], ["--timeout", "60", "--format", "json"]], ids=["follow", "json"])
def test_a_signal_ends_it_with_status_0_once_a_device_was_seen(stage, number, options):
    lab, _ = with_devices(stage, camera())
    running = stage.discover(lab, "--verbose", *options)
    running.wait_for_output(1)
    status, output, errors, _ = running.interrupt(number)
    assert (status, output.count(b"Lobby")) == (0, 1)
    assert errors.endswith(b"AvahiServiceDiscovery::TerminateBrowsing\n")


@pytest.mark.parametrize("number", [signal.SIGINT, signal.SIGTERM])
def test_a_signal_brings_the_table_out(stage, number):
    lab, _ = with_devices(stage, camera())
    # Only the log of the plain class tells that the device is known.
    running = stage.discover(lab, "--plain", "--verbose", "--timeout", "60")
    assert running.errors.wait_for(lambda lines: any(b"ServiceResolve() -> CHECKSUM " in line for line in lines))
    status, output, _, _ = running.interrupt(number)
    assert (status, output.count(b"Lobby")) == (0, 1)


@pytest.mark.parametrize("number", [signal.SIGINT, signal.SIGTERM])
def test_a_signal_ends_it_with_status_1_before_any_device_was_seen(stage, number):
    lab, _ = with_devices(stage)
    running = stage.discover(lab, "--verbose", "--follow")
    assert running.errors.wait_for(lambda lines: any(b"-> starting to browse" in line for line in lines))
    status, output, _, _ = running.interrupt(number)
    assert (status, output) == (1, b"")
