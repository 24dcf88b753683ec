# SPDX-License-Identifier: MIT
"""What discovery reads of a service: its name, type and TXT record, byte for byte."""

import pytest

from labkit.devices import camera, camera_record, camera_txt, host_record, model_checksum
from labkit.publishers import FLEET_PUBLISHER, MULTICAST_DNS, ZEROCONF
from labkit.records import Device, checksum, record
from labkit.steps import Steps

CLEAN_PUBLISHERS = pytest.mark.parametrize("program", [ZEROCONF, MULTICAST_DNS], ids=["zeroconf", "multicast-dns"])

SERIALS = {
    b"ser_no.vandrel.com=\x00\x00\x00": 0x000000,
    b"ser_no.vandrel.com=\x00\xC1\xFF": 0x00C1FF,
    b"ser_no.vandrel.com=\xC1\xFF\x00": 0xC1FF00,
    b"ser_no.vandrel.com=\xFF\x00\xC1": 0xFF00C1,
    b"ser_no.vandrel.com=\xFF\xFF\xFF": 0xFFFFFF,
    b"ser_no.vandrel.com=\x01\x02\x03\x04": 0x010203,
    b"ser_no.vandrel.com=\xC1\xFF": 0xC1FF00,
    b"ser_no.vandrel.com=\x0D": 0x0D0000,
    b"ser_no.vandrel.com==": 0x3D0000,
    b"ser_no.vandrel.com=": 0x000000,
    b"ser_no.vandrel.com": 0x000000,
}

NAMES_WITHOUT_DOTS = [
    "Kühlraum – Küche 🧊",
    "カメラ 七号",
    " blanks  inside and around ",
    "back\\slash, \"quotes\" & <angles>",
    "63 bytes of ASCII " + 45 * "a",
    "63 bytes of UTF-8 " + 22 * "é" + "b",
]
NAMES = [*NAMES_WITHOUT_DOTS, "Dr. K.'s camera, v1.2.", "camera._http._tcp.local", "."]


def cameras(names):
    """A camera of each name, all on hosts of their own."""
    return [camera(name, f"camera-{number}", f"10.77.0.{100 + number}") for number, name in enumerate(names, 1)]


def record_of(lab, device, **members):
    return camera_record(lab, device.name, device.host, device.addresses[0], **members)


@CLEAN_PUBLISHERS
def test_a_serial_number_is_the_first_three_bytes_whatever_they_are(stage, program):
    lab, probe, publisher = stage.set_up(program=program)
    devices = [Device(f"Serial {number}", f"camera-{number}", [f"10.77.0.{100 + number}"], [entry])
               for number, entry in enumerate(SERIALS, 1)]
    probe.browse()
    publisher.publish(*devices)
    assert probe.take_signals(len(devices)) == [
        ("serviceFound", record_of(lab, device, serialNumber=number, modelName="", softwareVersion=""))
        for device, number in zip(devices, SERIALS.values())]


@pytest.mark.parametrize("program, names", [(ZEROCONF, NAMES), (MULTICAST_DNS, NAMES_WITHOUT_DOTS)],
                         ids=["zeroconf", "multicast-dns"])
def test_every_instance_name_is_found_queried_again_and_lost_under_that_name(stage, program, names):
    assert {len(name.encode()) for name in names if name.startswith("63 bytes")} == {63}
    lab, probe, publisher = stage.set_up(program=program)
    devices = cameras(names)
    probe.browse()
    publisher.publish(*devices)
    assert probe.take_signals(len(devices)) == [("serviceFound", record_of(lab, device)) for device in devices]

    assert [probe.start_query(name, False) for name in names] == [True] * len(names)
    assert probe.take_signals(0) == []
    twice = [(name, "_http._tcp") for name in names for _ in range(2)]
    assert sorted(probe.queue()) == sorted(twice)

    publisher.goodbye(*names)
    assert probe.take_signals(len(devices)) == [
        ("serviceLost", record_of(lab, device, txtChecksum=model_checksum("Dome 4"))) for device in devices]
    assert (probe.table(), probe.queue()) == ({}, [])


def test_all_keys_of_a_camera_are_read(stage):
    lab, probe, publisher = stage.set_up()
    txt = [b"privacy_mode.vandrel.com=T", b"error.vandrel.com=lens f\xC3\xBCr iris stuck",
           b"ser_no.vandrel.com=\x4C\x01\xC1", b"full_name.vandrel.com=Dome 4 = outdoor",
           b"fs_vers.vandrel.com=4.2.1-rc", b"userdata_owner.vandrel.com=operator", b"unknown=key"]
    probe.browse()
    publisher.publish(Device("Lobby", "camera-1", ["10.77.0.101"], txt))
    found = camera_record(lab, serialNumber=0x4C01C1, modelName="Dome 4 = outdoor", softwareVersion="4.2.1-rc",
                          errorText="lens für iris stuck", userdataOwner="operator", privacyMode=True)
    assert probe.take_signals(1) == [("serviceFound", found)]
    assert checksum(txt[0]) == dict(probe.table()["Lobby"])["txtChecksum"]


