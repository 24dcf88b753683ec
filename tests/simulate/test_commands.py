# SPDX-License-Identifier: MIT
"""Commands: what they do, and how bad ones are answered."""

import asyncio

import pytest

from simkit import CAMERA_RECORD, encoded

ERROR_STRING = b"\x12error.vandrel.com="
SERIAL_STRING = b"\x16ser_no.vandrel.com=\x00\xC1\xFF"


def done(command):
    return "done", {"command": command, "source": "input", "line": 1}


def test_a_text_is_changed_at_its_key(simulated):
    simulated.command("text", device="Lobby", key="ERROR.vandrel.com", text="hé")
    record = b"\x15ERROR.vandrel.com=h\xC3\xA9" + SERIAL_STRING
    assert simulated.camera.record == record
    assert simulated.announced.all == [("publish", ("Lobby", ["10.0.0.1"], record))]


@pytest.mark.parametrize("value, string", [
    ({"text": ""}, b"\x02k="), ({"value": "AMH/"}, b"\x05k=\x00\xC1\xFF"), ({"hex": "00c1ff"}, b"\x05k=\x00\xC1\xFF"),
    ({}, b"\x01k")])
def test_a_new_key_is_added_with_bytes_of_any_form_or_none(simulated, value, string):
    simulated.command("text", device="Lobby", key="k", **value)
    assert simulated.camera.record == CAMERA_RECORD + string


def test_a_whole_text_is_replaced(simulated):
    simulated.command("text", device="Lobby", txt=[{"key": "a", "text": "1"}, {"key": "b"}])
    assert simulated.camera.record == b"\x03a=1\x01b"


@pytest.mark.parametrize("record", [b"", b"\0", b"\xFFx", b"\x00\x00\x01", b"\x03=\x00\xFF"])
def test_a_record_may_be_of_any_bytes(simulated, record):
    simulated.command("record", device="Lobby", value=encoded(record))
    assert simulated.camera.record == record
    assert simulated.announced.all == [("publish", ("Lobby", ["10.0.0.1"], record))]


@pytest.mark.parametrize("serial", [b"", b"\0", b"\xFF\x00\x80", b"123456"])
def test_a_serial_number_may_be_of_any_bytes(simulated, serial):
    simulated.command("serial", device="Archive", hex=serial.hex())
    assert simulated.storage.serial == serial
    assert simulated.storage.record == bytes([22 + len(serial)]) + b"ser_no.snapserver.com=" + serial


def test_another_address_takes_the_place_of_all(simulated):
    simulated.command("add-address", device="Lobby", address="10.0.0.50")
    simulated.command("address", device="Lobby", address="10.0.0.9")
    assert simulated.camera.addresses == ["10.0.0.9"]
    assert simulated.announced.all[1:] == [("withdraw addresses", "Lobby", ["10.0.0.1", "10.0.0.50"]),
                                           ("publish", ("Lobby", ["10.0.0.9"], CAMERA_RECORD))]


def test_a_second_address_is_added_and_the_first_withdrawn(simulated):
    simulated.command("add-address", device="Lobby", address="10.0.0.9")
    simulated.command("remove-address", device="Lobby", address="10.0.0.1")
    assert simulated.announced.all == [
        ("publish", ("Lobby", ["10.0.0.1", "10.0.0.9"], CAMERA_RECORD)),
        ("withdraw addresses", "Lobby", ["10.0.0.1"]),
        ("publish", ("Lobby", ["10.0.0.9"], CAMERA_RECORD))]


def test_a_goodbye_is_said_and_a_silence_not(simulated):
    simulated.command("goodbye", device="Lobby")
    simulated.command("silence", device="Archive")
    assert simulated.announced.all == [("withdraw", "Lobby"), ("forget", "Archive")]
    assert simulated.announced.times_withdrawn == [1]
    assert [device.presence for device in simulated.devices] == ["gone", "silent", "alive"]


def test_without_a_device_all_are_meant_that_can_be(simulated):
    simulated.command("silence", device="Lobby")
    simulated.command("goodbye")
    simulated.command("return")
    assert simulated.announced.all[1] == ("withdraw", "Archive", "Printer")
    assert [entry[0] for entry in simulated.announced.all[2][1:]] == ["Lobby", "Archive", "Printer"]
    assert {device.presence for device in simulated.devices} == {"alive"}


def test_a_restart_is_a_goodbye_and_a_return(simulated):
    simulated.command("restart", device="Lobby", seconds=0.01)
    assert simulated.account.events() == [("goodbye", "Lobby"), ("return", "Lobby"), ("done", None)]
    assert simulated.camera.presence == "alive"


def test_a_change_is_told_with_all_that_is_known_of_the_device_since(simulated):
    simulated.command("address", device="Lobby", address="10.0.0.9")
    state = {"device": "Lobby", "kind": "camera", "presence": "alive", "type": "_http._tcp", "host": "lobby",
             "port": 80, "addresses": ["10.0.0.9"], "mask": "255.255.255.0", "dns": [], "serial": "00c1ff",
             "txt": [{"key": "error.vandrel.com", "text": ""}, {"key": "ser_no.vandrel.com", "value": "AMH/"}]}
    assert simulated.account.all == [("address", {"device": "Lobby", "cause": "command", "state": state}),
                                     done("address")]


def test_the_state_is_told_of_all_devices_or_of_one(simulated):
    simulated.command("goodbye", device="Archive")
    simulated.command("state")
    simulated.command("state", device="Printer")
    told = [members["devices"] for event, members in simulated.account.all if event == "state"]
    assert told == [[device.account() for device in simulated.devices], [simulated.printer.account()]]


