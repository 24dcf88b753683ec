# SPDX-License-Identifier: MIT
"""The end of the program, whatever brings it about."""

import json
import os
import signal
import sys

import pytest

from simkit import NotedAnnouncements

from vdsimulate import main, simulation
from vdsimulate.churn import Churn


class NoLink:
    async def async_wait_for_start(self):
        pass


class NoClosing:
    def __init__(self, zc):
        pass

    async def async_close(self):
        pass


@pytest.fixture
def announced(monkeypatch):
    """Lets the whole program run, but for the network."""
    noted = NotedAnnouncements()
    monkeypatch.setattr(simulation.interfaces, "chosen", lambda _: [("lan0", "10.0.0.1")])
    monkeypatch.setattr(simulation, "_open", lambda *_: NoLink())
    monkeypatch.setattr(simulation, "Announcer", lambda _: noted)
    monkeypatch.setattr(simulation, "AsyncZeroconf", NoClosing)
    monkeypatch.setattr(sys, "stdin", None)
    monkeypatch.setattr(sys, "argv", ["vd-simulate", "--cameras", "2", "--seed", "1"])
    return noted


def outcome(capfd):
    """Runs it to its end: the exit status, the events and standard error."""
    try:
        main.main()
        status = 0
    except SystemExit as end:
        status = end.code
    output, errors = capfd.readouterr()
    return status, [json.loads(line)["event"] for line in output.splitlines()], errors


def fail_with(error):
    async def run(_):
        raise error
    return run


@pytest.mark.parametrize("number", [signal.SIGINT, signal.SIGTERM, signal.SIGHUP])
def test_a_signal_ends_it_well_with_goodbyes(announced, capfd, monkeypatch, number):
    async def run(_):
        os.kill(os.getpid(), number)
    monkeypatch.setattr(Churn, "run", run)
    assert outcome(capfd) == (0, ["published", "published", "ready", "goodbye", "goodbye"], "")
    assert [what for what, *_ in announced.all] == ["publish", "withdraw"]
    assert announced.times_withdrawn == [3]


@pytest.mark.parametrize("error, message", [
    (RuntimeError("one\ntwo"), "RuntimeError: one\\ntwo; every device has said goodbye, please report this"),
    (OSError("no network"), "no network")])
def test_a_failure_ends_it_with_goodbyes_and_one_line(announced, capfd, monkeypatch, error, message):
    monkeypatch.setattr(Churn, "run", fail_with(error))
    assert outcome(capfd) == (1, ["published", "published", "ready", "goodbye", "goodbye"],
                              f"vd-simulate: {message}\n")
    assert announced.all[-1][0] == "withdraw" and len(announced.all[-1]) == 3


def test_a_failure_while_it_publishes_says_goodbye_for_what_may_be_published(announced, capfd, monkeypatch):
    monkeypatch.setattr(announced, "publish", fail_with(RuntimeError("broken")))
    status, events, errors = outcome(capfd)
    assert (status, events, errors.count("\n")) == (1, ["goodbye", "goodbye"], 1)
    assert [what for what, *_ in announced.all] == ["withdraw"]


def test_without_a_standard_output_it_does_not_begin(announced, capfd, monkeypatch):
    monkeypatch.setattr(sys, "stdout", None)
    assert outcome(capfd) == (1, [], "vd-simulate: the standard output is closed; redirect it, to /dev/null if nobody "
                                     "is to read it\n")
    assert announced.all == []


def test_a_hangup_that_nohup_ignores_is_no_end(announced, capfd, monkeypatch):
    async def run(_):
        os.kill(os.getpid(), signal.SIGHUP)
        raise OSError("later")
    former = signal.signal(signal.SIGHUP, signal.SIG_IGN)
    try:
        monkeypatch.setattr(Churn, "run", run)
        assert outcome(capfd)[0] == 1
        assert signal.getsignal(signal.SIGHUP) == signal.SIG_IGN
    finally:
        signal.signal(signal.SIGHUP, former)


class DeafLink:
    """Of the networks that it was to join it has joined none."""

    def __init__(self, interfaces, ip_version):
        self.engine = self
        self._respond_sockets = []


def test_a_network_that_cannot_be_joined_is_told_with_what_to_look_for(capfd, monkeypatch):
    monkeypatch.setattr(simulation.interfaces, "chosen", lambda _: [("lan0", "10.0.0.1")])
    monkeypatch.setattr(simulation.interfaces.zeroconf, "Zeroconf", DeafLink)
    monkeypatch.setattr(sys, "argv", ["vd-simulate", "--cameras", "2"])
    assert outcome(capfd) == (1, [], "vd-simulate: cannot speak multicast DNS on lan0: multicast is not possible there; "
                                     "is the interface up, and does no other program keep UDP port 5353 to itself?\n")
