# SPDX-License-Identifier: MIT
"""A service of our own, as other hosts see it."""

import time

import pytest

from labkit.labs import PLAIN, TWO_DAEMONS
from labkit.probe import QUIET_S
from labkit.reader import txt_of

TYPE = "_reconf._tcp"
STORAGE_KIND = 1024
STORAGE = {"userName": "admin", "password": "s€cret", "zephValue": 0x01FF00, "newIp": "10.77.0.99",
           "netMask": "255.255.255.0", "deviceKind": STORAGE_KIND, "nameServers": ["10.0.0.1", None, "10.0.0.3"],
           "save": True}
STORAGE_TXT = [
    b"DNS1.vandrel.com=\x0a\x00\x00\x01",
    b"DNS3.vandrel.com=\x0a\x00\x00\x03",
    b"ZEPH.vandrel.com=\x01\xff\x00",
    b"USER.vandrel.com=admin",
    b"PWD.vandrel.com=c+KCrGNyZXQ=",
    b"NEWIP.vandrel.com=\x0a\x4d\x00\x63",
    b"MASK.vandrel.com=\xff\xff\xff\x00",
    b"SAVE.vandrel.com=T",
]
EMPTY_TXT = [
    b"ZEPH.vandrel.com=\x00\x00\x00",
    b"USER.vandrel.com=",
    b"PWD.vandrel.com=",
    b"NEWIP.vandrel.com=\x00\x00\x00\x00",
    b"MASK.vandrel.com=\x00\x00\x00\x00",
    b"SAVE.vandrel.com=F",
]

# Of Avahi.
BAD_STATE = -2
COLLISION_ERROR = -8
INVALID_NAME = -10
INVALID_TYPE = -11

PREFIX = "AvahiServiceDiscovery::"
STATE = PREFIX + "AvahiEntryGroupChanged() -> entry group "
ESTABLISHED = STATE + "established"
COLLISION = STATE + "collision"
RESET = PREFIX + "TerminateRegistration () -> performed entry group reset"


def registering(name):
    return f"{PREFIX}RegisterService() -> registering service {name} type: {TYPE}"


def own_log(probe):
    """The log lines about the registration, without those of browsing."""
    return [line for line in probe.take_log() if "Regist" in line or "EntryGroup" in line or "TxtRecord" in line]


def browsing(stage, options=PLAIN):
    """A lab, a probe that browses there, and a reader on another host."""
    lab = stage.lab(options)
    probe = stage.probe(lab)
    probe.browse()
    return lab, probe, stage.reader(lab, TYPE)


def published(stage, options=PLAIN, **info):
    lab, probe, reader = browsing(stage, options)
    assert probe.register("Setup", TYPE, **info) is True
    assert probe.wait_for_log(ESTABLISHED)
    return lab, probe, reader


def test_another_host_reads_the_very_bytes(stage):
    _, _, reader = published(stage, **STORAGE)
    found = reader.wait_for("found", "Setup")
    assert txt_of(found) == STORAGE_TXT
    assert (found["host"], found["port"], found["addresses"]) == ("viewer.local.", 80, ["10.77.0.1"])


def test_a_camera_gets_no_name_servers(stage):
    _, _, reader = published(stage, deviceKind=1, nameServers=["10.0.0.1", "10.0.0.2", "10.0.0.3"])
    assert txt_of(reader.wait_for("found", "Setup")) == EMPTY_TXT


def test_avahi_browse_on_another_host_reads_the_same_strings(stage):
    lab, _, _ = published(stage, TWO_DAEMONS, **STORAGE)
    seen = lab.run("other", "avahi-browse", "--resolve", "--parsable", "--terminate", TYPE)
    [line] = [line for line in seen.splitlines() if line.startswith("=") and ";IPv4;" in line]
    # It writes the list from its end, numbers in three decimal digits.
    assert line.split(";", 8)[3:] == [
        "Setup", TYPE, "local", "viewer.local", "10.77.0.1",
        r'80;"SAVE.vandrel.com=T" "MASK.vandrel.com=\255\255\255\000" "NEWIP.vandrel.com=\010M\000c" '
        r'"PWD.vandrel.com=c+KCrGNyZXQ=" "USER.vandrel.com=admin" "ZEPH.vandrel.com=\001\255\000" '
        r'"DNS3.vandrel.com=\010\000\000\003" "DNS1.vandrel.com=\010\000\000\001"']


