# SPDX-License-Identifier: MIT
"""Devices that obey published reconfigurations, and records that they refuse."""

import json

import pytest

from simkit import CAMERA_RECORD, STORAGE_RECORD, STORAGE_SERIAL, reconfiguration

DNS = {"DNS1": b"\x0A\x00\x00\x35", "DNS2": b"\x08\x08\x04\x04", "DNS3": b"\x01\x02\x03\x04"}


def test_a_camera_takes_the_new_address_and_mask_and_no_name_servers(simulated):
    simulated.appear(reconfiguration(NEWIP=b"\xC0\xA8\x01\x02", MASK=b"\xFF\xFF\x80\x00", **DNS))
    account = simulated.camera.account()
    assert (account["addresses"], account["mask"], account["dns"]) == (["192.168.1.2"], "255.255.128.0", [])
    assert simulated.announced.all == [("withdraw addresses", "Lobby", ["10.0.0.1"]),
                                       ("publish", ("Lobby", ["192.168.1.2"], CAMERA_RECORD))]


def test_a_storage_server_takes_name_servers_too(simulated):
    simulated.appear(reconfiguration(ZEPH=STORAGE_SERIAL, **DNS))
    account = simulated.storage.account()
    assert (account["addresses"], account["dns"]) == (["10.0.0.77"], ["10.0.0.53", "8.8.4.4", "1.2.3.4"])
    assert simulated.announced.all == [("withdraw addresses", "Archive", ["10.0.0.2"]),
                                       ("publish", ("Archive", ["10.0.0.77"], STORAGE_RECORD))]


def test_name_servers_may_be_few(simulated):
    simulated.appear(reconfiguration(ZEPH=STORAGE_SERIAL, DNS3=DNS["DNS3"]))
    assert simulated.storage.account()["dns"] == ["1.2.3.4"]


def test_all_former_addresses_are_given_up(simulated):
    simulated.command("add-address", device="Lobby", address="10.0.0.40")
    simulated.appear(reconfiguration())
    assert simulated.announced.all[1] == ("withdraw addresses", "Lobby", ["10.0.0.1", "10.0.0.40"])
    assert simulated.camera.addresses == ["10.0.0.77"]


def test_an_obeyed_record_is_told_with_the_device_as_it_now_is(simulated):
    simulated.appear(reconfiguration(), name="Move it")
    assert simulated.account.all == [("obeyed", {"device": "Lobby", "cause": "record", "record": "Move it",
                                                 "save": True, "state": simulated.camera.account()})]


def test_only_the_device_with_the_serial_number_is_moved(simulated):
    simulated.appear(reconfiguration())
    assert [device.addresses for device in simulated.devices] == [["10.0.0.77"], ["10.0.0.2"], ["10.0.0.3"]]


def test_a_record_without_the_key_for_a_serial_number_is_no_reconfiguration(simulated):
    simulated.appear(reconfiguration(without=["ZEPH"]))
    assert simulated.account.all == []


def test_a_record_of_another_vendor_is_no_reconfiguration(simulated):
    simulated.appear(reconfiguration(domain=b"example.net"))
    assert simulated.account.all == []


def test_keys_are_known_in_any_case(simulated):
    record = reconfiguration()
    for key in (b"ZEPH", b"USER", b"PWD", b"NEWIP", b"MASK", b"SAVE"):
        record = record.replace(key + b".vandrel", key.capitalize() + b".VANdrel")
    simulated.appear(record)
    assert simulated.account.events() == [("obeyed", "Lobby")]


def test_of_two_strings_with_a_key_the_first_counts(simulated):
    simulated.appear(reconfiguration(b"newip.vandrel.com=\x0A\x00\x00\x09", b"USER.vandrel.com=other"))
    assert simulated.camera.addresses == ["10.0.0.77"]


