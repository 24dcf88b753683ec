# SPDX-License-Identifier: MIT
"""The responder service on a bus that is hostile, broken, hanging, or just unusual."""

import itertools
import socket
import time

import pytest

from responderkit import wire
from responderkit.probe import Probe
from responderkit.scripted_bus import BUS, JOB, MANAGER, MANAGER_INTERFACE, STRANGER, SYSTEMD, UNIT

# Short, so that waiting for it in vain does not take long. Only for what ends by running out of time.
SOON_MS = 400
SOON = ("--question-ms", SOON_MS, "--start-ms", SOON_MS)
# Long enough for a start to be under way on a busy machine when its time has run out.
START_SOON_MS = 1000
START_SOON = ("--start-ms", START_SOON_MS)
# How much longer than its time a call may take on a busy machine.
GRACE_MS = 3000
# Far less than the time that a call has here.
AT_ONCE_MS = 5000
NO_SETTLING = ("--settling-ms", 0)

CALLS_OF_A_QUESTION = ["GetNameOwner", "LoadUnit", "Get LoadState", "Get ActiveState"]
HUGE = "x" * (8 * 1024 * 1024)


def silence(peer, call):
    peer.wait_until_gone()


def refusal(error, **origin):
    return lambda peer, call: peer.refuse(call, error, **origin)


def answering(signature, *values, **origin):
    return lambda peer, call: peer.answer(call, signature, *values, **origin)


def hang_up(peer, call):
    peer.close()


def assert_took_its_time(answer, time_ms=SOON_MS):
    assert time_ms <= answer.ms < time_ms + GRACE_MS


# What is said on the bus.

def test_a_question_is_put_in_four_calls(bus, probe):
    assert probe.answer("status").result == "Stopped"
    assert [(call.destination, call.path, call.interface, call.member, call.arguments) for call in bus.calls] == [
        (BUS, "/org/freedesktop/DBus", BUS, "Hello", []),
        (BUS, "/org/freedesktop/DBus", BUS, "GetNameOwner", ["org.freedesktop.systemd1"]),
        (SYSTEMD, MANAGER, MANAGER_INTERFACE, "LoadUnit", ["mdnsd.service"]),
        (SYSTEMD, UNIT, "org.freedesktop.DBus.Properties", "Get", ["org.freedesktop.systemd1.Unit", "LoadState"]),
        (SYSTEMD, UNIT, "org.freedesktop.DBus.Properties", "Get",
         ["org.freedesktop.systemd1.Unit", "ActiveState"]),
    ]


def test_a_start_looks_before_and_afterwards_and_listens_before_it_asks(bus, probe):
    assert probe.answer(*NO_SETTLING, "tryStart").result == "Running"
    assert bus.methods() == ["Hello", "GetNameOwner", "LoadUnit", "Get", "Get", "AddMatch", "StartUnit",
                             "LoadUnit", "Get", "Get"]
    assert bus.calls[6].arguments == ["mdnsd.service", "replace"]
    assert sorted(bus.calls[5].arguments[0].split(",")) == [
        f"interface='{MANAGER_INTERFACE}'", "member='JobRemoved'", f"path='{MANAGER}'", f"sender='{SYSTEMD}'",
        "type='signal'"]


def test_nothing_is_started_to_be_asked_and_no_user_is_asked_for_a_password(bus, probe):
    probe.answer("tryStart")

    own_calls = [call for call in bus.calls if call.member not in ("Hello", "AddMatch")]
    assert {call.flags & wire.NO_AUTO_START for call in own_calls} == {wire.NO_AUTO_START}
    assert {call.flags & wire.ALLOW_INTERACTIVE_AUTHORIZATION for call in own_calls} == {0}


