# SPDX-License-Identifier: MIT
"""What a host sees of a daemon that hangs: which of the operations wait for it, and in which thread."""

import time

import pytest

from labkit.devices import camera

# A thread that no call holds up answers in far less, on a busy machine too.
PROMPT_S = 0.5
HANG_S = 3
# D-Bus gives a call up then.
CALL_S = 25
NEW_ADDRESS = "10.77.0.250"


def found(stage, *options):
    """A lab, a probe that knows one camera and is left in peace, and its publisher."""
    lab = stage.lab()
    probe, publisher = stage.probe(lab, "--managed", *options), stage.publisher(lab)
    assert probe.call("browse", type="_http._tcp") is True
    publisher.publish(camera())
    assert [name for name, _ in probe.take_signals(1)] == ["serviceFound"]
    return lab, probe, publisher


def answers(lines, command):
    return [line for line in lines if line["event"] == "answer" and line["command"] == command]


def slowest_beat(probe):
    """How long the probe's main thread took to answer at most, asked all the time while the daemon hangs."""
    slowest, beats, end = 0, 0, time.monotonic() + HANG_S
    while time.monotonic() < end:
        asked, beats = time.monotonic(), beats + 1
        probe.post("beat")
        assert probe.said.wait_for(lambda lines, count=beats: len(answers(lines, "beat")) == count)
        slowest = max(slowest, time.monotonic() - asked)
        time.sleep(0.1)
    return slowest


@pytest.mark.parametrize("long_lived", [True, False], ids=["long-lived", "once"])
def test_a_query_does_not_wait_for_a_daemon_that_hangs(stage, long_lived):
    lab, probe, publisher = found(stage)
    lab.fault("viewer", "daemon-hang")
    publisher.add_address("Lobby", NEW_ADDRESS)
    asked = time.monotonic()
    assert probe.start_query("Lobby", long_lived) is True
    assert time.monotonic() - asked < PROMPT_S
    assert slowest_beat(probe) < PROMPT_S
    assert probe.take_signals(0, quiet=0) == []

    lab.fault("viewer", "daemon-continue")
    [(name, record)] = probe.take_signals(1)
    assert name == "serviceAddress"
    assert dict(record)["addresses"] == [camera().addresses[0], NEW_ADDRESS]
    assert dict(record)["longLiveQuery"] is long_lived


def test_a_daemon_that_hangs_from_the_start_holds_up_the_first_attempt_alone(stage):
    lab = stage.lab()
    probe, publisher = stage.probe(lab, "--managed"), stage.publisher(lab)
    publisher.publish(camera())
    lab.fault("viewer", "daemon-hang")
    probe.post("browse", type="_http._tcp")
    assert probe.said.wait_for(lambda lines: answers(lines, "browse"), CALL_S + 10)
    assert slowest_beat(probe) < PROMPT_S

    lab.fault("viewer", "daemon-continue")
    assert [name for name, _ in probe.take_signals(1)] == ["serviceFound"]


def test_browsing_ends_at_once_though_the_daemon_hangs(stage):
    lab, probe, _ = found(stage)
    assert probe.call("browse", type="_https._tcp") is True
    lab.fault("viewer", "daemon-hang")
    asked = time.monotonic()
    assert probe.call("terminate") is True
    assert time.monotonic() - asked < PROMPT_S
    lab.fault("viewer", "daemon-continue")


def test_a_daemon_that_hangs_holds_up_the_thread_of_discovery_alone(stage):
    lab, probe, _ = found(stage, "--discover-in-thread")
    lab.fault("viewer", "daemon-hang")
    # A further type is browsed at once, and what is asked of that thread afterwards has to wait.
    probe.post("browse", type="_https._tcp")
    probe.post("is-browsing")
    assert slowest_beat(probe) < PROMPT_S
    assert len(answers(probe.said.all, "browse")) == 1
    assert answers(probe.said.all, "is-browsing") == []

    lab.fault("viewer", "daemon-continue")
    assert probe.said.wait_for(lambda lines: answers(lines, "is-browsing"))
    assert [answer["result"] for answer in answers(probe.said.all, "browse")] == [True, True]
    assert list(probe.table()) == ["Lobby"]
