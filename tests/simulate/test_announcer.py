# SPDX-License-Identifier: MIT
"""The packets by which a fleet is made known."""

import asyncio
import random
from collections import deque
from types import SimpleNamespace

import pytest
from zeroconf import DNSAddress, DNSIncoming, DNSPointer, DNSService, DNSText, ServiceRegistry
from zeroconf.const import _TYPE_TXT

from vdsimulate import announcer
from vdsimulate.announcer import Announcer
from vdsimulate.fleet import AddressPlan, make_fleet


class Link:
    """Takes packets instead of sending them."""

    def __init__(self, known=()):
        self.registry = ServiceRegistry()
        self.cache = SimpleNamespace(get_by_details=lambda name, *_: name in known)
        self._out_queue = self._out_delay_queue = SimpleNamespace(queue=deque())
        self.packets = []

    def async_send(self, outgoing):
        self.packets += outgoing.packets()

    def records(self):
        return [record for packet in self.packets for record in DNSIncoming(packet).answers]

    def of(self, device):
        """The remaining times of the pointers to a device, in their order."""
        return [record.ttl for record in self.records()
                if isinstance(record, DNSPointer) and record.alias.startswith(f"{device.name}._")]


@pytest.fixture
def link(monkeypatch):
    monkeypatch.setattr(announcer, "REPEAT_AFTER_SECONDS", 0.02)
    monkeypatch.setattr(announcer, "GOODBYE_AGAIN_AFTER_SECONDS", 0.02)
    return Link()


def devices(count):
    counts = {"camera": count, "storage": 0, "other": 0}
    return list(make_fleet(counts, AddressPlan("10.0.0.0/16"), random.Random(1), "vandrel.com"))


def test_a_device_is_announced_with_all_its_records_in_one_packet(link):
    async def act():
        await Announcer(link).publish(devices(1))

    asyncio.run(act())
    [packet] = link.packets
    assert [type(record) for record in DNSIncoming(packet).answers] == [DNSPointer, DNSService, DNSText, DNSAddress]
    [text] = [record.text for record in link.records() if isinstance(record, DNSText)]
    assert text == devices(1)[0].record


def test_a_thousand_devices_fill_few_packets_that_ethernet_carries_and_no_device_is_torn_apart(link):
    async def act():
        await Announcer(link).publish(devices(1000))

    asyncio.run(act())
    assert len(link.packets) < 250 and max(map(len, link.packets)) <= 1460
    assert {len(DNSIncoming(packet).answers) % 4 for packet in link.packets} == {0}


def test_packets_are_sent_no_faster_than_a_daemon_takes_them(link):
    async def act():
        begin = asyncio.get_running_loop().time()
        await Announcer(link).publish(devices(200))
        return asyncio.get_running_loop().time() - begin

    seconds = asyncio.run(act())
    assert seconds > 0.01 * (len(link.packets) // 4 - 1) > 0.08


def test_an_announcement_is_repeated_for_those_that_are_still_there(link):
    async def act():
        speaker, fleet = Announcer(link), devices(3)
        await speaker.publish(fleet)
        speaker.forget(fleet[:1])
        await asyncio.sleep(0.1)
        return fleet

    fleet = asyncio.run(act())
    assert [len(link.of(device)) for device in fleet] == [1, 2, 2]


def test_a_goodbye_may_be_said_several_times(link):
    async def act():
        speaker, fleet = Announcer(link), devices(2)
        await speaker.publish(fleet)
        await speaker.withdraw(fleet[:1])
        await speaker.withdraw(fleet[1:], times=3)
        return fleet

    fleet = asyncio.run(act())
    assert [link.of(device) for device in fleet] == [[4500, 0], [4500, 0, 0, 0]]


def test_the_address_of_a_host_that_others_stand_on_is_not_bidden_farewell(link):
    async def act():
        speaker, fleet = Announcer(link), devices(1)
        await speaker.publish(fleet)
        await speaker.withdraw(fleet, hosts_kept=[fleet[0].host])

    asyncio.run(act())
    assert [record.ttl for record in link.records() if isinstance(record, DNSAddress)] == [120]


@pytest.mark.parametrize("times", [1, 3])
def test_who_comes_back_while_goodbyes_are_said_gets_none_any_more(link, times):
    async def act():
        speaker, fleet = Announcer(link), devices(100)
        await speaker.publish(fleet)
        goodbyes = asyncio.create_task(speaker.withdraw(fleet, times=times))
        await asyncio.sleep(0)
        await speaker.publish(fleet[-1:])
        await goodbyes
        return fleet

    fleet = asyncio.run(act())
    assert (link.of(fleet[-1])[-1], link.of(fleet[0])[-1]) == (4500, 0)


def test_what_was_never_published_is_bidden_no_farewell(link):
    asyncio.run(Announcer(link).withdraw(devices(3)))
    assert link.packets == []


@pytest.mark.parametrize("name, known, questions", [
    ("Move. It", (), 1), ("Move. It", ("Move. It._setup._tcp.local.",), 0), ("x" * 63, (), 1), ("x" * 64, (), 0),
    ("\uFFFD" * 21, (), 1), ("\uFFFD" * 22, (), 0), ("", (), 0)])
def test_the_text_of_a_name_that_can_be_is_asked_for_unless_it_is_known(name, known, questions):
    link = Link(known)
    Announcer(link).ask_for_text(name, "_setup._tcp")
    asked = [(question.name, question.type) for packet in link.packets for question in DNSIncoming(packet).questions]
    assert len(link.packets) == questions
    assert asked == questions * [(f"{name}._setup._tcp.local.", _TYPE_TXT)]
    assert all(bytes([len(name.encode())]) + name.encode() in packet for packet in link.packets)
