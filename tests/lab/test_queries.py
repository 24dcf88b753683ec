# SPDX-License-Identifier: MIT
"""Queries that go on: the periodic one of all devices, and the long-lived one of a single device."""

import re
import statistics

import pytest

from labkit.devices import camera, camera_record, camera_txt, host_record, model_checksum
from labkit.probe import QUIET_S
from labkit.steps import Steps

QUERY = re.compile(r"AvahiServiceDiscovery::StartQueryRecords \(\) -> (\w+) on \w+\.local longLiveQuery 0")
RESOLVED = re.compile(r"AvahiServiceDiscovery::ServiceResolve\(\) -> resolving Vandrel service: (\w+) type: .*")
NAMES = ["Attic", "Boiler", "Cellar"]


class PeriodicQueries:
    """Three cameras are queried again and again, while one changes its text and one its addresses."""

    def __init__(self, stage):
        self.lab, probe, publisher = stage.set_up()
        probe.browse()
        publisher.publish(*(camera(name, name.lower(), f"10.77.0.{number}")
                            for number, name in enumerate(NAMES, 101)))
        self.steps = Steps(probe)
        step = self.steps.play
        step("found", 3, lambda: None)

        probe.call("start-query-all")
        self.began = probe.said.times[-1]
        probe.said.wait_for(lambda lines: any(QUERY.fullmatch(line.get("text", "")) for line in lines), 20)
        # Twice as quiet, as the text from before is an answer too for another second.
        step("text changed", 1, lambda: publisher.set_txt("Attic", camera_txt(model="Dome 5")), 2 * QUIET_S)
        step("address added", 1, lambda: publisher.add_address("Cellar", "10.77.0.203"))
        step("stopped", 0, lambda: probe.call("stop-query-all"))

        self.queried_and_resolved = _queried_and_resolved(probe.said)

    def times_of_queries(self):
        return [time - self.began for what, _, time in self.queried_and_resolved if what == "query"]


def _queried_and_resolved(said):
    """("query" or "resolved", name, time) for each, in their order."""
    happened = []
    for line, time in zip(said.all, said.times):
        for what, pattern in (("query", QUERY), ("resolved", RESOLVED)):
            match = pattern.fullmatch(line.get("text", ""))
            if match:
                happened.append((what, match[1], time))
    return happened


periodic = pytest.mark.story.with_args(PeriodicQueries)


@periodic
def test_the_first_periodic_query_comes_after_15_seconds_and_the_others_every_200_milliseconds(story):
    first, *others = story.times_of_queries()
    # A timer of Qt may be off by a twentieth.
    assert 14.25 < first < 16.5
    gaps = [later - earlier for earlier, later in zip([first, *others], others)]
    assert 0.19 < statistics.median(gaps) < 0.25


@periodic
def test_each_query_is_for_the_head_of_the_queue_which_changes_places_with_the_last_entry(story):
    queue = []
    for what, name, _ in story.queried_and_resolved:
        if what == "resolved":
            queue.append((name, "_http._tcp"))
        else:
            assert name == queue[0][0]
            queue[0], queue[-1] = queue[-1], queue[0]
    assert story.steps["stopped"].queue == queue


@periodic
def test_of_three_devices_only_the_first_and_the_last_are_queried(story):
    queried = [name for what, name, _ in story.queried_and_resolved if what == "query"]
    assert queried == [("Attic", "Cellar")[turn % 2] for turn in range(len(queried))]


@periodic
def test_a_periodic_query_signals_a_changed_text_once(story):
    attic = camera_record(story.lab, "Attic", "attic", modelName="Dome 5", txtChecksum=model_checksum("Dome 5"))
    assert story.steps["text changed"].signals == [("serviceText", attic)]


@periodic
def test_a_periodic_query_signals_an_address_that_was_added(story):
    cellar = camera_record(story.lab, "Cellar", "cellar", txtChecksum=model_checksum("Dome 4"),
                           addresses=["10.77.0.103", "10.77.0.203"])
    assert story.steps["address added"].signals == [("serviceAddress", cellar)]