@pytest.mark.parametrize("operation, service_calls", [
    ("isServiceRunning", ["LoadUnit", "Get", "Get"] * 2),
    ("startResponderService", [*["LoadUnit", "Get", "Get"] * 3, "StartUnit"]),
])
def test_the_responder_asks_for_installation_and_state_one_after_the_other(operation, service_calls, bus, probe):
    bus.scripts["StartUnit"] = refusal("x.y")

    probe.answer(operation)

    assert [name for name in bus.methods() if name not in ("Hello", "GetNameOwner", "AddMatch")] == service_calls


@pytest.mark.parametrize("active_state", ["active", "reloading"])
def test_what_runs_is_not_started_and_not_watched(active_state, bus, probe):
    bus.active_state = active_state

    answer = probe.answer("--settling-ms", AT_ONCE_MS, "tryStart")

    assert answer.result == "Running"
    assert answer.ms < AT_ONCE_MS
    assert bus.methods() == ["Hello", "GetNameOwner", "LoadUnit", "Get", "Get"]


@pytest.mark.parametrize("load_state, status", [("not-found", "NotInstalled"), ("masked", "Masked"),
                                                ("bad-setting", "Broken")])
def test_what_cannot_be_started_is_not_tried(load_state, status, bus, probe):
    bus.load_state = load_state

    assert probe.answer("tryStart").result == status
    assert "StartUnit" not in bus.methods()


# Names.

@pytest.mark.parametrize("name", ["mdnsd", "a", "A-z_0.9:@x\\x2d", "x" * 200])
def test_a_possible_name_is_asked_for(name, bus, probe):
    assert probe.answer("--name", name, "status").result == "Stopped"
    assert [call.arguments for call in bus.calls if call.member == "LoadUnit"] == [[f"{name}.service"]]


@pytest.mark.parametrize("name", ["", "x" * 201, "a b", "a/b", "../a", "a\nb", "é", "a;b", "*", "a%i", "[",
                                  "`", "{"])
@pytest.mark.parametrize("operation", ["status", "tryStart"])
def test_an_impossible_name_is_not_installed_and_not_asked_for(name, operation, bus, probe):
    assert probe.answer("--name", name, operation).result == "NotInstalled"
    assert bus.calls == []


# States.

@pytest.mark.parametrize("load_state, status", [
    ("loaded", "Stopped"), ("not-found", "NotInstalled"), ("masked", "Masked"), ("bad-setting", "Broken"),
    ("error", "Broken"), ("stub", "Broken"), ("", "Broken"), ("loaded ", "Broken"), (HUGE, "Broken"),
], ids=lambda text: text[:16] or "empty")
def test_only_what_is_loaded_is_installed(load_state, status, bus, probe):
    bus.load_state = load_state

    assert probe.results("status", "isInstalled") == [status, status == "Stopped"]


@pytest.mark.parametrize("active_state, status", [
    ("active", "Running"), ("reloading", "Running"), ("activating", "Starting"), ("inactive", "Stopped"),
    ("failed", "Stopped"), ("deactivating", "Stopped"), ("maintenance", "Stopped"), ("", "Stopped"),
    ("ACTIVE", "Stopped"), (HUGE, "Stopped"),
], ids=lambda value: value[:16] or "empty")
def test_what_is_active_or_reloading_runs(active_state, status, bus, probe):
    bus.active_state = active_state

    assert probe.results("status", "isInstalled", "isRunning") == [status, True, status == "Running"]


@pytest.mark.parametrize("load_state, status", [("not-found", "NotInstalled"), ("masked", "Masked")])
def test_what_runs_and_is_no_longer_installed_counts_as_not_installed(load_state, status, bus, probe):
    bus.load_state, bus.active_state = load_state, "active"

    assert probe.results("status", "isInstalled", "isServiceRunning", "tryStart") == [status, False, False, status]


def test_a_start_joins_one_that_is_under_way(bus, probe):
    bus.active_state = "activating"

    assert probe.answer("tryStart").result == "Running"
    assert "StartUnit" in bus.methods()


