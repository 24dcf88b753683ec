# SPDX-License-Identifier: MIT
"""The responder service on a machine whose service manager is a real systemd."""

import shutil
import signal
import time

import pytest

from responderkit import units
from responderkit.probe import BUILD, Probe

pytestmark = pytest.mark.machine

QUESTIONS = ("status", "isInstalled", "isRunning", "isServiceRunning")
NOBODY = 65534
# How much longer than its time a call may take on a busy machine.
GRACE_MS = 3000
# On a busy machine a program may need long to begin, and to end.
WATCHFUL = ("--settling-ms", 9000)


@pytest.fixture
def probe_of(boot):
    """The probe on a machine with this mdnsd."""
    def probe_of_machine(mdnsd=None, **others):
        machine = boot(**({"mdnsd": mdnsd} if mdnsd else {}), **others)
        return machine, Probe(machine.address)
    return probe_of_machine


def test_a_stopped_service_is_installed_and_not_running(probe_of):
    _, probe = probe_of(units.SOUND)

    assert probe.results(*QUESTIONS) == ["Stopped", True, False, False]


def test_a_stopped_service_is_started_and_runs(probe_of):
    machine, probe = probe_of(units.SOUND)

    assert probe.results("tryStart", *QUESTIONS) == ["Running", "Running", True, True, True]
    assert machine.active_state("mdnsd") == "active"


def test_starting_a_running_service_leaves_it_running(probe_of):
    machine, probe = probe_of(units.SOUND)

    assert probe.results("tryStart", "start", "startResponderService") == ["Running", True, True]
    assert machine.active_state("mdnsd") == "active"


def test_the_responder_starts_the_service_and_no_thread(probe_of):
    machine, probe = probe_of(units.SOUND)

    assert probe.results("startResponder", "threadName", "isServiceRunning") == [True, None, True]
    assert machine.active_state("mdnsd") == "active"


def test_where_the_service_is_absent_the_responder_is_a_thread(probe_of):
    _, probe = probe_of()

    assert probe.results("startResponderService", "threadName", "startResponder", "threadName", "isServiceRunning",
                         "startResponder") == [False, None, True, "BonjourResponderThread", False, True]


@pytest.mark.parametrize("mdnsd, status, started", [
    (None, "NotInstalled", "NotInstalled"),
    (units.DANGLING, "NotInstalled", "NotInstalled"),
    (units.MASKED, "Masked", "Masked"),
    (units.INVALID, "Broken", "Broken"),
], ids=["absent", "a dangling link", "masked", "invalid"])
def test_what_cannot_be_started_is_not_installed(mdnsd, status, started, probe_of):
    _, probe = probe_of(mdnsd)

    assert probe.results(*QUESTIONS) == [status, False, False, False]
    assert probe.results("tryStart", "start", "startResponderService") == [started, False, False]


@pytest.mark.parametrize("mdnsd", [units.PROGRAM_MISSING, units.ENDS_AT_ONCE],
                         ids=["program missing", "ends at once"])
def test_a_service_that_ends_as_soon_as_it_was_started_has_failed(mdnsd, probe_of):
    _, probe = probe_of(mdnsd)

    assert probe.results(*WATCHFUL, "status", "tryStart", "status", "start") == [
        "Stopped", "StartFailed", "Stopped", False]


@pytest.mark.parametrize("mdnsd, reason", [
    (units.FAILS_TO_START, "StartFailed"),
    (units.ENDS_WELL, "StartFailed"),
    (units.BY_DEPENDENCY_ONLY, "StartRefused"),
], ids=["fails", "does its work and ends", "by dependency only"])
def test_a_start_after_which_the_service_does_not_run_has_failed(mdnsd, reason, probe_of):
    _, probe = probe_of(mdnsd)

    assert probe.results("status", "tryStart", "status") == ["Stopped", reason, "Stopped"]
    assert probe.results("start", "startResponderService") == [False, False]
    assert probe.results("startResponder", "threadName", "isServiceRunning") == [
        True, "BonjourResponderThread", False]


def test_an_alias_stands_for_its_service(probe_of):
    machine, probe = probe_of("-> real.service", real=units.SOUND)

    assert probe.results("status", "tryStart", "status") == ["Stopped", "Running", "Running"]
    assert machine.active_state("real") == "active"


def test_a_start_waits_for_a_slow_service(probe_of):
    machine, probe = probe_of(units.READY_ONCE_RELEASED)
    start = probe.begin("tryStart")
    machine.wait_for("mdnsd", "activating")
    time.sleep(3)
    machine.release()

    [answer] = probe.end(start)

    assert answer.result == "Running"
    assert answer.ms >= 3000


def test_a_service_that_is_starting_does_not_run_yet(probe_of):
    machine, probe = probe_of(units.READY_ONCE_RELEASED)
    machine.tell_systemd("StartUnit", "mdnsd.service", "replace")
    machine.wait_for("mdnsd", "activating")

    assert probe.results(*QUESTIONS) == ["Starting", True, False, False]


