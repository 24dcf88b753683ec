# SPDX-License-Identifier: MIT
"""vd-discover publish, as other hosts see what it publishes."""

import json
import re
import signal
import time

import pytest

from discover_messages import BUS, DAEMON, ENDED, HANG, READABLE_BY_ALL, WAITING, back, taken
from labkit.labs import NO_DAEMON, PLAIN, TWO_DAEMONS
from labkit.paths import VD_DISCOVER
from labkit.reader import txt_of

TYPE = "_setup._tcp"
NAME = "Küche – Dock. 1"
ORDINARY = ("--type", TYPE, "--zeph", "0x0100ff", "--ip", "10.77.0.99", "--mask", "255.255.255.128")
PASSWORD = "Grüße = 1 2"
TXT = [
    b"ZEPH.vandrel.com=\x01\x00\xff",
    b"USER.vandrel.com=admin",
    b"PWD.vandrel.com=R3LDvMOfZSA9IDEgMg==",
    b"NEWIP.vandrel.com=\x0a\x4d\x00\x63",
    b"MASK.vandrel.com=\xff\xff\xff\x80",
    b"SAVE.vandrel.com=T",
]
NAME_SERVERS = [b"DNS1.vandrel.com=\x0a\x00\x00\x01", b"DNS2.vandrel.com=\xc0\xa8\x00\xfe"]
BARE_TXT = [
    b"ZEPH.vandrel.com=\x01\x00\xff",
    b"USER.vandrel.com=",
    b"PWD.vandrel.com=",
    b"NEWIP.vandrel.com=\x0a\x4d\x00\x63",
    b"MASK.vandrel.com=\xff\xff\xff\x80",
    b"SAVE.vandrel.com=F",
]

WARNING = READABLE_BY_ALL + b"\n"
REMAINS = (b"vd-discover: the Avahi daemon did not confirm the withdrawal, so the record may still be readable; "
           b'restart it with "sudo systemctl restart avahi-daemon"\n')
LOST = ENDED + WAITING + b"\n"
BACK = back(b"publishing") + b"\n"

# Far more than what is told takes, and less than the 25 s after which D-Bus itself gives up.
SOON_S = 10

signals = pytest.mark.parametrize("number", [signal.SIGINT, signal.SIGTERM])


def with_password(lab):
    path = lab.folder / "password"
    path.write_text(PASSWORD + "\n", encoding="utf-8")
    return ["--user", "admin", "--password-file", path]


def publish(stage, lab, *options, host="viewer"):
    return stage.discover(lab, "publish", NAME, *ORDINARY, *options, host=host)


def published(stage, *options, lab_options=PLAIN):
    """A lab, a run that has published, and a reader on another host that has seen the service."""
    lab = stage.lab(lab_options)
    reader = stage.reader(lab, TYPE)
    running = publish(stage, lab, "--format", "json", *options)
    assert words(running.wait_for_output(1)) == ["established"]
    assert reader.wait_for("found", NAME)
    return lab, running, reader


def words(lines):
    return [json.loads(line)["event"] for line in lines]


def strings_shown(text):
    """The strings of a TXT record as avahi-browse shows it: each in quotes, with bytes as three decimal digits."""
    return sorted(re.findall(r'"([^"]*)"', text))


def test_another_host_reads_the_very_bytes(stage):
    lab = stage.lab()
    reader = stage.reader(lab, TYPE)
    publish(stage, lab, *with_password(lab), "--kind", "camera", "--save")
    found = reader.wait_for("found", NAME)
    assert sorted(txt_of(found)) == sorted(TXT)
    assert (found["host"], found["port"], found["addresses"]) == ("viewer.local.", 80, ["10.77.0.1"])


def test_a_storage_server_is_told_of_its_name_servers(stage):
    lab = stage.lab()
    reader = stage.reader(lab, TYPE)
    publish(stage, lab, *with_password(lab), "--kind", "snap", "--save", "--dns", "10.0.0.1", "--dns", "192.168.0.254")
    assert sorted(txt_of(reader.wait_for("found", NAME))) == sorted(NAME_SERVERS + TXT)


def test_what_is_left_out_is_published_empty(stage):
    lab = stage.lab()
    reader = stage.reader(lab, TYPE)
    publish(stage, lab)
    assert sorted(txt_of(reader.wait_for("found", NAME))) == sorted(BARE_TXT)