def test_the_states_of_the_group_are_logged_in_their_order(stage):
    _, probe, _ = published(stage)
    assert own_log(probe) == [registering("Setup"), STATE + "uncommitted", STATE + "registering", ESTABLISHED]
    assert probe.call("is-registered") is True


def test_an_update_replaces_the_record_on_other_hosts(stage):
    _, probe, reader = published(stage, **STORAGE)
    reader.wait_for("found", "Setup")
    assert probe.call("update-txt", txt="state=busy") is True
    assert reader.wait_for("updated", "Setup", txt=[b"state=busy"])


def test_registering_once_more_is_refused_by_the_daemon_and_changes_nothing(stage):
    _, probe, reader = published(stage, **STORAGE)
    assert txt_of(reader.wait_for("found", "Setup")) == STORAGE_TXT
    probe.take_log()
    assert probe.register("Setup", TYPE, userName="other") is False
    assert own_log(probe) == [
        registering("Setup"),
        f"{PREFIX}RegisterService() -> failed to register serviceSetup type: {TYPE} errorcode: {BAD_STATE}"]
    assert probe.call("is-registered") is True
    time.sleep(QUIET_S)
    assert {tuple(txt_of(line)) for line in reader.events()} == {tuple(STORAGE_TXT)}


def test_withdrawing_says_goodbye_to_other_hosts(stage):
    _, probe, reader = published(stage)
    assert reader.wait_for("found", "Setup")
    probe.take_log()
    assert probe.call("terminate-registration") is True
    assert reader.wait_for("lost", "Setup")
    assert own_log(probe) == [RESET, RESET]
    assert probe.call("is-registered") is False


def test_a_withdrawn_service_can_be_published_with_other_values(stage):
    _, probe, reader = published(stage, **STORAGE)
    assert reader.wait_for("found", "Setup", txt=STORAGE_TXT)
    probe.call("terminate-registration")
    assert reader.wait_for("lost", "Setup")
    assert probe.register("Setup", TYPE) is True
    assert reader.wait_for("found", "Setup", txt=EMPTY_TXT)


def test_ending_discovery_withdraws_the_service(stage):
    _, probe, reader = published(stage)
    assert reader.wait_for("found", "Setup")
    assert probe.call("terminate") is True
    assert reader.wait_for("lost", "Setup")
    assert probe.call("is-registered") is True
    assert probe.register("Setup", TYPE) is False
    assert probe.call("update-txt", txt="state=busy") is False
    assert probe.call("terminate-registration") is True
    assert probe.call("is-registered") is False


def test_a_service_is_published_again_after_browsing_anew(stage):
    _, probe, reader = published(stage)
    assert reader.wait_for("found", "Setup")
    probe.call("terminate")
    assert reader.wait_for("lost", "Setup")
    probe.browse()
    assert probe.register("Again", TYPE) is True
    assert reader.wait_for("found", "Again", txt=EMPTY_TXT)


def test_a_collision_is_only_logged(stage):
    lab, probe, reader = browsing(stage, TWO_DAEMONS)
    rival = lab.start("other", "avahi-publish", "--service", "Setup", TYPE, "81", "owner=other", stdin=None)
    assert reader.wait_for("found", "Setup", txt=[b"owner=other"])
    assert probe.register("Setup", TYPE) is True
    assert probe.wait_for_log(COLLISION)
    assert own_log(probe) == [registering("Setup"), STATE + "uncommitted", STATE + "registering", COLLISION]
    assert probe.call("is-registered") is True
    time.sleep(QUIET_S)
    assert own_log(probe) == []
    assert rival.poll() is None
    assert {(line["name"], line["port"]) for line in reader.events()} == {("Setup", 81)}


