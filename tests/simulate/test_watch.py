# SPDX-License-Identifier: MIT
"""What is made of the records that come in while reconfigurations are looked for."""

import asyncio

import pytest
from zeroconf import DNSPointer, DNSText, RecordUpdate, ServiceStateChange
from zeroconf.const import _CLASS_IN, _TYPE_PTR, _TYPE_TXT

from vdsimulate import watch

NOW = 1000000.0


class Network:
    def async_add_listener(self, listener, question):
        self.listener = listener


class Watched:
    """What a watch for _setup._tcp told, and whose text it asked for."""

    def __init__(self, monkeypatch):
        self.told, self.asked = [], []
        monkeypatch.setattr(watch, "AsyncServiceBrowser", lambda link, name, handlers: None)

    def ask_for_text(self, instance, service_type):
        self.asked.append((instance, service_type))

    def run(self, act):
        async def appear(name, text):
            self.told.append(("appear", name, text))

        async def all_told():
            follower = watch.TextWatch(Network(), self, "_setup._tcp", appear,
                                       lambda name, text: self.told.append(("disappear", name, text)))
            act(follower)
            try:
                await asyncio.wait_for(follower.run(), 0.05)
            except asyncio.TimeoutError:
                pass

        asyncio.run(all_told())
        return self.told


@pytest.fixture
def watched(monkeypatch):
    return Watched(monkeypatch)


def text_record(name, text=b"\x01a", ttl=4500):
    return RecordUpdate(DNSText(name, _TYPE_TXT, _CLASS_IN, ttl, text, created=NOW), None)


def pointer(name):
    return RecordUpdate(DNSPointer("_setup._tcp.local.", _TYPE_PTR, _CLASS_IN, 4500, name, created=NOW), None)


@pytest.mark.parametrize("full_name, name", [
    ("Move._setup._tcp.local.", "Move"), ("Move. It._setup._tcp.local.", "Move. It"),
    ("Küche._SETUP._tcp.LOCAL.", "Küche")])
def test_a_text_of_the_type_appears_under_the_name_of_its_service(watched, full_name, name):
    assert watched.run(lambda follower: follower.async_update_records(None, NOW, [text_record(full_name)])) == [
        ("appear", name, b"\x01a")]


@pytest.mark.parametrize("full_name", ["Lobby._http._tcp.local.", "_setup._tcp.local.", "x_setup._tcp.local."])
def test_a_text_of_something_else_is_none(watched, full_name):
    assert watched.run(lambda follower: follower.async_update_records(None, NOW, [text_record(full_name)])) == []


def test_a_record_that_is_no_text_is_not_looked_at(watched):
    update = pointer("Move._setup._tcp.local.")
    assert watched.run(lambda follower: follower.async_update_records(None, NOW, [update])) == []


def test_a_text_that_has_expired_disappears_with_its_bytes(watched):
    update = text_record("Move._setup._tcp.local.", b"\x01b", ttl=1)
    told = watched.run(lambda follower: follower.async_update_records(None, NOW + 1001, [update]))
    assert told == [("disappear", "Move", b"\x01b")]


def test_a_service_that_is_removed_disappears_whatever_its_text(watched):
    assert watched.run(lambda follower: follower._on_change(
        name="Move. It._setup._tcp.local.", state_change=ServiceStateChange.Removed)) == [
            ("disappear", "Move. It", None)]


@pytest.mark.parametrize("name, asked", [
    ("Move. It._setup._tcp.local.", [("Move. It", "_setup._tcp")]), ("x._other._udp.local.", []), (".", []), ("", [])])
def test_a_new_service_of_the_type_is_asked_for_its_text(watched, name, asked):
    watched.run(lambda follower: follower._on_change(name=name, state_change=ServiceStateChange.Added))
    assert (watched.told, watched.asked) == ([], asked)


def test_the_events_are_told_in_their_order(watched):
    def act(follower):
        follower.async_update_records(None, NOW, [text_record("a._setup._tcp.local."),
                                                  text_record("b._setup._tcp.local.")])
        follower._on_change(name="a._setup._tcp.local.", state_change=ServiceStateChange.Removed)
        follower.async_update_records(None, NOW, [text_record("a._setup._tcp.local.")])

    assert watched.run(act) == [("appear", "a", b"\x01a"), ("appear", "b", b"\x01a"), ("disappear", "a", None),
                                ("appear", "a", b"\x01a")]