def test_addresses_that_are_left_out_are_published_as_zeros(stage):
    lab = stage.lab()
    reader = stage.reader(lab, TYPE)
    running = stage.discover(lab, "publish", NAME, "--type", TYPE, "--dns", "10.0.0.1")
    zeros = [re.sub(rb"^((ZEPH|NEWIP|MASK)\.[^=]*=)(.*)", lambda found: found[1] + bytes(len(found[3])), string,
                    flags=re.DOTALL) for string in BARE_TXT]
    assert sorted(txt_of(reader.wait_for("found", NAME))) == sorted(zeros)
    assert running.wait_for_errors(3)[1:] == [
        b"vd-discover: warning: without --zeph the record is meant for the device with the number 0; without --ip the "
        b"record tells the device to take 0.0.0.0; without --mask the record tells the device to take the net mask "
        b"0.0.0.0\n",
        b"vd-discover: warning: no device but Snap Server storage is told of name servers, so without --kind snap the "
        b"record holds none\n"]


def test_avahi_browse_on_another_host_reads_the_same_strings(stage):
    lab = stage.lab(TWO_DAEMONS)
    running = publish(stage, lab, *with_password(lab), "--save")
    running.wait_for_output(1)
    shown = lab.run("other", "avahi-browse", "-rpt", TYPE)
    [line] = [line for line in shown.splitlines() if line.startswith("=;lan0;IPv4;")]
    fields = line.split(";", 9)
    assert fields[4:9] == [TYPE, "local", "viewer.local", "10.77.0.1", "80"]
    assert strings_shown(fields[9]) == sorted([
        r"ZEPH.vandrel.com=\001\000\255", "USER.vandrel.com=admin", "PWD.vandrel.com=R3LDvMOfZSA9IDEgMg==",
        r"NEWIP.vandrel.com=\010M\000c", r"MASK.vandrel.com=\255\255\255\128", "SAVE.vandrel.com=T"])


def test_lines_for_people_tell_what_is_published_and_that_it_is_withdrawn(stage):
    lab = stage.lab()
    running = publish(stage, lab, "--save")
    running.wait_for_output(1)
    status, output, errors, _ = running.interrupt(signal.SIGINT)
    lines = [re.sub(r"^\d\d:\d\d:\d\d  ", "TIME  ", line) for line in output.decode().splitlines()]
    assert lines == [
        f"TIME  published  {NAME} ({TYPE})  zeph 0x0100ff: 10.77.0.99/25, saved",
        f"TIME  withdrawn  {NAME} ({TYPE})",
    ]
    assert (status, errors) == (0, WARNING)


@signals
def test_a_signal_withdraws_the_service_so_that_others_see_it_go(stage, number):
    _, running, reader = published(stage)
    status, output, errors, seconds = running.interrupt(number)
    assert (status, words(output.splitlines()), errors) == (0, ["established", "withdrawn"], WARNING)
    assert seconds < SOON_S
    # Without the goodbye the record would stay for more than an hour.
    assert reader.wait_for("lost", NAME)


def test_json_names_the_service_and_nothing_that_is_secret(stage):
    lab = stage.lab()
    running = publish(stage, lab, *with_password(lab), "--format", "json", "--timeout", "3")
    status, output, _, _ = running.wait()
    lines = [json.loads(line) for line in output.splitlines()]
    assert status == 0
    assert [list(line) for line in lines] == 2 * [["event", "time", "service"]]
    assert [line["service"] for line in lines] == 2 * [{"serviceName": NAME, "serviceType": TYPE}]
    assert all(re.fullmatch(r"\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}Z", line["time"]) for line in lines)


def test_the_timeout_withdraws_the_service(stage):
    _, running, reader = published(stage, "--timeout", "6")
    status, output, errors, seconds = running.wait()
    assert (status, words(output.splitlines()), errors) == (0, ["established", "withdrawn"], WARNING)
    # A timer of Qt may be early by a twentieth.
    assert 5.7 < seconds < 6 + SOON_S
    assert reader.wait_for("lost", NAME)