def test_a_start_joins_one_that_is_under_way(probe_of):
    machine, probe = probe_of(units.READY_ONCE_RELEASED)
    machine.tell_systemd("StartUnit", "mdnsd.service", "replace")
    machine.wait_for("mdnsd", "activating")
    start = probe.begin("status", "tryStart")
    time.sleep(1)
    machine.release()

    assert [answer.result for answer in probe.end(start)] == ["Starting", "Running"]


def test_a_start_that_is_slower_than_its_time_is_given_up_and_goes_on(probe_of):
    machine, probe = probe_of(units.READY_ONCE_RELEASED)

    answer = probe.answer("--start-ms", 2000, "tryStart")

    assert answer.result == "StillStarting"
    assert 2000 <= answer.ms < 2000 + GRACE_MS
    machine.release()
    machine.wait_for("mdnsd", "active")


def test_a_start_has_ten_seconds(probe_of):
    _, probe = probe_of(units.READY_ONCE_RELEASED)

    answer = probe.answer("startResponderService")

    assert answer.result is False
    assert 10000 <= answer.ms < 10000 + GRACE_MS


def test_a_service_that_reloads_runs(probe_of):
    machine, probe = probe_of(units.SLOW_TO_RELOAD)
    machine.tell_systemd("StartUnit", "mdnsd.service", "replace")
    machine.wait_for("mdnsd", "active")
    machine.tell_systemd("ReloadUnit", "mdnsd.service", "replace")
    machine.wait_for("mdnsd", "reloading")

    assert probe.results(*QUESTIONS) == ["Running", True, True, True]


def test_a_start_outlives_a_reload_of_systemd(probe_of):
    machine, probe = probe_of(units.READY_ONCE_RELEASED)
    start = probe.begin("tryStart")
    machine.wait_for("mdnsd", "activating")
    machine.tell_systemd("Reload")
    machine.release()

    assert [answer.result for answer in probe.end(start)] == ["Running"]


def test_a_service_that_failed_before_is_started(probe_of):
    machine, probe = probe_of(units.SOUND)
    machine.tell_systemd("StartUnit", "mdnsd.service", "replace")
    machine.wait_for("mdnsd", "active")
    machine.signal("sleep", signal.SIGSEGV)
    machine.wait_for("mdnsd", "failed")

    assert probe.results("status", "tryStart") == ["Stopped", "Running"]


def test_a_bus_that_dies_during_a_start_ends_it_at_once(probe_of):
    machine, probe = probe_of(units.READY_ONCE_RELEASED)
    start = probe.begin("tryStart")
    machine.wait_for("mdnsd", "activating")
    killed_at = time.monotonic()
    machine.signal("dbus-daemon", signal.SIGKILL)

    assert probe.end(start)[0].result == "NoServiceManager"
    assert time.monotonic() - killed_at < 10


@pytest.mark.parametrize("daemon", ["systemd", "dbus-daemon"])
def test_a_daemon_that_hangs_costs_the_time_of_the_question_and_no_more(daemon, probe_of):
    machine, _ = probe_of(units.SOUND)
    probe = Probe(machine.address, options=())
    machine.signal(daemon, signal.SIGSTOP)

    for operation in ("isInstalled", "isRunning", "isServiceRunning", "startResponderService"):
        answer = probe.answer(operation)

        assert answer.result is False
        assert 2000 <= answer.ms < 2000 + GRACE_MS
    assert probe.answer("--start-ms", 700, "tryStart").result == "NoAnswer"


def test_a_daemon_that_hangs_during_a_start_costs_the_time_of_the_start_and_no_more(probe_of):
    machine, probe = probe_of(units.READY_ONCE_RELEASED)
    start = probe.begin("--start-ms", 6000, "tryStart")
    machine.wait_for("mdnsd", "activating")
    machine.signal("systemd", signal.SIGSTOP)

    [answer] = probe.end(start)

    assert answer.result == "StillStarting"
    assert 6000 <= answer.ms < 6000 + GRACE_MS


@pytest.fixture
def probe_without_rights(open_folder):
    # They may stand where that user cannot look.
    for file in (Probe.PROGRAM, BUILD / "src" / "libvddiscovery.so.0"):
        shutil.copy(file, open_folder)
    return lambda machine: Probe(machine.address, program=open_folder / Probe.PROGRAM.name, user=NOBODY)


def test_a_user_without_rights_learns_that_the_service_is_stopped_and_may_not_start_it(probe_of,
                                                                                       probe_without_rights):
    machine, _ = probe_of(units.SOUND)
    probe = probe_without_rights(machine)

    assert probe.results("status", "tryStart", "startResponderService") == ["Stopped", "NotAllowed", False]
    assert machine.active_state("mdnsd") == "inactive"


def test_a_user_without_rights_need_not_start_what_runs(probe_of, probe_without_rights):
    machine, _ = probe_of(units.SOUND)
    machine.tell_systemd("StartUnit", "mdnsd.service", "replace")
    machine.wait_for("mdnsd", "active")

    assert probe_without_rights(machine).results("tryStart", "start", "startResponderService") == [
        "Running", True, True]
