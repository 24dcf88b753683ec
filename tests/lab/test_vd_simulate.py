# SPDX-License-Identifier: MIT
"""vd-simulate, as other hosts of the network see it."""

import base64
import json
import signal
import struct
import subprocess
import time

import pytest

from labkit.discover import events
from labkit.labs import NO_DAEMON, TWO_SEGMENTS, WITH_DESK
from labkit.lines import Lines, wait_until
from labkit.paths import SIMULATE
from labkit.records import Device
from labkit.simulator import as_discovered, discovered

OBEYED_TYPE = "_reconfig._tcp"

# Prints the time at which every service is there with its host, text and address, and at the end how many are.
COUNT_SERVICES = """
import os, sys, time
from zeroconf import IPVersion, ServiceBrowser, ServiceStateChange, Zeroconf
from zeroconf.const import _CLASS_IN, _TYPE_A, _TYPE_SRV, _TYPE_TXT

wanted, deadline, names = int(sys.argv[1]), time.time() + float(sys.argv[2]), set()
link = Zeroconf(interfaces=[sys.argv[3]], ip_version=IPVersion.V4Only)

def change(zeroconf, service_type, name, state_change):
    {ServiceStateChange.Added: names.add, ServiceStateChange.Removed: names.discard}.get(state_change, id)(name)

def is_complete(name):
    service = link.cache.get_by_details(name, _TYPE_SRV, _CLASS_IN)
    return (service and link.cache.get_by_details(name, _TYPE_TXT, _CLASS_IN)
            and link.cache.get_by_details(service.server, _TYPE_A, _CLASS_IN))

browser = ServiceBrowser(link, ["_http._tcp.local.", "_https._tcp.local."], handlers=[change])
print("ready", flush=True)
while time.time() < deadline and not (len(names) >= wanted and all(map(is_complete, list(names)))):
    time.sleep(0.01)
print(time.time(), sum(map(bool, map(is_complete, list(names)))), flush=True)
os._exit(0)
"""

# Asks the network, and not what is remembered from before, for a service.
RESOLVE = """
import os, sys
from zeroconf import IPVersion, Zeroconf
link = Zeroconf(interfaces=[sys.argv[3]], ip_version=IPVersion.V4Only)
info = link.get_service_info(sys.argv[1] + ".local.", sys.argv[2] + "." + sys.argv[1] + ".local.", 1500)
print(info.parsed_addresses() if info else None, flush=True)
os._exit(0)
"""

# Prints each address record that is said: address, remaining time, whether it is to be the only one.
HEAR_ADDRESSES = """
import socket, sys
from zeroconf import DNSAddress, DNSIncoming
with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as listener:
    listener.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
    listener.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEPORT, 1)
    listener.setsockopt(socket.IPPROTO_IP, socket.IP_ADD_MEMBERSHIP,
                        socket.inet_aton("224.0.0.251") + socket.inet_aton(sys.argv[1]))
    listener.bind(("", 5353))
    print("ready", flush=True)
    while True:
        for record in DNSIncoming(listener.recv(9000)).answers:
            if isinstance(record, DNSAddress) and len(record.address) == 4:
                print(socket.inet_ntoa(record.address), record.ttl, record.unique, flush=True)
"""

# Asks all for the services of a type each time it is told to.
ASK = """
import sys
from zeroconf import DNSOutgoing, DNSQuestion, IPVersion, Zeroconf
from zeroconf.const import _CLASS_IN, _FLAGS_QR_QUERY, _TYPE_PTR
link = Zeroconf(interfaces=[sys.argv[2]], ip_version=IPVersion.V4Only)
print("ready", flush=True)
for _ in sys.stdin:
    query = DNSOutgoing(_FLAGS_QR_QUERY)
    query.add_question(DNSQuestion(sys.argv[1] + ".local.", _TYPE_PTR, _CLASS_IN))
    link.send(query)
"""


def discover(stage, lab, *options):
    _, output, errors, _ = stage.discover(lab, "--format", "json", "--timeout", "3", *options).wait()
    assert errors == b""
    return [service for _, service in events(output)]