@periodic
def test_nothing_is_queried_any_more_after_the_end_of_the_periodic_query(story):
    stopped = story.steps["stopped"]
    # One may have been due when it was stopped.
    assert sum(bool(QUERY.fullmatch(line)) for line in stopped.log) <= 1
    assert (stopped.signals, stopped.members["queryTimerActive"]) == ([], False)
    assert story.steps["address added"].members["queryTimerInterval"] == 200


class LongLivedQuery:
    """A camera with a long-lived query changes its text and its addresses; then the query is stopped."""

    def __init__(self, stage):
        self.lab, probe, publisher = stage.set_up()
        probe.browse()
        publisher.publish(camera())
        self.steps = Steps(probe)
        step = self.steps.play
        step("found", 1, lambda: None)
        step("started", 0, lambda: probe.start_query("Lobby", True))
        step("text changed", 1, lambda: publisher.set_txt("Lobby", camera_txt(model="Dome 5")))
        step("address added", 1, lambda: publisher.add_address("Lobby", "10.77.0.201"))
        step("address removed", 3, lambda: publisher.remove_address("Lobby", "10.77.0.101"))
        step("stopped", 0, lambda: probe.stop_query("Lobby"))
        step("text changed later", 0, lambda: publisher.set_txt("Lobby", camera_txt(model="Dome 6")))

    def record(self, **members):
        return camera_record(self.lab, **{"longLiveQuery": True, "modelName": "Dome 5",
                                          "txtChecksum": model_checksum("Dome 5"), **members})


long_lived = pytest.mark.story.with_args(LongLivedQuery)


@long_lived
def test_a_long_lived_query_signals_nothing_by_itself_and_keeps_its_resolver(story):
    started = story.steps["started"]
    assert started.signals == []
    assert started.table == {
        "Lobby": story.record(modelName="Dome 4", txtChecksum=model_checksum("Dome 4")),
        "camera-1.local": host_record()}
    assert (started.members["longLiveResolver"], started.members["longLiveRecordBrowser"]) == (True, True)


@long_lived
def test_a_long_lived_query_signals_a_changed_text_as_it_happens(story):
    assert story.steps["text changed"].signals == [("serviceText", story.record())]


@long_lived
def test_a_long_lived_query_signals_an_added_address_once(story):
    both = story.record(addresses=["10.77.0.101", "10.77.0.201"])
    assert story.steps["address added"].signals == [("serviceAddress", both)]


@long_lived
def test_a_long_lived_query_signals_a_removed_address_by_each_address_query_and_then_what_is_left(story):
    # There are two address queries: that of the start, and that of the resolve which the changed text brought.
    # The resolver that was kept looks for another address then, and finds one that the record no longer holds.
    removed = story.record(addresses=["10.77.0.101"], addressRemoved=True)
    left = story.record(addresses=["10.77.0.101", "10.77.0.201"], addressRemoved=True)
    assert story.steps["address removed"].signals == [
        ("serviceAddress", removed), ("serviceAddress", removed), ("serviceAddress", left)]


@long_lived
def test_the_queue_holds_an_entry_for_every_resolve_that_a_long_lived_query_brought(story):
    steps = ["found", "started", "text changed", "address added", "address removed", "text changed later"]
    queued = ("Lobby", "_http._tcp")
    assert [story.steps[step].queue for step in steps] == [count * [queued] for count in (1, 2, 3, 3, 4, 4)]


@long_lived
def test_a_long_lived_query_that_was_stopped_follows_the_text_no_longer(story):
    later = story.steps["text changed later"]
    left = story.record(addresses=["10.77.0.101", "10.77.0.201"], addressRemoved=True, longLiveQuery=False)
    assert (later.signals, later.table["Lobby"]) == ([], left)
    assert later.members["longLiveResolver"] is False