@pytest.mark.parametrize("active_state, result", [
    ("active", "Running"), ("reloading", "Running"), ("failed", "StartFailed"), ("inactive", "StartFailed"),
    ("activating", "StartFailed"),
])
def test_a_start_is_judged_by_the_state_after_it(active_state, result, bus, probe):
    bus.active_state_after_start = active_state

    assert probe.answer("tryStart").result == result


def end_after_start(bus, seconds):
    """Has the service run for so long once it was looked at."""
    first_asked = []

    def state_of_its_life(peer, call):
        if bus.active_state == "active":
            first_asked.append(time.monotonic())
            if time.monotonic() - first_asked[0] >= seconds:
                bus.active_state = "failed"
        bus.reply(peer, call)
    bus.scripts["Get ActiveState"] = state_of_its_life


@pytest.mark.parametrize("settling_ms, seconds", [(8000, 0.15), (1500, 1.4)])
def test_a_service_that_ends_while_it_settles_has_failed(settling_ms, seconds, bus, probe):
    end_after_start(bus, seconds)

    answer = probe.answer("--settling-ms", settling_ms, "tryStart")

    assert answer.result == "StartFailed"
    assert seconds * 1000 <= answer.ms < AT_ONCE_MS


def test_a_service_that_goes_on_is_watched_until_it_has_settled(bus, probe):
    answer = probe.answer("--settling-ms", 600, "tryStart")

    assert answer.result == "Running"
    assert 600 <= answer.ms < AT_ONCE_MS


def test_a_service_is_not_watched_when_too_little_time_is_left(bus, probe):
    answer = probe.answer("--settling-ms", AT_ONCE_MS, "--start-ms", AT_ONCE_MS * 2 - 1, "tryStart")

    assert answer.result == "Running"
    assert answer.ms < AT_ONCE_MS


def test_a_service_that_disappears_during_its_start_is_not_installed(bus, probe):
    def start(peer, call):
        bus.load_state = "not-found"
        bus.reply(peer, call)
    bus.scripts["StartUnit"] = start

    assert probe.answer("tryStart").result == "NotInstalled"


@pytest.mark.parametrize("result", ["failed", "canceled", "timeout", "dependency", "skipped", "", "DONE", "done ",
                                    HUGE],
                         ids=lambda text: text[:16] or "empty")
def test_a_job_with_another_result_than_done_has_failed(result, bus, probe):
    def start(peer, call):
        peer.answer(call, "o", JOB)
        bus.finish_job(peer, result)
    bus.scripts["StartUnit"] = start

    assert probe.answer("tryStart").result == "StartFailed"


# Errors.

ERRORS = [
    ("org.freedesktop.DBus.Error.AccessDenied", "NotAllowed"),
    ("org.freedesktop.DBus.Error.InteractiveAuthorizationRequired", "NotAllowed"),
    ("org.freedesktop.DBus.Error.InvalidArgs", "NotInstalled"),
    ("org.freedesktop.systemd1.NoSuchUnit", "NotInstalled"),
    ("org.freedesktop.systemd1.UnitMasked", "Masked"),
    ("org.freedesktop.systemd1.LoadFailed", "Broken"),
    ("org.freedesktop.systemd1.BadUnitSetting", "Broken"),
    ("org.freedesktop.systemd1.OnlyByDependency", "StartRefused"),
    ("org.freedesktop.systemd1.TransactionIsDestructive", "StartFailed"),
    ("org.freedesktop.systemd1.ShuttingDown", "StartFailed"),
    ("org.freedesktop.DBus.Error.NoReply", "NoServiceManager"),
    ("org.freedesktop.DBus.Error.ServiceUnknown", "NoServiceManager"),
    ("org.freedesktop.DBus.Error.UnknownMethod", "NoServiceManager"),
    ("org.example.systemd1.NoSuchUnit", "NoServiceManager"),
    ("x.y", "NoServiceManager"),
]