@pytest.mark.parametrize("values, reason", [
    ({"USER": b"root"}, "wrong user 'root'"),
    ({"USER": b"ADMIN"}, "wrong user 'ADMIN'"),
    ({"USER": b""}, "wrong user ''"),
    ({"USER": b"\x1B[2Jadmin\n\xFF\xC3\xA4"}, "wrong user '\\x1b[2Jadmin\\n\\ufffd\\xe4'"),
    ({"PWD": b"U2VjcmV0"}, "wrong password"),
    ({"PWD": b""}, "wrong password"),
    ({"PWD": b"s3cret"}, "PWD is not Base64"),
    ({"PWD": b"czNj cmV0"}, "PWD is not Base64"),
    ({"PWD": b"\xFF\xFF\xFF\xFF"}, "PWD is not Base64"),
    ({"NEWIP": b""}, "NEWIP has 0 bytes, not 4"),
    ({"NEWIP": b"10.0.0.77"}, "NEWIP has 9 bytes, not 4"),
    ({"MASK": b"\xFF\xFF\xFF"}, "MASK has 3 bytes, not 4"),
    ({"NEWIP": b"\0\0\0\0"}, "NEWIP 0.0.0.0 is no address of a host"),
    ({"NEWIP": b"\0\0\0\x01"}, "NEWIP 0.0.0.1 is no address of a host"),
    ({"NEWIP": b"\x7F\0\0\x01"}, "NEWIP 127.0.0.1 is no address of a host"),
    ({"NEWIP": b"\xE0\0\0\xFB"}, "NEWIP 224.0.0.251 is no address of a host"),
    ({"NEWIP": b"\xF0\0\0\x01"}, "NEWIP 240.0.0.1 is no address of a host"),
    ({"NEWIP": b"\xFF\xFF\xFF\xFF"}, "NEWIP 255.255.255.255 is no address of a host"),
    ({"NEWIP": b"\x0A\0\0\0"}, "NEWIP 10.0.0.0 is no address of a host in a network with the mask 255.255.255.0"),
    ({"NEWIP": b"\x0A\0\0\xFF"}, "NEWIP 10.0.0.255 is no address of a host in a network with the mask 255.255.255.0"),
    ({"NEWIP": b"\x0A\0\0\x02"}, "NEWIP 10.0.0.2 belongs to 'Archive'"),
    ({"MASK": b"\0\0\0\0"}, "MASK 0.0.0.0 is no net mask"),
    ({"MASK": b"\xFF\0\xFF\0"}, "MASK 255.0.255.0 is no net mask"),
    ({"MASK": b"\0\xFF\xFF\xFF"}, "MASK 0.255.255.255 is no net mask"),
    ({"SAVE": b"t"}, "SAVE is neither T nor F"),
    ({"SAVE": b""}, "SAVE is neither T nor F"),
    ({"SAVE": b"TT"}, "SAVE is neither T nor F"),
])
def test_a_record_that_does_not_fit_is_refused_with_the_reason(simulated, values, reason):
    before = simulated.camera.account()
    simulated.appear(reconfiguration(**values))
    assert simulated.account.reasons() == [("Lobby", reason)]
    assert (simulated.camera.account(), simulated.announced.all) == (before, [])


@pytest.mark.parametrize("key", ["USER", "PWD", "NEWIP", "MASK", "SAVE"])
def test_a_record_without_a_key_is_refused(simulated, key):
    simulated.appear(reconfiguration(without=[key]))
    assert simulated.account.reasons() == [("Lobby", f"{key} is missing")]


@pytest.mark.parametrize("key", ["USER", "PWD", "NEWIP", "MASK", "SAVE"])
def test_a_record_with_a_key_without_a_value_is_refused(simulated, key):
    simulated.appear(reconfiguration(f"{key}.vandrel.com".encode(), without=[key]))
    assert simulated.account.reasons() == [("Lobby", f'{key} is without "="')]


@pytest.mark.parametrize("serial, reason", [
    (b"", "ZEPH has 0 bytes, not 3"), (b"\xC1\xFF", "ZEPH has 2 bytes, not 3"),
    (b"\x00\xC1\xFF\x00", "ZEPH has 4 bytes, not 3"), (b"\xFF\xC1\x00", "no device has the serial number ffc100")])