def follow(stage, lab):
    follower = stage.discover(lab, "--follow", "--long-lived", "--format", "json", "--verbose")
    assert follower.errors.wait_for(lambda lines: any(line.endswith(b"-> all for now\n") for line in lines))
    return follower


def what_followed(follower, count, begin=0):
    """The events after the first ones, when so many of them have come."""
    lines = follower.wait_for_output(begin + count)
    return [(event, service["serviceName"], service["addresses"], service["addressRemoved"])
            for event, service in events(lines[begin:])]


def lost_names(follower, count):
    def lost(lines):
        names = [service["serviceName"] for event, service in events(lines) if event == "lost"]
        return names if len(names) >= count else None
    return follower.output.wait_for(lost)


def resolve(lab, device, link="10.77.0.1"):
    # It has a cache of its own, in which nothing stands yet.
    return lab.run("viewer", "/usr/bin/python3", "-c", RESOLVE, device["type"], device["device"], link).strip()


def test_discovery_reports_every_camera_and_storage_server_as_the_account_has_it_and_nothing_else(stage):
    lab = stage.lab()
    simulator = stage.simulator(lab, "--cameras", "12", "--storage", "6", "--other", "5")
    expected = [as_discovered(device) for device in simulator.state().values()]
    found = discovered(discover(stage, lab))
    assert found == {record["serviceName"]: record for record in expected if record}
    assert len(found) == 18


def test_another_browser_sees_every_service_with_its_host_address_port_and_number_of_texts(stage):
    lab = stage.lab()
    simulator = stage.simulator(lab, "--cameras", "3", "--storage", "3", "--other", "3")
    lines = "".join(lab.run("viewer", "avahi-browse", "-rptk", service_type)
                    for service_type in ("_http._tcp", "_https._tcp")).splitlines()
    seen = [line.split(";", 9) for line in lines if line.startswith("=;")]
    expected = [(device["type"], f"{device['host']}.local", device["addresses"][0], str(device["port"]),
                 len([entry for entry in device["txt"] if entry != {"raw": ""}]))
                for device in simulator.state().values()]
    assert sorted((service_type, host, address, port, text.count('" "') + bool(text))
                  for _, _, _, _, service_type, _, host, address, port, text in seen) == sorted(expected)


def test_a_thousand_devices_are_there_within_two_seconds_and_leave_nothing_behind(stage):
    lab = stage.lab()
    counter = lab.start("viewer", "/usr/bin/python3", "-c", COUNT_SERVICES, "1000", "8", "10.77.0.1", text=True)
    assert counter.stdout.readline() == "ready\n"
    begin = time.time()
    simulator = stage.simulator(lab, "--cameras", "600", "--storage", "300", "--other", "100",
                                "--addresses", "10.99.0.0/16")
    seen_at, count = counter.stdout.readline().split()
    assert (count, float(seen_at) - begin < 2) == ("1000", True), float(seen_at) - begin
    assert len(simulator.names()) == 1000

    # A daemon that lost some of the first announcements hears them again.
    assert wait_until(lambda: browsed(lab) == 1000), browsed(lab)
    simulator.send_signal(signal.SIGTERM)
    assert simulator.wait() == (0, b"")
    assert wait_until(lambda: browsed(lab) == 0), browsed(lab)


def browsed(lab):
    """How many web services the viewer's daemon knows of."""
    lines = [line for service_type in ("_http._tcp", "_https._tcp")
             for line in lab.run("viewer", "avahi-browse", "-ptk", service_type).splitlines()]
    return sum(line.startswith("+;") for line in lines)


def play_commands(stage):
    """What each command to one camera brings about on another host: the events by the step's name."""
    lab = stage.lab()
    simulator = stage.simulator(lab, "--cameras", "1")
    follower = follow(stage, lab)
    [name] = simulator.names()
    steps = {"start": what_followed(follower, 1)}

    def step(title, count, command, **fields):
        before = len(follower.output.all)
        simulator.tell(command, device=name, **fields)
        follower.wait_for_output(before + count)
        time.sleep(1.5)
        steps[title] = what_followed(follower, count, before)
        steps[title, "service"] = [service for _, service in events(follower.output.all[before:])]

    step("text", 1, "text", key="error.vandrel.com", text="häter ⚠ \x1b[2J")
    step("add", 1, "add-address", address="10.77.0.200")
    step("remove", 1, "remove-address", address="10.77.0.100")
    step("change", 2, "address", address="10.77.0.201")
    step("goodbye", 1, "goodbye")
    step("return", 1, "return")
    step("silence", 0, "silence")
    steps["resolved while silent"] = resolve(lab, simulator.state()[name])
    step("return from silence", 0, "return")
    steps["resolved after silence"] = resolve(lab, simulator.state()[name])
    step("restart", 2, "restart")
    return name, steps