@pytest.mark.parametrize("error, reason", ERRORS, ids=[error for error, _ in ERRORS])
def test_a_refused_start_is_told_by_its_reason(error, reason, bus, probe):
    bus.scripts["StartUnit"] = refusal(error)

    assert probe.results("tryStart", "start", "startResponderService") == [reason, False, False]


@pytest.mark.parametrize("name", CALLS_OF_A_QUESTION)
@pytest.mark.parametrize("error, reason", [
    ("org.freedesktop.DBus.Error.AccessDenied", "QuestionRefused"),
    ("org.freedesktop.DBus.Error.InteractiveAuthorizationRequired", "QuestionRefused"),
    ("org.freedesktop.DBus.Error.NameHasNoOwner", "NoServiceManager"),
    ("org.freedesktop.systemd1.ShuttingDown", "NoServiceManager"),
    ("org.freedesktop.systemd1.OnlyByDependency", "NoServiceManager"),
])
def test_a_refused_question_is_told_by_its_reason(name, error, reason, bus, probe):
    bus.scripts[name] = refusal(error)

    assert probe.results("status", "isInstalled", "isRunning", "isServiceRunning") == [reason, False, False, False]


@pytest.mark.parametrize("name", CALLS_OF_A_QUESTION)
def test_who_may_not_ask_does_not_start(name, bus, probe):
    bus.scripts[name] = refusal("org.freedesktop.DBus.Error.AccessDenied")

    assert probe.answer("tryStart").result == "QuestionRefused"
    assert "StartUnit" not in bus.methods()


@pytest.mark.parametrize("error", ["org.freedesktop.DBus.Error.InvalidArgs",
                                   "org.freedesktop.systemd1.NoSuchUnit"])
def test_a_unit_that_cannot_be_is_not_installed(error, bus, probe):
    bus.scripts["LoadUnit"] = refusal(error)

    assert probe.results("status", "tryStart") == ["NotInstalled", "NotInstalled"]


@pytest.mark.parametrize("name, error, sender, operation, result", [
    ("StartUnit", "org.freedesktop.systemd1.UnitMasked", STRANGER, "tryStart", "NoServiceManager"),
    ("LoadUnit", "org.freedesktop.systemd1.NoSuchUnit", STRANGER, "status", "NoServiceManager"),
    ("GetNameOwner", "org.freedesktop.DBus.Error.AccessDenied", SYSTEMD, "status", "NoServiceManager"),
    ("StartUnit", "org.freedesktop.DBus.Error.AccessDenied", BUS, "tryStart", "NotAllowed"),
    ("LoadUnit", "org.freedesktop.DBus.Error.AccessDenied", BUS, "status", "QuestionRefused"),
])
def test_only_the_service_and_the_bus_can_refuse(name, error, sender, operation, result, bus, probe):
    bus.scripts[name] = refusal(error, sender=sender)

    assert probe.answer(operation).result == result


@pytest.mark.parametrize("name", ["Hello", "AddMatch"])
def test_a_bus_that_refuses_what_every_client_needs_is_of_no_use(name, bus, probe):
    bus.scripts[name] = refusal("org.freedesktop.DBus.Error.LimitsExceeded")

    assert probe.answer("tryStart").result == "NoServiceManager"


# Answers that make no sense.

OF_NO_SENSE = [
    ("LoadUnit", answering("s", UNIT)),
    ("LoadUnit", answering("u", 7)),
    ("LoadUnit", answering("")),
    ("LoadUnit", answering("o", "no/path")),
    ("GetNameOwner", answering("u", 7)),
    ("GetNameOwner", answering("")),
    ("GetNameOwner", answering("s", "")),
    ("GetNameOwner", answering("s", "no name")),
    ("GetNameOwner", answering("s", HUGE)),
    ("Get LoadState", answering("s", "loaded")),
    ("Get LoadState", answering("v", ("u", 7))),
    ("Get LoadState", answering("v", ("o", "/loaded"))),
    ("Get LoadState", answering("v", ("v", ("s", "loaded")))),
    ("Get LoadState", answering("")),
    ("Get ActiveState", answering("v", ("u", 7))),
    ("Get ActiveState", answering("v", ("g", "s"))),
]