def test_a_serial_number_that_is_nobodys_is_refused_once(simulated, serial, reason):
    simulated.appear(reconfiguration(ZEPH=serial))
    simulated.appear(reconfiguration(ZEPH=serial))
    assert simulated.account.reasons() == [(None, reason)]


@pytest.mark.parametrize("value", [b"", b"\x08\x08\x04"])
def test_a_malformed_name_server_is_refused_by_storage_and_not_looked_at_by_a_camera(simulated, value):
    simulated.appear(reconfiguration(ZEPH=STORAGE_SERIAL, DNS2=value), name="for storage")
    simulated.appear(reconfiguration(DNS2=value), name="for the camera")
    assert simulated.account.reasons() == [("Archive", f"DNS2 has {len(value)} bytes, not 4")]
    assert simulated.account.events()[1:] == [("obeyed", "Lobby")]


@pytest.mark.parametrize("record", [b"", b"\0", b"\xFFZEPH.vandrel.com=", b"\x10ZEPH.vandrel.com"])
def test_a_malformed_record_moves_nothing(simulated, record):
    simulated.appear(record)
    assert simulated.announced.all == []
    assert simulated.account.events() in ([], [("refused", None)])


def test_the_password_is_never_told(simulated):
    simulated.appear(reconfiguration(PWD=b"c2VjcmV0LXdvcmQ="))
    simulated.appear(reconfiguration(PWD=b"secret-word"))
    simulated.appear(reconfiguration())
    told = json.dumps(simulated.account.all)
    assert len(simulated.account.all) == 3
    assert not [word for word in ("secret-word", "c2VjcmV0LXdvcmQ", "s3cret", "czNjcmV0") if word in told]


@pytest.mark.parametrize("newip, mask", [(b"\x0A\0\0\0", b"\xFF\xFF\xFF\xFE"), (b"\x0A\0\0\x4D", b"\xFF\xFF\xFF\xFF"),
                                         (b"\x0A\0\0\0", b"\x80\0\0\0")])
def test_addresses_at_the_end_of_small_and_large_networks_are_taken(simulated, newip, mask):
    simulated.appear(reconfiguration(NEWIP=newip, MASK=mask))
    assert simulated.account.events() == [("obeyed", "Lobby")]


def test_a_record_is_taken_once_however_often_it_is_announced(simulated):
    simulated.appear(reconfiguration())
    simulated.command("address", device="Lobby", address="10.0.0.9")
    simulated.appear(reconfiguration())
    assert simulated.camera.addresses == ["10.0.0.9"]


def test_a_refused_record_is_told_of_once(simulated):
    for _ in range(3):
        simulated.appear(reconfiguration(USER=b"root"))
    assert len(simulated.account.all) == 1


def test_a_change_of_the_record_is_taken(simulated):
    simulated.appear(reconfiguration())
    simulated.appear(reconfiguration(NEWIP=b"\x0A\0\0\x4E"))
    assert simulated.camera.addresses == ["10.0.0.78"]


def test_a_record_that_was_withdrawn_and_is_published_anew_is_taken_again(simulated):
    simulated.appear(reconfiguration())
    simulated.obedience.disappear("Move", reconfiguration())
    simulated.command("address", device="Lobby", address="10.0.0.9")
    simulated.appear(reconfiguration())
    assert simulated.camera.addresses == ["10.0.0.77"]


def test_the_end_of_a_text_from_before_a_change_makes_nothing_new(simulated):
    former, present = reconfiguration(), reconfiguration(NEWIP=b"\x0A\0\0\x4E")
    simulated.appear(former)
    simulated.appear(present)
    simulated.obedience.disappear("Move", former)
    simulated.command("address", device="Lobby", address="10.0.0.9")
    simulated.appear(present)
    assert simulated.camera.addresses == ["10.0.0.9"]