def test_the_log_never_holds_the_password(stage):
    lab = stage.lab()
    running = publish(stage, lab, *with_password(lab), "--verbose", "--timeout", "3")
    status, output, errors, _ = running.wait()
    assert status == 0
    assert f"RegisterService() -> registering service {NAME} type: {TYPE}\n".encode() in errors
    assert errors.endswith(b"AvahiServiceDiscovery::TerminateBrowsing\n")
    for secret in (PASSWORD.encode(), b"R3LDvMOfZSA9IDEgMg"):
        assert secret not in output + errors


@pytest.mark.parametrize("host, lab_options", [("other", TWO_DAEMONS), ("viewer", PLAIN)],
                         ids=["two hosts", "one host"])
def test_a_name_that_another_service_has_is_told(stage, host, lab_options):
    lab = stage.lab(lab_options)
    first = publish(stage, lab, "--format", "json", host=host)
    assert words(first.wait_for_output(1)) == ["established"]
    second = publish(stage, lab, "--format", "json", "--save")
    status, output, errors, seconds = second.wait()
    assert (status, words(output.splitlines()), errors) == (1, ["collision"], WARNING + taken(NAME) + b"\n")
    assert seconds < SOON_S
    assert words(first.output.all) == ["established"]


@pytest.mark.parametrize("kill, returns", [("daemon-kill", ["daemon-start"]),
                                           ("dbus-kill", ["dbus-start", "daemon-start"])], ids=["daemon", "bus"])
def test_the_service_is_published_again_after_the_daemon_or_the_bus_died(stage, kill, returns):
    lab, running, reader = published(stage)
    lab.fault("viewer", kill)
    assert running.wait_for_errors(2) == [WARNING, LOST]
    for step in returns:
        lab.fault("viewer", step)
    assert words(running.wait_for_output(3)) == ["established", "lost", "established"]
    status, output, errors, _ = running.interrupt(signal.SIGINT)
    assert (status, words(output.splitlines())) == (0, ["established", "lost", "established", "withdrawn"])
    told = errors.splitlines(keepends=True)
    assert (told[1], told[-1]) == (LOST, BACK)
    # While a bus dies and comes back, what is missing at the moment may be told too, each once.
    assert set(told[2:-1]) <= {DAEMON + WAITING + b"\n", BUS + WAITING + b"\n"} and len(set(told)) == len(told)
    assert reader.wait_for("lost", NAME)


def test_the_service_leads_to_the_new_name_of_a_host_that_is_renamed(stage):
    lab, running, _ = published(stage)
    lab.run("viewer", "avahi-set-host-name", "renamed")
    assert words(running.wait_for_output(3)) == ["established", "withdrawn", "established"]
    # A reader that remembers nothing from before.
    assert stage.reader(lab, TYPE).wait_for("found", NAME)["host"] == "renamed.local."


@signals
def test_a_signal_is_obeyed_though_the_daemon_hangs(stage, number):
    lab, running, reader = published(stage)
    lab.fault("viewer", "daemon-hang")
    begin = time.monotonic()
    status, output, errors, _ = running.interrupt(number)
    assert time.monotonic() - begin < SOON_S
    assert (status, words(output.splitlines()), errors) == (0, ["established"], WARNING + HANG + b"\n" + REMAINS)
    # The daemon sees that its client is gone once it goes on.
    lab.fault("viewer", "daemon-continue")
    assert reader.wait_for("lost", NAME)


def test_a_missing_daemon_is_told_with_the_remedy_and_soon(stage):
    lab = stage.lab(NO_DAEMON)
    status, output, errors, seconds = publish(stage, lab).wait()
    assert (status, output, errors) == (3, b"", WARNING + DAEMON + b"\n")
    assert seconds < SOON_S


def test_a_daemon_that_hangs_is_told_with_the_remedy_and_soon(stage):
    lab = stage.lab()
    lab.fault("viewer", "daemon-hang")
    status, output, errors, seconds = publish(stage, lab).wait()
    assert (status, output, errors) == (3, b"", WARNING + HANG + b"\n")
    assert seconds < SOON_S


def test_a_reader_of_the_output_that_goes_away_ends_the_publication(stage):
    lab = stage.lab()
    reader = stage.reader(lab, TYPE)
    command = f"'{VD_DISCOVER}' publish Dock {' '.join(ORDINARY)} | head -n 1"
    shell = lab.start("viewer", "sh", "-c", command)
    assert b"published  Dock" in shell.communicate(timeout=15)[0]
    assert reader.wait_for("lost", "Dock")