@pytest.mark.parametrize("name, script", OF_NO_SENSE, ids=itertools.count())
def test_an_answer_of_the_wrong_type_is_no_answer_of_a_service_manager(name, script, bus, probe):
    bus.active_state = "active"
    bus.scripts[name] = script

    assert probe.results("status", "isInstalled", "isRunning") == ["NoServiceManager", False, False]


@pytest.mark.parametrize("script", [answering("s", JOB), answering("u", 7), answering(""),
                                    answering("o", "no/path")])
def test_a_start_that_is_answered_by_the_wrong_type_has_failed(script, bus, probe):
    bus.scripts["StartUnit"] = script

    assert probe.answer("tryStart").result == "NoServiceManager"


@pytest.mark.parametrize("name, value, sender", [
    ("GetNameOwner", ("s", SYSTEMD), STRANGER),
    ("GetNameOwner", ("s", SYSTEMD), SYSTEMD),
    ("LoadUnit", ("o", UNIT), STRANGER),
    ("LoadUnit", ("o", UNIT), BUS),
    ("Get LoadState", ("v", ("s", "loaded")), STRANGER),
    ("Get LoadState", ("v", ("s", "loaded")), BUS),
])
def test_what_a_stranger_answers_in_the_place_of_another_is_not_believed(name, value, sender, bus, probe):
    bus.scripts[name] = answering(*value, sender=sender)

    assert probe.answer("status").result == "NoServiceManager"


def test_the_path_of_another_object_is_asked_and_found_wanting(bus, probe):
    bus.scripts["LoadUnit"] = answering("o", "/")
    bus.scripts["Get LoadState"] = refusal("org.freedesktop.DBus.Error.UnknownObject")

    assert probe.answer("status").result == "NoServiceManager"
    assert bus.calls[-1].path == "/"


@pytest.mark.parametrize("garbage", [
    b"\0" * 64, b"\xff" * 64, b"HTTP/1.1 400 Bad Request\r\n\r\n",
    b"l\x02\x00\x01" + b"\xff" * 12,
    wire.message(wire.RETURN, {wire.REPLY_SERIAL: 2, wire.SENDER: BUS}, "s", [SYSTEMD]).replace(
        b":1.1", b"\xff\xfe\xfd\xfc"),
], ids=itertools.count())
def test_what_is_no_message_ends_the_question_at_once(garbage, bus, probe):
    bus.scripts["GetNameOwner"] = lambda peer, call: peer.send(garbage)

    answer = probe.answer("status")

    assert answer.result == "NoServiceManager"
    assert answer.ms < AT_ONCE_MS


# Signals.

def start_with(bus, *before, answer_after=True):
    """Has each of `before` done, before the answer to the start, or after it."""
    def start(peer, call):
        if not answer_after:
            peer.answer(call, "o", JOB)
        for act in before:
            act(peer)
        if answer_after:
            peer.answer(call, "o", JOB)
    bus.scripts["StartUnit"] = start


def test_a_job_that_ends_before_the_start_is_answered_is_noticed(bus, probe):
    start_with(bus, bus.finish_job)

    assert probe.answer("tryStart").result == "Running"


def test_the_job_of_an_alias_bears_another_name(bus, probe):
    bus.active_state_after_start = "active"
    start_with(bus, lambda peer: bus.finish_job(peer), answer_after=False)
    bus.finish_job = lambda peer: (setattr(bus, "active_state", "active"), peer.remove_job(unit="real.service"))

    assert probe.answer("tryStart").result == "Running"