def test_what_is_saved_outlasts_a_restart(simulated):
    simulated.appear(reconfiguration(SAVE=b"T"))
    simulated.command("restart", device="Lobby", seconds=0)
    assert simulated.camera.addresses == ["10.0.0.77"]


@pytest.mark.parametrize("away", ["goodbye", "silence"])
def test_what_is_not_saved_is_forgotten_by_a_restart_though_the_record_is_still_there(simulated, away):
    simulated.appear(reconfiguration(SAVE=b"F", MASK=b"\xFF\xFF\0\0"))
    simulated.command(away, device="Lobby")
    simulated.command("return", device="Lobby")
    assert (simulated.camera.addresses, simulated.camera.network.mask) == (["10.0.0.1"], "255.255.255.0")
    assert simulated.announced.all[-1] == ("publish", ("Lobby", ["10.0.0.1"], CAMERA_RECORD))


def test_after_several_that_are_not_saved_the_last_saved_one_returns(simulated):
    simulated.appear(reconfiguration(SAVE=b"T"))
    simulated.appear(reconfiguration(SAVE=b"F", NEWIP=b"\x0A\0\0\x4E"))
    simulated.appear(reconfiguration(SAVE=b"F", NEWIP=b"\x0A\0\0\x4F"))
    simulated.command("restart", device="Lobby", seconds=0)
    assert simulated.camera.addresses == ["10.0.0.77"]


def test_what_a_restart_has_brought_back_no_later_one_brings_back_again(simulated):
    simulated.appear(reconfiguration(SAVE=b"F"))
    simulated.command("restart", device="Lobby", seconds=0)
    simulated.command("address", device="Lobby", address="10.0.0.9")
    simulated.command("restart", device="Lobby", seconds=0)
    assert simulated.camera.addresses == ["10.0.0.9"]


def test_an_address_that_another_device_returns_to_is_refused(simulated):
    simulated.appear(reconfiguration(SAVE=b"F"), name="first")
    simulated.appear(reconfiguration(ZEPH=STORAGE_SERIAL, NEWIP=b"\x0A\0\0\x01"), name="second")
    assert simulated.account.reasons() == [("Archive", "NEWIP 10.0.0.1 belongs to 'Lobby'")]


def test_saving_ends_what_was_not_saved(simulated):
    simulated.appear(reconfiguration(SAVE=b"F"))
    simulated.appear(reconfiguration(SAVE=b"T", NEWIP=b"\x0A\0\0\x4E"))
    simulated.command("restart", device="Lobby", seconds=0)
    assert simulated.camera.addresses == ["10.0.0.78"]


def test_a_device_that_was_away_takes_the_record_when_it_returns(simulated):
    simulated.command("goodbye", device="Lobby")
    simulated.appear(reconfiguration())
    assert simulated.account.events() == [("goodbye", "Lobby"), ("done", None)]
    simulated.command("return", device="Lobby")
    assert simulated.camera.addresses == ["10.0.0.77"]


def test_a_device_that_was_away_takes_no_record_that_is_gone_again(simulated):
    simulated.command("goodbye", device="Lobby")
    simulated.appear(reconfiguration())
    simulated.obedience.disappear("Move")
    simulated.command("return", device="Lobby")
    assert simulated.camera.addresses == ["10.0.0.1"]


def test_a_serial_number_that_was_changed_is_the_one_that_is_obeyed(simulated):
    simulated.command("serial", device="Lobby", hex="010203")
    simulated.appear(reconfiguration(ZEPH=b"\x01\x02\x03"))
    assert simulated.camera.addresses == ["10.0.0.77"]


def test_its_own_address_may_be_given_again_with_another_mask(simulated):
    simulated.appear(reconfiguration(NEWIP=b"\x0A\0\0\x01", MASK=b"\xFF\0\0\0"))
    assert (simulated.camera.addresses, simulated.camera.network.mask) == (["10.0.0.1"], "255.0.0.0")
    assert [what for what, *_ in simulated.announced.all] == ["publish"]