def test_the_end_is_asked_for(simulated):
    simulated.command("quit")
    assert (simulated.quits, simulated.account.all) == ([True], [done("quit")])


def test_a_wait_takes_as_long_as_it_says(simulated):
    async def handled_after():
        loop = asyncio.get_running_loop()
        begin = loop.time()
        await simulated.commands.handle('{"wait": 0.3}', "input", 1)
        return loop.time() - begin

    assert 0.29 < asyncio.run(handled_after()) < 1
    assert simulated.account.all == [done("wait")]


@pytest.mark.parametrize("line, message", [
    ("", "not a JSON object in UTF-8: Expecting value: line 1 column 1 (char 0)"),
    (b"\xFF{}", "not a JSON object in UTF-8: 'utf-8' codec can't decode byte 0xff in position 0: invalid start byte"),
    ("[" * 100000, "not a JSON object in UTF-8: maximum recursion depth exceeded while decoding a JSON array from a "
                   "unicode string"),
    ("7", 'not a JSON object such as {"command": "state"}'),
    ('{"command": "text", "device": "\\ud800"}', "not a JSON object in UTF-8: it has half a surrogate pair"),
    ("{}", "no such command; there are text, record, serial, address, add-address, remove-address, goodbye, silence, "
           "return, restart, churn, state, quit, wait"),
    ('{"command": "state", "device": "Attic"}', "there is no device 'Attic'"),
    ('{"command": "text"}', "'device' is missing, or is not text"),
    ('{"command": "text", "device": "Lobby"}', "'key' is missing, or is not text"),
    ('{"command": "text", "device": "Lobby", "key": "a=b"}', 'a key is not empty, and without "="'),
    ('{"command": "text", "device": "Lobby", "key": ""}', 'a key is not empty, and without "="'),
    ('{"command": "text", "device": "Lobby", "txt": 1}', "txt is a list of objects"),
    ('{"command": "record", "device": "Lobby"}', 'give one of "value" (Base64), "hex" and "text"'),
    ('{"command": "record", "device": "Lobby", "hex": "0", "text": ""}',
     'give one of "value" (Base64), "hex" and "text"'),
    ('{"command": "record", "device": "Lobby", "hex": "0"}', "'0' is not hexadecimal"),
    ('{"command": "record", "device": "Lobby", "value": "a"}', "'a' is not base64"),
    ('{"command": "serial", "device": "Printer", "hex": ""}',
     "'Printer' has no serial number, as it is no camera and no storage server"),
    ('{"command": "address", "device": "Lobby"}', "'None' is not an IPv4 address"),
    ('{"command": "address", "device": "Lobby", "address": 7}', "'7' is not an IPv4 address"),
    ('{"command": "address", "device": "Lobby", "address": "10.0.0.256"}', "'10.0.0.256' is not an IPv4 address"),
    ('{"command": "address", "device": "Lobby", "address": "10.0.0.2"}',
     "the address 10.0.0.2 belongs to 'Archive' already"),
    ('{"command": "add-address", "device": "Lobby", "address": "10.0.0.1"}',
     "the address 10.0.0.1 belongs to 'Lobby' already"),
    ('{"command": "remove-address", "device": "Lobby", "address": "10.0.0.2"}',
     "'Lobby' has not the address 10.0.0.2"),
    ('{"command": "return", "device": "Lobby"}', "'Lobby' is alive; it need not return"),
    ('{"command": "churn"}', "'rate' is a number of changes a second, from 0 to 100"),
    ('{"command": "churn", "rate": 101}', "'rate' is a number of changes a second, from 0 to 100"),
    ('{"wait": true}', "'wait' is a number of seconds, from 0 to 86400"),
    ('{"wait": -1}', "'wait' is a number of seconds, from 0 to 86400"),
    ('{"wait": NaN}', "'wait' is a number of seconds, from 0 to 86400"),
])
def test_a_bad_line_is_answered_with_an_error_and_changes_nothing(simulated, line, message):
    before = [device.account() for device in simulated.devices]
    simulated.line(line)
    assert [event for event, _ in simulated.account.all] == ["error"]
    assert simulated.account.messages() == [message]
    assert ([device.account() for device in simulated.devices], simulated.announced.all) == (before, [])


@pytest.mark.parametrize("away", ["goodbye", "silence"])
@pytest.mark.parametrize("command, members", [
    ("text", {"key": "a"}), ("record", {"hex": "00"}), ("serial", {"hex": "00"}), ("address", {"address": "10.0.0.9"}),
    ("add-address", {"address": "10.0.0.9"}), ("goodbye", {}), ("silence", {}), ("restart", {})])
def test_a_device_that_is_away_does_nothing_but_return(simulated, away, command, members):
    simulated.command(away, device="Lobby")
    before = simulated.camera.account()
    simulated.command(command, device="Lobby", **members)
    [message] = simulated.account.messages()
    assert message == f"'Lobby' is {before['presence']}; bring it back with \"return\""
    assert (simulated.camera.account(), len(simulated.announced.all)) == (before, 1)


def test_a_string_that_is_too_long_is_refused(simulated):
    simulated.command("serial", device="Lobby", value=encoded(b"x" * 237))
    assert simulated.account.messages() == ["a TXT string has at most 255 bytes, not 256"]
    assert (simulated.camera.record, simulated.camera.serial) == (CAMERA_RECORD, b"\x00\xC1\xFF")


def test_a_record_that_no_packet_holds_is_refused(simulated):
    simulated.command("record", device="Lobby", value=encoded(b"\0" * 8193))
    assert simulated.account.messages() == ["a TXT record has at most 8192 bytes, not 8193"]
    assert simulated.camera.record == CAMERA_RECORD