def test_a_service_of_that_name_on_the_same_host_is_an_error(stage):
    lab, probe, reader = browsing(stage)
    lab.start("viewer", "avahi-publish", "--service", "Setup", TYPE, "81", "owner=other", stdin=None)
    assert reader.wait_for("found", "Setup", txt=[b"owner=other"])
    probe.take_log()
    assert probe.register("Setup", TYPE) is False
    assert own_log(probe)[-1] == (f"{PREFIX}RegisterService() -> failed to register serviceSetup type: {TYPE} "
                                  f"errorcode: {COLLISION_ERROR}")
    assert probe.call("terminate-registration") is True


def test_values_of_255_bytes_arrive_whole(stage):
    user = "u" * (255 - len("USER.vandrel.com="))
    _, probe, reader = published(stage, userName=user)
    assert txt_of(reader.wait_for("found", "Setup"))[1] == f"USER.vandrel.com={user}".encode()
    assert probe.call("update-txt", txt="x" * 255) is True
    assert reader.wait_for("updated", "Setup", txt=[b"x" * 255])
    assert probe.call("update-txt", txt="x" * 256) is False


def test_registering_before_browsing_is_refused(stage):
    probe = stage.probe(stage.lab())
    assert probe.register("Setup", TYPE) is False
    assert probe.take_log() == [registering("Setup"),
                                PREFIX + "RegisterService () -> could not register entry group!"]


@pytest.mark.parametrize("name", ["Küche 🧊 1.5", "x" * 63, "a\\b.c"])
def test_other_hosts_see_the_name_as_it_is(stage, name):
    _, probe, reader = browsing(stage)
    assert probe.register(name, TYPE) is True
    assert reader.wait_for("found", name)


@pytest.mark.parametrize(("name", "service_type", "error"), [
    ("", TYPE, INVALID_NAME), ("x" * 64, TYPE, INVALID_NAME), ("Setup", "reconf", INVALID_TYPE),
    ("Setup", "_reconf._sctp", INVALID_TYPE)])
def test_what_the_daemon_refuses_is_logged_with_its_code(stage, name, service_type, error):
    _, probe, _ = browsing(stage)
    probe.take_log()
    assert probe.register(name, service_type) is False
    assert probe.take_log()[-1] == (f"{PREFIX}RegisterService() -> failed to register service{name} "
                                    f"type: {service_type} errorcode: {error}")


def test_a_restarted_daemon_does_not_get_the_service_back(stage):
    lab, probe, reader = published(stage)
    assert reader.wait_for("found", "Setup")
    lab.fault("viewer", "daemon-stop")
    assert reader.wait_for("lost", "Setup")
    lab.fault("viewer", "daemon-start")
    time.sleep(QUIET_S)
    assert reader.events()[-1]["event"] == "lost"
    assert probe.call("is-registered") is True
    probe.take_log()
    assert probe.call("update-txt", txt="state=busy") is False
    assert probe.call("terminate-registration") is False
    assert own_log(probe) == [
        f"{PREFIX}UpdateTxtRecord () -> could not update text record; errorcode: {BAD_STATE}",
        f"{PREFIX}TerminateRegistration() -> could not reset registration; errorcode: {BAD_STATE}"]


def test_after_a_restart_of_the_daemon_beginning_anew_publishes_again(stage):
    lab, probe, reader = published(stage)
    lab.fault("viewer", "daemon-stop")
    assert reader.wait_for("lost", "Setup")
    probe.call("terminate")
    lab.fault("viewer", "daemon-start")
    probe.browse()
    assert probe.register("Anew", TYPE, **STORAGE) is True
    assert reader.wait_for("found", "Anew", txt=STORAGE_TXT)