NOT_THE_SIGNAL = [
    lambda peer: peer.remove_job(job=MANAGER + "/job/8"),
    lambda peer: peer.remove_job(job=JOB + "7"),
    lambda peer: peer.remove_job(sender=STRANGER),
    lambda peer: peer.remove_job(sender=BUS),
    lambda peer: peer.remove_job(path=MANAGER + "/job/7"),
    lambda peer: peer.remove_job(interface="org.example.Manager"),
    lambda peer: peer.signal("JobNew", "uoss", 7, JOB, "mdnsd.service", "done"),
    lambda peer: peer.signal("JobRemoved", "uos", 7, JOB, "mdnsd.service"),
    lambda peer: peer.signal("JobRemoved", "ssss", "7", JOB, "mdnsd.service", "done"),
    lambda peer: peer.signal("JobRemoved", "usss", 7, JOB, "mdnsd.service", "done"),
    lambda peer: peer.signal("JobRemoved", ""),
]


@pytest.mark.parametrize("answer_after", [True, False], ids=["before the answer", "after the answer"])
@pytest.mark.parametrize("signal", NOT_THE_SIGNAL, ids=itertools.count())
def test_other_signals_do_not_end_a_start(signal, answer_after, bus, probe):
    start_with(bus, lambda peer: setattr(bus, "active_state", "active"), signal, answer_after=answer_after)

    answer = probe.answer(*START_SOON, "tryStart")

    assert answer.result == "StillStarting"
    assert_took_its_time(answer, START_SOON_MS)


@pytest.mark.parametrize("signal", NOT_THE_SIGNAL, ids=itertools.count())
def test_other_signals_do_not_spoil_a_start(signal, bus, probe):
    start_with(bus, signal, lambda peer: bus.finish_job(peer), answer_after=False)

    assert probe.answer("tryStart").result == "Running"


def test_signals_without_end_do_not_prolong_a_start(bus, probe):
    def flood(peer):
        while True:
            peer.remove_job(job=MANAGER + "/job/8", sender=STRANGER)
    start_with(bus, flood, answer_after=False)

    answer = probe.answer(*START_SOON, "tryStart")

    assert answer.result == "StillStarting"
    assert_took_its_time(answer, START_SOON_MS)


@pytest.mark.parametrize("name", CALLS_OF_A_QUESTION)
def test_signals_without_end_do_not_prolong_a_question(name, bus, probe):
    def flood(peer, call):
        while True:
            peer.remove_job(job=MANAGER + "/job/8")
    bus.scripts[name] = flood

    answer = probe.answer(*SOON, "status")

    assert answer.result == "NoAnswer"
    assert_took_its_time(answer)


def test_a_call_to_the_client_does_not_disturb_it(bus, probe):
    def call_back(peer, call):
        fields = {wire.PATH: "/", wire.INTERFACE: "a.b", wire.MEMBER: "C", wire.SENDER: STRANGER}
        peer.send(wire.message(wire.CALL, fields, serial=9))
        bus.reply(peer, call)
    bus.scripts["LoadUnit"] = call_back

    assert probe.answer("status").result == "Stopped"


# Silence, and the end of a connection.

@pytest.mark.parametrize("name", ["Hello", *CALLS_OF_A_QUESTION])
def test_a_question_that_is_not_answered_ends_in_time(name, bus, probe):
    bus.scripts[name] = silence

    answer = probe.answer(*SOON, "status")

    assert answer.result == "NoAnswer"
    assert_took_its_time(answer)


@pytest.mark.parametrize("name, result", [
    ("Hello", "NoAnswer"), ("GetNameOwner", "NoAnswer"), ("LoadUnit", "NoAnswer"), ("Get ActiveState", "NoAnswer"),
    ("AddMatch", "StillStarting"), ("StartUnit", "StillStarting"),
])
def test_a_start_that_is_not_answered_ends_in_time(name, result, bus, probe):
    bus.scripts[name] = silence

    answer = probe.answer(*START_SOON, "tryStart")

    assert answer.result == result
    assert_took_its_time(answer, START_SOON_MS)