commands = pytest.mark.story.with_args(play_commands)


@commands
def test_a_changed_text_is_seen_by_who_follows(story):
    name, steps = story
    assert steps["text"] == [("text", name, ["10.77.0.100"], False)]
    assert steps["text", "service"][0]["errorText"] == "häter ⚠ \x1b[2J"


@commands
def test_a_second_address_is_seen_by_who_follows(story):
    name, steps = story
    assert steps["add"] == [("address", name, ["10.77.0.100", "10.77.0.200"], False)]


@commands
def test_an_address_that_is_removed_is_seen_by_who_follows(story):
    name, steps = story
    assert ("address", name, ["10.77.0.100"], True) in steps["remove"]


@commands
def test_a_changed_address_is_seen_as_one_that_comes_and_one_that_goes(story):
    name, steps = story
    news = [(addresses[-1], removed) for _, _, addresses, removed in steps["change"]]
    assert [("10.77.0.201", False) in news, ("10.77.0.200", True) in news] == [True, True], steps["change"]


@commands
def test_a_goodbye_is_seen_as_a_loss_and_a_return_as_a_find(story):
    name, steps = story
    assert [event for event, *_ in steps["goodbye"]] == ["lost"]
    assert steps["return"] == [("found", name, ["10.77.0.201"], False)]


@commands
def test_a_silence_is_not_seen_but_nobody_answers_any_more(story):
    _, steps = story
    assert (steps["silence"], steps["resolved while silent"]) == ([], "None")
    assert steps["resolved after silence"] == "['10.77.0.201']"


@commands
def test_a_restart_is_seen_as_a_loss_and_a_find(story):
    _, steps = story
    assert [event for event, *_ in steps["restart"]] == ["lost", "found"]


def test_a_given_up_address_is_bidden_farewell_and_the_new_one_announced_twice(stage):
    lab = stage.lab(NO_DAEMON)
    simulator = stage.simulator(lab, "--cameras", "1")
    time.sleep(1.5)
    heard = Lines(lab.start("viewer", "/usr/bin/python3", "-c", HEAR_ADDRESSES, "10.77.0.1").stdout)
    assert heard.wait_for(lambda lines: lines == [b"ready\n"])
    simulator.tell("address", device=simulator.names()[0], address="10.77.0.201")
    time.sleep(1.5)
    simulator.tell("goodbye")
    heard.wait_for(lambda lines: len(lines) == 5)
    assert heard.all[1:] == [b"10.77.0.100 0 False\n", b"10.77.0.201 120 True\n", b"10.77.0.201 120 True\n",
                             b"10.77.0.201 0 True\n"]


def test_an_answer_that_waits_for_its_time_is_not_given_after_the_goodbye(stage):
    lab = stage.lab()
    simulator = stage.simulator(lab, "--cameras", "1")
    [device] = simulator.state().values()
    asker = lab.start("viewer", "/usr/bin/python3", "-c", ASK, device["type"], "10.77.0.1")
    assert asker.stdout.readline() == b"ready\n"
    # What was said within the last second is answered a second later.
    simulator.tell("text", device=device["device"], key="error.vandrel.com", text="hot")
    asker.stdin.write(b"\n")
    asker.stdin.flush()
    time.sleep(0.3)
    simulator.tell("goodbye")
    time.sleep(3)
    assert browsed(lab) == 0


@pytest.mark.parametrize("serial, number", [("", 0), ("ff", 0xFF0000), ("00c1", 0x00C100), ("ff00ff00", 0xFF00FF)])
def test_a_serial_number_of_any_bytes_is_read_by_discovery(stage, serial, number):
    lab = stage.lab()
    simulator = stage.simulator(lab, "--cameras", "1", "--storage", "1")
    for name in simulator.names():
        simulator.tell("serial", device=name, hex=serial)
    assert [service["serialNumber"] for service in discover(stage, lab)] == [number, number]


