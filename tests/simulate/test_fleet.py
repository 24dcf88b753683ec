# SPDX-License-Identifier: MIT
"""The making of a fleet."""

import random
import subprocess
import sys

import pytest

from vdsimulate.device import CAMERA, OTHER, STORAGE, Network
from vdsimulate.fleet import AddressPlan, camera_strings, make_fleet, storage_strings
from vdsimulate.requests import RequestError
from vdsimulate.txt import key_of, record_of, strings_of, value_of

# In a process of its own, for the order of a set may differ from one to the next.
PRINT_FLEET = """
import random, sys
sys.path[:0] = sys.argv[1:]
from vdsimulate.fleet import AddressPlan, make_fleet
counts = {"camera": 40, "storage": 20, "other": 10}
for device in make_fleet(counts, AddressPlan("10.0.0.0/24"), random.Random(7), "vandrel.com"):
    print(device)
"""


def fleet(cameras=0, storage=0, other=0, seed=1, addresses="198.18.0.0/15", domain="vandrel.com"):
    counts = {CAMERA: cameras, STORAGE: storage, OTHER: other}
    return list(make_fleet(counts, AddressPlan(addresses), random.Random(seed), domain))


def printed_fleet(hash_seed):
    [folder] = [path for path in sys.path if path.endswith("vd-simulate")]
    return subprocess.run(["/usr/bin/python3", "-c", PRINT_FLEET, folder], env={"PYTHONHASHSEED": hash_seed},
                          capture_output=True, check=True).stdout


def test_the_text_of_a_camera_has_all_its_keys():
    strings = camera_strings(b"\x00\xC1\xFF", "Dome 4", "4.2.1", "hot", "ops", "T", "vandrel.com")
    assert record_of(strings) == (
        b"\x15error.vandrel.com=hot" b"\x16ser_no.vandrel.com=\x00\xC1\xFF" b"\x1Cfull_name.vandrel.com=Dome 4"
        b"\x19fs_vers.vandrel.com=4.2.1" b"\x1Euserdata_owner.vandrel.com=ops" b"\x1Aprivacy_mode.vandrel.com=T")


def test_the_text_of_a_storage_server_has_all_its_keys():
    strings = storage_strings(b"\x5A\x00\x01", "Shelf 12", "10.3", "", "48 TB", "11 TB")
    assert record_of(strings) == (
        b"\x21freecapacity.snapserver.com=11 TB" b"\x19ser_no.snapserver.com=\x5A\x00\x01"
        b"\x1Dmodel.snapserver.com=Shelf 12" b"\x1Esw_version.snapserver.com=10.3" b"\x15error.snapserver.com="
        b"\x22totalcapacity.snapserver.com=48 TB")


def test_the_same_seed_makes_the_same_fleet_in_every_process():
    first = printed_fleet("1")
    assert first == printed_fleet("2")
    assert first.count(b"\n") == 70


def test_another_seed_makes_another_fleet():
    assert fleet(5, 5, 5, seed=1) != fleet(5, 5, 5, seed=2)


def test_there_are_as_many_of_each_kind_as_were_asked_for():
    kinds = [device.kind for device in fleet(3, 2, 1)]
    assert kinds == ["camera"] * 3 + ["storage"] * 2 + ["other"]


def test_no_two_of_a_thousand_devices_share_a_name_a_host_an_address_or_a_serial_number():
    devices = fleet(600, 300, 100)
    names = {device.name.lower() for device in devices} | {device.host.lower() for device in devices}
    assert len(names) == 2000
    assert len({address for device in devices for address in device.addresses}) == 1000
    assert len({device.serial for device in devices}) == 901 and {len(device.serial) for device in devices} == {0, 3}


def test_every_name_fits_into_a_label_and_has_no_control_character():
    devices = fleet(3000, 3000, 3000)
    assert all(1 <= len(device.name.encode()) <= 63 and device.name.isprintable() for device in devices)


def test_names_have_blanks_and_umlauts_and_emoji_and_dots():
    names = "".join(device.name for device in fleet(200, 50))
    assert all(character in names for character in " üß🧊.\"")


def test_both_types_and_several_ports_and_models_occur():
    devices = fleet(50)
    assert {device.type for device in devices} == {"_http._tcp", "_https._tcp"}
    assert {device.port for device in devices} == {80, 443, 8080}
    assert len({strings_of(device.record)[2] for device in devices}) > 4


def test_the_serial_number_in_the_text_is_that_of_the_device():
    for device in fleet(20, 20):
        [serial] = [value_of(string) for string in strings_of(device.record)
                    if key_of(string).decode() == device.serial_key]
        assert serial == device.serial


def test_the_cameras_keys_end_in_the_vendors_domain():
    [camera] = fleet(1, domain="example.net")
    keys = [key_of(string).partition(b".") for string in strings_of(camera.record)]
    assert {domain for _, _, domain in keys} == {b"example.net"}
    assert camera.serial_key == "ser_no.example.net"


def test_other_services_have_no_key_by_which_discovery_knows_a_device():
    devices = fleet(other=50)
    assert not any(b"ser_no" in device.record for device in devices)


@pytest.mark.parametrize("text, first, room, mask", [
    ("10.0.0.0/24", "10.0.0.1", 254, "255.255.255.0"),
    ("10.0.0.100/24", "10.0.0.100", 155, "255.255.255.0"),
    ("10.0.0.0/31", "10.0.0.0", 2, "255.255.255.254"),
    ("10.0.0.7/32", "10.0.0.7", 1, "255.255.255.255"),
    ("10.0.0.255/24", "10.0.0.255", 0, "255.255.255.0"),
])
def test_addresses_begin_at_the_one_that_is_named_and_leave_out_those_of_no_host(text, first, room, mask):
    plan = AddressPlan(text)
    assert (plan.room(), plan.mask) == (room, mask)
    assert not room or plan.address(0) == first


def test_a_network_may_be_filled_up():
    assert [device.addresses for device in fleet(2, addresses="10.0.0.253/24")] == [["10.0.0.253"], ["10.0.0.254"]]


def test_a_network_that_is_too_small_is_refused():
    with pytest.raises(RequestError, match=r"^10\.0\.0\.0/30 has room for 2 of 3 devices; "
                                           "name a larger network with --addresses$"):
        fleet(3, addresses="10.0.0.0/30")


def test_a_free_address_is_none_that_a_device_has_or_returns_to(simulated):
    simulated.camera.saved = Network(("10.0.0.99",), "255.255.255.0")
    found = {simulated.fleet.free_address(random.Random(seed)) for seed in range(3000)}
    assert found == {f"10.0.0.{number}" for number in range(4, 255) if number != 99}


def test_a_full_network_has_no_free_address():
    devices = make_fleet({CAMERA: 2, STORAGE: 0, OTHER: 0}, AddressPlan("10.0.0.0/30"), random.Random(1), "x.y")
    assert devices.free_address(random.Random(1)) is None