@pytest.mark.parametrize("name", ["LoadUnit", "Get LoadState", "Get ActiveState"])
def test_a_look_after_the_start_that_is_not_answered_ends_in_time(name, bus, probe):
    start_with(bus, lambda peer: bus.scripts.update({name: silence}), bus.finish_job)

    answer = probe.answer(*START_SOON, "tryStart")

    assert answer.result == "NoAnswer"
    assert_took_its_time(answer, START_SOON_MS)


def test_a_job_that_does_not_end_is_given_up(bus, probe):
    start_with(bus)

    answer = probe.answer(*START_SOON, "tryStart")

    assert answer.result == "StillStarting"
    assert_took_its_time(answer, START_SOON_MS)


def test_answers_that_dawdle_share_one_deadline(bus, probe):
    def dawdle(peer, call):
        time.sleep(0.15)
        bus.reply(peer, call)
    bus.scripts.update(dict.fromkeys(CALLS_OF_A_QUESTION, dawdle))

    answer = probe.answer(*SOON, "status")

    assert answer.result == "NoAnswer"
    assert_took_its_time(answer)


@pytest.mark.parametrize("bytes_sent", [1, 15, 16, 40])
def test_half_an_answer_is_not_waited_for(bytes_sent, bus, probe):
    whole = wire.message(wire.RETURN, {wire.REPLY_SERIAL: 2, wire.SENDER: BUS}, "s", [SYSTEMD])
    bus.scripts["GetNameOwner"] = lambda peer, call: peer.send(whole[:bytes_sent])

    answer = probe.answer(*SOON, "status")

    assert answer.result == "NoAnswer"
    assert_took_its_time(answer)


@pytest.mark.parametrize("name", ["Hello", *CALLS_OF_A_QUESTION])
def test_a_bus_that_goes_away_ends_a_question_at_once(name, bus, probe):
    bus.scripts[name] = hang_up

    answer = probe.answer("status")

    assert answer.result == "NoServiceManager"
    assert answer.ms < AT_ONCE_MS


@pytest.mark.parametrize("act", [hang_up, lambda peer, call: (peer.answer(call, "o", JOB), peer.close())])
def test_a_bus_that_goes_away_ends_a_start_at_once(act, bus, probe):
    bus.scripts["StartUnit"] = act

    answer = probe.answer("tryStart")

    assert answer.result == "NoServiceManager"
    assert answer.ms < AT_ONCE_MS


@pytest.mark.parametrize("greeting", [lambda peer: peer.read_line(), lambda peer: peer.send(b"OK ")],
                         ids=["silent", "half a word"])
def test_a_bus_that_does_not_greet_is_given_up(greeting, bus, probe):
    bus.greeting = greeting

    answer = probe.answer(*SOON, "status")

    assert answer.result == "NoAnswer"
    assert_took_its_time(answer)


@pytest.mark.parametrize("greeting", [
    lambda peer: peer.close(),
    lambda peer: peer.send(b"REJECTED EXTERNAL\r\n" * 3),
    lambda peer: peer.send((b"what?" * 100 + b"\r\n") * 3),
], ids=["closed", "rejected", "of another kind"])
def test_a_bus_that_lets_nobody_in_ends_a_question_at_once(greeting, bus, probe):
    bus.greeting = greeting

    answer = probe.answer("status")

    assert answer.result == "NoServiceManager"
    assert answer.ms < AT_ONCE_MS


@pytest.mark.parametrize("operation, longest_ms", [("isInstalled", 2000), ("isServiceRunning", 2000),
                                                   ("start", 10000)])
def test_the_usual_time_is_two_seconds_for_a_question_and_ten_for_a_start(operation, longest_ms, bus):
    bus.scripts["GetNameOwner"] = silence

    answer = Probe(bus.address, options=()).answer(operation)

    assert answer.result is False
    assert longest_ms <= answer.ms < longest_ms + GRACE_MS


def test_a_time_of_nothing_is_over_at_once(bus, probe):
    answer = probe.answer("--question-ms", 0, "status")

    assert answer.result == "NoAnswer"
    assert answer.ms < GRACE_MS