@pytest.mark.parametrize("record, is_reported", [
    (b"", False), (b"\0", False), (b"\x12ser_no.vandrel.com", True), (b"\x00\x13ser_no.vandrel.com=", True),
    (b"\x03=xy\x16ser_no.vandrel.com=\x01\x02\x03", True), (b"\x40ser_no.vandrel.com=\x01\x02\x03", False)])
def test_malformed_texts_reach_discovery_as_they_are(stage, record, is_reported):
    lab = stage.lab()
    simulator = stage.simulator(lab, "--cameras", "2")
    malformed, sound = simulator.names()
    simulator.tell("record", device=malformed, value=base64.b64encode(record).decode())
    found = {service["serviceName"] for service in discover(stage, lab)}
    assert found == {sound, malformed} if is_reported else {sound}


def test_the_account_is_what_discovery_sees_after_much_has_changed(stage):
    lab = stage.lab()
    simulator = stage.simulator(lab, "--cameras", "18", "--storage", "8", "--other", "4", "--churn", "6")
    time.sleep(20)
    simulator.tell("churn", rate=0)
    # What is withdrawn is believed for another second.
    time.sleep(2.5)
    state = simulator.state()
    changes = [line for line in simulator.said.all if line.get("cause") == "churn"]
    assert 100 <= len(changes) <= 125 and len({line["event"] for line in changes}) == 9

    # Who went silently is still believed to be there, and a text with wrong lengths is read by nobody.
    unreadable = {name for name, device in state.items() if "record" in device}
    assert len(unreadable) < 10
    believed = [as_discovered(device) for name, device in state.items()
                if device["presence"] != "gone" and name not in unreadable]
    found = discovered(service for service in discover(stage, lab) if service["serviceName"] not in unreadable)
    assert found == {record["serviceName"]: record for record in believed if record}


@pytest.mark.parametrize("number", [signal.SIGINT, signal.SIGTERM, signal.SIGHUP])
def test_a_signal_ends_it_with_a_goodbye_for_every_device(stage, number):
    lab = stage.lab()
    simulator = stage.simulator(lab, "--cameras", "3", "--other", "1")
    follower = follow(stage, lab)
    follower.wait_for_output(3)
    simulator.send_signal(number)
    # Impatience does not spare it the goodbyes.
    simulator.send_signal(number)
    assert simulator.wait() == (0, b"")
    assert set(lost_names(follower, 3)) >= set(simulator.names()[:3])
    assert [line["device"] for line in simulator.wait_for_event("goodbye", 4)] == simulator.names()


def test_it_ends_as_told_and_says_goodbye(stage):
    lab = stage.lab()
    simulator = stage.simulator(lab, "--cameras", "2")
    follower = follow(stage, lab)
    follower.wait_for_output(2)
    simulator.tell("quit")
    assert simulator.wait() == (0, b"")
    assert sorted(lost_names(follower, 2)) == sorted(simulator.names())


def test_it_says_goodbye_when_nobody_reads_its_account_any_more(stage):
    lab = stage.lab()
    simulator = subprocess_reading_one_line(lab)
    follower = follow(stage, lab)
    follower.wait_for_output(2)
    simulator.stdout.close()
    assert len(lost_names(follower, 2)) == 2
    assert simulator.wait(15) == 1
    assert simulator.stderr.read() == (b"vd-simulate: nobody reads the standard output any more; "
                                       b"every device has said goodbye\n")


def subprocess_reading_one_line(lab):
    simulator = lab.start("fleet", SIMULATE, "--cameras", "2", "--addresses", "10.77.0.100/24")
    assert json.loads(simulator.stdout.readline())["event"] == "published"
    return simulator


@pytest.mark.parametrize("stdin", [subprocess.DEVNULL, subprocess.PIPE], ids=["no input", "input that ends"])
def test_the_end_of_its_input_is_not_its_end(stage, stdin):
    lab = stage.lab()
    simulator = stage.simulator(lab, "--cameras", "1", stdin=stdin)
    if stdin == subprocess.PIPE:
        simulator.end_input()
    time.sleep(1)
    assert [service["serviceName"] for service in discover(stage, lab)] == simulator.names()