def test_all_keys_of_a_storage_server_are_read(stage):
    lab, probe, publisher = stage.set_up()
    txt = [b"freecapacity.snapserver.com=11 TB", b"ser_no.snapserver.com=\x5A\x00\xFF",
           b"model.snapserver.com=Shelf 12", b"sw_version.snapserver.com=10.3", b"error.snapserver.com=fan 2",
           b"totalcapacity.snapserver.com=48 TB", b"userdata_owner.vandrel.com=not its key"]
    probe.browse("_https._tcp")
    publisher.publish(Device("Archive", "storage-1", ["10.77.0.120"], txt, "_https._tcp", 8443))
    found = camera_record(lab, "Archive", "storage-1", "10.77.0.120", serviceType="_https._tcp", port=8443,
                          https=True, deviceKind=1024, serialNumber=0x5A00FF, modelName="Shelf 12",
                          softwareVersion="10.3", errorText="fan 2", totalCapacity="48 TB", freeCapacity="11 TB")
    assert probe.take_signals(1) == [("serviceFound", found)]


def test_a_device_with_the_keys_of_both_makers_is_a_camera(stage):
    lab, probe, publisher = stage.set_up()
    txt = [b"ser_no.snapserver.com=abc", b"model.snapserver.com=Shelf 12", *camera_txt()]
    probe.browse()
    publisher.publish(camera(txt=txt))
    assert probe.take_signals(1) == [("serviceFound", camera_record(lab))]


def test_web_services_of_both_types_are_found_and_any_other_is_ignored(stage):
    lab, probe, publisher = stage.set_up()
    types = {"Plain": "_http._tcp", "Secure": "_https._tcp", "Other": "_axis-video._tcp"}
    devices = [camera(name, f"camera-{number}", f"10.77.0.{100 + number}", type=service_type)
               for number, (name, service_type) in enumerate(types.items(), 1)]
    probe.browse(*types.values())
    publisher.publish(*devices)
    plain, secure = record_of(lab, devices[0]), record_of(lab, devices[1], serviceType="_https._tcp", https=True)
    assert probe.take_signals(2) == [("serviceFound", plain), ("serviceFound", secure)]


def test_a_service_of_an_ignored_type_leaves_a_default_entry_that_is_lost_as_such(stage):
    lab, probe, publisher = stage.set_up()
    probe.browse("_axis-video._tcp")
    publisher.publish(camera(type="_axis-video._tcp"))
    assert probe.take_signals(0) == []
    assert (probe.table(), probe.queue()) == ({"Lobby": record()}, [])

    publisher.goodbye("Lobby")
    assert probe.take_signals(1) == [("serviceLost", record())]
    assert probe.table() == {}


def play_service_without_a_vendors_key(stage):
    lab, probe, publisher = stage.set_up()
    steps = Steps(probe)
    probe.browse()
    probe.take_log()
    printer = Device("Office printer", "printer", ["10.77.0.130"], [b"ty=Printer"], port=631)
    steps.play("published", 0, lambda: publisher.publish(printer))
    return lab, steps["published"]


without_a_vendors_key = pytest.mark.story.with_args(play_service_without_a_vendors_key)


@without_a_vendors_key
def test_a_web_service_without_a_vendors_key_is_not_signalled(story):
    _, published = story
    assert published.signals == []


@without_a_vendors_key
def test_a_web_service_without_a_vendors_key_is_logged_as_one_of_which_nothing_is_read_yet(story):
    _, published = story
    service = "Office printer type: _http._tcp domain: local"
    assert published.log == [
        f"AvahiServiceDiscovery::ServiceBrowse() -> Browsing: {service}",
        "AvahiServiceDiscovery::ResolveService () -> trying to resolve service: Office printer",
        f"AvahiServiceDiscovery::ServiceResolve() -> resolving AXIS service: {service}",
        "BTW: not yet implemented!",
        "AvahiServiceDiscovery::ServiceBrowse() -> all for now",
    ]


@without_a_vendors_key
def test_a_web_service_without_a_vendors_key_has_an_entry_with_what_every_service_has_and_none_for_its_host(story):
    lab, published = story
    assert published.table == {"Office printer": record(
        serviceType="_http._tcp", interfaceIndex=lab.interface_indexes["lan0"], serviceName="Office printer",
        hostName="printer.local", recordHostName="printer.local", port=631)}
    assert published.queue == []


def test_two_services_on_one_host_share_the_entry_of_the_host(stage):
    lab, probe, publisher = stage.set_up()
    plain, secure = camera("Plain"), camera("Secure", type="_https._tcp", port=443)
    probe.browse("_http._tcp", "_https._tcp")
    publisher.publish(plain, secure)
    found_secure = record_of(lab, secure, serviceType="_https._tcp", port=443, https=True)
    assert probe.take_signals(2) == [("serviceFound", record_of(lab, plain)), ("serviceFound", found_secure)]
    assert probe.table()["camera-1.local"] == host_record("Secure")


def test_of_many_devices_at_once_each_is_found_once(stage):
    _, probe, publisher = stage.set_up(program=FLEET_PUBLISHER)
    probe.browse()
    publisher.tell("fleet", count=300, vendor="mixed")
    found = [(signal, *(dict(record)[member] for member in ("serviceName", "serialNumber", "deviceKind", "addresses")))
             for signal, record in probe.take_signals(300)]
    assert sorted(found) == sorted(
        ("serviceFound", f"Device {number}", 0xC10000 + number, 1 if number % 2 else 1024,
         [f"10.99.{number // 256}.{number % 256}"])
        for number in range(1, 301))