@pytest.mark.parametrize("address", ["unix:path=/nonexistent/bus", "", "nonsense", "unix:path=relative", ";;;",
                                     "unix:path=" + "x" * 200])
def test_where_there_is_no_bus_there_is_no_service(address):
    # No address at all would mean the bus of this machine.
    probe = Probe(address or ";")

    answers = probe.ask("status", "tryStart", "isServiceRunning", "startResponderService", "startResponder")

    assert [answer.result for answer in answers] == ["NoServiceManager", "NoServiceManager", False, False, True]
    assert max(answer.ms for answer in answers) < AT_ONCE_MS


@pytest.mark.parametrize("address", ["tcp:host=127.0.0.1,port={port}", ";tcp:host=127.0.0.1,port={port}",
                                     "unix:path=/nonexistent/bus;tcp:host=127.0.0.1,port={port}"])
def test_a_bus_across_the_network_is_not_connected_to(address):
    with socket.create_server(("127.0.0.1", 0)) as listener:
        probe = Probe(address.format(port=listener.getsockname()[1]))

        assert probe.results(*SOON, "status", "tryStart") == ["NoServiceManager"] * 2

        listener.setblocking(False)
        with pytest.raises(BlockingIOError):
            listener.accept()


def test_no_program_is_run_to_reach_a_bus(tmp_path):
    trace = tmp_path / "trace"
    probe = Probe(f"unixexec:path=/usr/bin/touch,argv1={trace}")

    assert probe.answer(*SOON, "status").result == "NoServiceManager"
    assert not trace.exists()


def test_of_several_sockets_the_one_with_a_bus_is_taken(bus):
    assert Probe(f"unix:path=/nonexistent/bus;{bus.address};").answer("status").result == "Stopped"


def test_a_bus_whose_queue_of_connections_is_full_does_not_block(tmp_path):
    path = tmp_path / "full"
    with socket.socket(socket.AF_UNIX, socket.SOCK_STREAM) as listener:
        listener.bind(str(path))
        listener.listen(0)
        with socket.socket(socket.AF_UNIX, socket.SOCK_STREAM) as first:
            first.connect(str(path))

            answer = Probe(f"unix:path={path}").answer("status")

    assert answer.result == "NoAnswer"
    assert answer.ms < AT_ONCE_MS


# The process around it.

def test_interruptions_by_signals_change_nothing(bus, probe):
    def dawdle(peer, call):
        time.sleep(0.1)
        bus.reply(peer, call)
    bus.scripts.update(dict.fromkeys(["Hello", "LoadUnit", "StartUnit"], dawdle))

    assert probe.results("--interrupted", "status", "tryStart") == ["Stopped", "Running"]


def test_interruptions_by_signals_do_not_prolong_a_question(bus, probe):
    bus.scripts["LoadUnit"] = silence

    answer = probe.answer("--interrupted", *SOON, "status")

    assert answer.result == "NoAnswer"
    assert_took_its_time(answer)


@pytest.mark.parametrize("script", [None, silence, hang_up, refusal("x.y")],
                         ids=["answered", "silent", "gone", "refused"])
def test_nothing_stays_open(script, bus, probe):
    if script:
        bus.scripts["LoadUnit"] = script

    before, *_, after = probe.results(*SOON, "openFiles", *["status", "tryStart"] * 3, "openFiles")

    assert after == before


def test_questions_are_put_anew(bus, probe):
    states = iter(["inactive", "active", "failed"])
    bus.scripts["Get ActiveState"] = lambda peer, call: peer.answer(call, "v", ("s", next(states)))

    assert probe.results("status", "status", "status") == ["Stopped", "Running", "Stopped"]


def test_several_processes_may_ask_at_once(bus, probe):
    processes = [probe.begin("status") for _ in range(10)]

    assert [Probe.end(process)[0].result for process in processes] == ["Stopped"] * 10