def test_a_script_is_carried_out_line_by_line_and_a_bad_line_does_not_end_it(stage):
    lab = stage.lab()
    script = lab.folder.parent / f"{lab.folder.name}.script"
    script.write_bytes(b'{"wait": 0.5}\n\n{"command": "goodbye"}\n\xFF\n{"command": "return"}\n{"command": "quit"}')
    try:
        simulator = stage.simulator(lab, "--cameras", "1", "--script", script)
        assert simulator.wait() == (0, b"")
    finally:
        script.unlink()
    lines = [(line["event"], line.get("command"), line.get("line")) for line in simulator.said.all[1:]]
    assert lines == [
        ("ready", None, None), ("done", "wait", 1), ("goodbye", None, None), ("done", "goodbye", 3),
        ("error", None, 4), ("return", None, None), ("done", "return", 5), ("done", "quit", 6),
        ("goodbye", None, None)]


@pytest.mark.parametrize("interface", ["lan1", "10.78.0.2"])
def test_outside_a_lab_it_appears_only_on_the_interface_that_is_named(stage, interface):
    lab = stage.lab(TWO_SEGMENTS)
    simulator = stage.simulator(lab, "--cameras", "2", "--interface", interface, before=("env", "-u", "VD_LAB_HOST"))
    services = discover(stage, lab)
    assert sorted(service["serviceName"] for service in services) == sorted(simulator.names())
    assert {service["interfaceIndex"] for service in services} == {lab.interface_indexes["lan1"]}


def test_in_a_lab_it_appears_on_every_interface(stage):
    lab = stage.lab(TWO_SEGMENTS)
    simulator = stage.simulator(lab, "--cameras", "1")
    assert simulator.wait_for_event("ready")[0]["interfaces"] == ["lan0", "lan1"]
    for link, name in (("10.77.0.1", "lan0"), ("10.78.0.1", "lan1")):
        [device] = simulator.state().values()
        assert resolve(lab, device, link) == "['10.77.0.100']", name


# Says that hostile names are services of a type, and gives their texts.
BABBLE = """
import socket, struct, sys

def labels(*parts):
    return b"".join(bytes([len(part)]) + part for part in parts) + bytes(1)

def record(name, number, data):
    return name + struct.pack("!HHIH", number, 1, 120, len(data)) + data

service_type = (*map(str.encode, sys.argv[1].split(".")), b"local")
names = [labels(b"x", b"_other", b"_udp", b"local"), labels(bytes(20), *service_type), labels(),
         labels(bytes([255]) * 63, *service_type), labels(b"a.b", *service_type), labels(*service_type)]
records = [record(labels(*service_type), 12, name) for name in names]
records += [record(name, 16, text) for name in names for text in (b"", bytes(3), bytes([255]), bytes([255]) * 40)]
with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as sender:
    sender.setsockopt(socket.IPPROTO_IP, socket.IP_MULTICAST_IF, socket.inet_aton(sys.argv[2]))
    sender.bind((sys.argv[2], 5353))
    for each in records:
        sender.sendto(struct.pack("!6H", 0, 0x8400, 0, 1, 0, 0) + each, ("224.0.0.251", 5353))
"""


def reconfiguration(serial, user=b"admin", password=b"simulated", address=(10, 77, 0, 210), save=b"T"):
    """A record as a publisher writes it."""
    values = [(b"DNS1", struct.pack("4B", 10, 77, 0, 53)), (b"ZEPH", serial), (b"USER", user),
              (b"PWD", base64.b64encode(password)), (b"NEWIP", struct.pack("4B", *address)),
              (b"MASK", struct.pack("4B", 255, 255, 255, 0)), (b"SAVE", save)]
    return Device("Move. It", "desk", ["10.77.0.3"], [key + b".vandrel.com=" + value for key, value in values],
                  OBEYED_TYPE)


