# SPDX-License-Identifier: MIT
"""The daemon and the bus break 200 times at random moments, while clients of all kinds are at work.

Four courses of events, side by side, each with random numbers of its own. VD_FAULTS_SEED=N plays others.
"""

import os
import random
import sys
import time

import pytest

from labkit.lines import wait_until
from labkit.paths import BUILD, ROOT
from labkit.random_faults import BREAKS, PUBLISHED_TYPE, TYPES, Breakdowns, Devices, Host, Passers, play
from labkit.usage import handles

sys.path.insert(0, str(ROOT / "bench"))

from tables import Comparison, objects_amiss  # noqa: E402

SOAK_CLIENT = BUILD / "bench" / "soak-client"
FIRST_SEED = int(os.environ.get("VD_FAULTS_SEED", "1"))
COURSES = 4
CYCLES = 50
# The managed client that queries nobody sees what changed when the daemon is back, so nothing changes after that.
LAST_CYCLES = 3
DEVICES = 24
QUERIES = 5

# The longest hang, and what a machine that is busy with all this adds to it.
LONGEST_CALL_S = 6
# A run of vd-discover that hangs is ended 4 s after its time at the latest.
LATEST_END_S = 8
# A device that went unseen is lost 15 s after discovery has begun again.
SETTLED_WITHIN_S = 45
# A second of them.
LEVEL_SAMPLES = 5

ACTIONS = ("begin_anew", "terminate", "register", "withdraw", "query", "stop_query", "query_all")


class Clients:
    """Everybody in the lab of one course of events."""

    def __init__(self, stage, seed):
        self._stage = stage
        chances = (random.Random(f"{seed} {number}") for number in range(16))
        self.lab = stage.lab()
        self.simulator = stage.simulator(self.lab, "--cameras", str(DEVICES), "--seed", str(seed))
        names = self.simulator.names()
        self.steady = stage.probe(self.lab, "--queries", QUERIES, "--interval", "200", program=[SOAK_CLIENT])
        self._probes = stage.probe(self.lab, "--managed"), stage.probe(self.lab)
        self.managed, self.plain = (Host(probe, next(chances), names, ACTIONS) for probe in self._probes)
        self.passers = Passers(self.lab, next(chances))
        self.breakdowns = Breakdowns(self.lab, next(chances))
        self._devices = Devices(self.simulator, next(chances)), next(chances)
        self._actors = [(actor, next(chances)) for actor in (self.managed, self.plain, self.passers)]
        assert self.steady.call("register", name="Steady", type=PUBLISHED_TYPE, userName="admin") is True

    def play(self):
        play(CYCLES - LAST_CYCLES, self.breakdowns, [self._devices, *self._actors])
        play(LAST_CYCLES, self.breakdowns, self._actors)

    def wrong_with_steady(self):
        """What differs in the table of the steady client, after a round of queries at the latest."""
        return until_nothing(lambda: self._compared(self.steady.dump()).differences)

    def wrong_with_steady_at_rest(self):
        """What else is wrong when it only follows."""
        self.steady.call("stop-query-all")
        return until_nothing(self._wrong_with_objects)

    def held_by_steady(self):
        """What it holds of the machine, once it stays the same."""
        samples = []

        def is_level():
            samples.append(self._sample_of_steady())
            return samples[-LEVEL_SAMPLES:] == LEVEL_SAMPLES * samples[-1:]

        assert wait_until(is_level, SETTLED_WITHIN_S), samples
        return samples[-1]

    def _sample_of_steady(self):
        before = len(self.steady.said.all)
        sample = self.steady.said.wait_for(lambda lines: next(
            (line for line in lines[before:] if line["event"] == "sample"), None))
        return {**handles(self.steady.pid), "timers": sample["timers"], "Qt objects": sample["qtObjects"]}

    def wrong_with_managed(self):
        """What differs in the table of the other managed client, which goes on as it was left."""
        for service_type in TYPES:
            self.managed.call("browse", type=service_type)
        return until_nothing(lambda: self._compared(self._probes[0].dump()).differences)

    def wrong_with_plain(self):
        """Who is missing or too many when the plain client has begun anew."""
        assert self.plain.begin_anew()
        return until_nothing(self._wrong_with_plain)

    def published(self):
        """The names that another host sees, after both have published a last service of their own."""
        for probe, name in zip(self._probes, ("Managed", "Plain")):
            probe.call("terminate-registration")
            assert probe.register(name, PUBLISHED_TYPE, userName="admin") is True
        reader = self._stage.reader(self.lab, PUBLISHED_TYPE)
        names = ("Steady", "Managed", "Plain")
        for name in names:
            reader.wait_for("found", name)
        return {line["name"] for line in reader.events()}

    def _compared(self, members):
        services = {key: dict(record) for key, record in members["services"]}
        return Comparison(self.simulator.state(), services, members["recordQueue"])

    def _wrong_with_objects(self):
        members = self.steady.dump()
        objects = list(members["avahiObjects"])
        if "entry group" not in objects:
            return ["nothing is published"]
        objects.remove("entry group")
        services = {key: dict(record) for key, record in members["services"]}
        return objects_amiss(services, members["queries"], objects)

    def _wrong_with_plain(self):
        alive = {name for name, device in self.simulator.state().items() if device["presence"] == "alive"}
        known = {key for key, record in self._probes[1].table().items() if dict(record)["deviceKind"]}
        return sorted(alive ^ known)


def until_nothing(wrong):
    """What is wrong when it is over, or after a while."""
    last = []

    def is_nothing():
        last[:] = wrong()
        return not last

    wait_until(is_nothing, SETTLED_WITHIN_S)
    return last


@pytest.mark.parametrize("seed", range(FIRST_SEED, FIRST_SEED + COURSES))
def test_clients_get_over_whatever_breaks_at_whatever_moment(stage, seed):
    clients = Clients(stage, seed)
    assert clients.wrong_with_steady() + clients.wrong_with_steady_at_rest() == []
    held_before = clients.held_by_steady()
    clients.steady.call("start-query-all")
    begin = time.monotonic()
    clients.play()
    played = time.monotonic() - begin

    assert clients.wrong_with_steady() == []
    assert clients.wrong_with_steady_at_rest() == []
    assert wait_until(lambda: clients.held_by_steady() == held_before, SETTLED_WITHIN_S), (
        f"{held_before} before, {clients.held_by_steady()} now")
    assert clients.wrong_with_managed() == []
    assert clients.wrong_with_plain() == []
    assert clients.published() == {"Steady", "Managed", "Plain"}

    assert {*clients.breakdowns.counts} == {f"{service} {how}" for service, how in BREAKS}
    assert clients.breakdowns.counts.total() == CYCLES

    passers = clients.passers
    print(f"seed {seed}: {CYCLES} cycles in {played:.0f} s {dict(clients.breakdowns.counts)}, over after "
          f"{time.monotonic() - begin:.0f} s; {passers.runs} runs of vd-discover, statuses {passers.statuses}, latest "
          f"end {passers.latest_end}; {clients.managed.calls} and {clients.plain.calls} calls, slowest "
          f"{clients.managed.slowest} and {clients.plain.slowest}; held {held_before}")
    assert passers.statuses <= {0, 1, 3}
    assert passers.strange_lines == []
    assert passers.latest_end[0] < LATEST_END_S
    assert max(clients.managed.slowest, clients.plain.slowest)[0] < LONGEST_CALL_S