def play_obedience(stage):
    """A record that another host publishes moves a storage server, and later texts of it are taken or refused."""
    lab = stage.lab(WITH_DESK)
    simulator = stage.simulator(lab, "--cameras", "1", "--storage", "1", "--obey", OBEYED_TYPE)
    follower = follow(stage, lab)
    follower.wait_for_output(2)
    camera, storage = simulator.state().values()
    serial = bytes.fromhex(storage["serial"])

    publisher = stage.publisher(lab, host="desk")
    publisher.publish(reconfiguration(serial))
    obeyed = simulator.wait_for_event("obeyed")
    moved = what_followed(follower, 2, 2)
    publisher.set_txt("Move. It", reconfiguration(serial, user=b"\x1b[2J").txt)
    refused = simulator.wait_for_event("refused")
    publisher.set_txt("Move. It", reconfiguration(serial, address=(10, 77, 0, 211), save=b"F").txt)
    obeyed = simulator.wait_for_event("obeyed", 2)
    resolved = resolve(lab, storage)
    simulator.tell("restart", device=storage["device"])
    after_restart = resolve(lab, storage)
    return camera, storage, obeyed, moved, refused, resolved, after_restart


obedience = pytest.mark.story.with_args(play_obedience)


@obedience
def test_a_published_record_moves_the_device_with_its_serial_number(story):
    _, storage, obeyed, *_ = story
    state = {**storage, "addresses": ["10.77.0.210"], "dns": ["10.77.0.53"]}
    first = obeyed[0]
    assert (first["device"], first["record"], first["save"], first["state"]) == (
        storage["device"], "Move. It", True, state)


@obedience
def test_the_move_is_seen_by_who_follows_as_an_address_that_comes_and_one_that_goes(story):
    _, storage, _, moved, *_ = story
    former = storage["addresses"][0]
    # As often as there are address queries open the end is told; the first time counts.
    assert moved[:2] == [("address", storage["device"], [former, "10.77.0.210"], False),
                         ("address", storage["device"], [former], True)]


@obedience
def test_a_changed_record_with_another_user_is_refused(story):
    _, storage, _, _, refused, *_ = story
    assert [(line["device"], line["reason"]) for line in refused] == [
        (storage["device"], "wrong user '\\x1b[2J'")]


@obedience
def test_what_is_not_saved_is_gone_after_a_restart(story):
    *_, resolved, after_restart = story
    assert (resolved, after_restart) == ("['10.77.0.211']", "['10.77.0.210']")


def test_hostile_services_of_the_obeyed_type_disturb_nothing(stage):
    lab = stage.lab(WITH_DESK)
    simulator = stage.simulator(lab, "--cameras", "1", "--obey", OBEYED_TYPE)
    [device] = simulator.state().values()
    lab.run("desk", "/usr/bin/python3", "-c", BABBLE, OBEYED_TYPE, "10.77.0.3")
    publisher = stage.publisher(lab, host="desk")
    publisher.publish(reconfiguration(bytes.fromhex(device["serial"])))
    assert simulator.wait_for_event("obeyed")
    simulator.tell("quit")
    assert simulator.wait() == (0, b"")
    assert not [line for line in simulator.said.all if line["event"] == "refused"]


def test_a_device_that_was_away_takes_what_is_published_when_it_returns(stage):
    lab = stage.lab(WITH_DESK)
    simulator = stage.simulator(lab, "--cameras", "2", "--obey", OBEYED_TYPE)
    away, other = simulator.state().values()
    simulator.tell("goodbye", device=away["device"])
    publisher = stage.publisher(lab, host="desk")
    publisher.publish(reconfiguration(bytes.fromhex(away["serial"])))
    publisher.set_txt("Move. It", reconfiguration(bytes.fromhex(other["serial"]), address=(10, 77, 0, 212)).txt)
    assert [line["device"] for line in simulator.wait_for_event("obeyed")] == [other["device"]]
    publisher.set_txt("Move. It", reconfiguration(bytes.fromhex(away["serial"])).txt)
    # Until it has been said twice, for else the device could have heard it after its return.
    time.sleep(2)
    simulator.tell("return", device=away["device"])
    assert simulator.wait_for_event("obeyed", 2)[1]["state"]["addresses"] == ["10.77.0.210"]
