# SPDX-License-Identifier: MIT
"""Changes by chance."""

import asyncio
import random
from collections import Counter

from simkit import Simulated

from vdsimulate.actions import Actions
from vdsimulate.churn import Churn
from vdsimulate.fleet import AddressPlan, make_fleet


def churned(seed, changes, simulated=None):
    simulated = simulated or Simulated()
    churn = Churn(simulated.fleet, simulated.actions, random.Random(seed))

    async def run():
        for _ in range(changes):
            await churn.change()

    asyncio.run(run())
    return simulated


def test_the_same_seed_brings_the_same_changes():
    first, second = churned(3, 300), churned(3, 300)
    assert first.account.all == second.account.all
    assert first.announced.all == second.announced.all


def test_another_seed_brings_other_changes():
    assert churned(3, 30).account.all != churned(4, 30).account.all


def test_every_kind_of_change_occurs_and_each_is_told_as_made_by_chance():
    told = churned(1, 600).account.all
    assert {event for event, _ in told} == {"text", "address", "add-address", "remove-address", "goodbye", "silence",
                                            "return", "serial", "malformed"}
    assert {members["cause"] for _, members in told} == {"churn"}
    assert len(told) == 600


def test_a_device_keeps_one_address_and_has_never_more_than_four():
    counts = Counter(len(members["state"]["addresses"]) for _, members in churned(1, 2000).account.all)
    assert counts.keys() == {1, 2, 3, 4}


def test_no_two_devices_ever_have_one_address():
    simulated = Simulated()
    churn = Churn(simulated.fleet, simulated.actions, random.Random(1))
    for _ in range(500):
        asyncio.run(churn.change())
        addresses = [address for device in simulated.fleet for address in device.addresses]
        assert len(addresses) == len(set(addresses))


def test_malformed_records_are_of_many_kinds_and_a_later_text_mends_them():
    told = churned(1, 2000).account.all
    malformed = [members["state"] for event, members in told if event == "malformed"]
    texts = [members["state"] for event, members in told if event == "text"]
    assert len({str(state["txt"]) + state.get("record", "whole") for state in malformed}) > 20
    assert any("record" in state for state in malformed) and not any("record" in state for state in texts)
    assert all({"raw": ""} not in state["txt"] for state in texts)


def test_the_account_follows_what_is_announced():
    simulated = churned(5, 400)
    for device in simulated.fleet:
        last = [entry for what, *entries in simulated.announced.all if what == "publish"
                for entry in entries if entry[0] == device.name][-1]
        assert last == (device.name, device.addresses, device.record)


def test_a_full_network_brings_no_change_of_addresses():
    fleet = make_fleet({"camera": 2, "storage": 0, "other": 0}, AddressPlan("10.0.0.0/30"), random.Random(1), "x.y")
    simulated = Simulated()
    simulated.fleet = fleet
    simulated.actions = Actions(fleet, simulated.announced, simulated.account)
    churned(1, 200, simulated)
    assert {device.addresses[0] for device in fleet} == {"10.0.0.1", "10.0.0.2"}
    assert "address" not in {event for event, _ in simulated.account.all}


async def run_for(churn, seconds):
    try:
        await asyncio.wait_for(churn.run(), seconds)
    except asyncio.TimeoutError:
        pass


def test_as_many_changes_are_made_as_the_rate_says(simulated):
    simulated.churn.set_rate(40)
    asyncio.run(run_for(simulated.churn, 1.02))
    assert 36 <= len(simulated.account.all) <= 41


def test_without_a_rate_nothing_changes(simulated):
    asyncio.run(run_for(simulated.churn, 0.3))
    assert simulated.account.all == []


def test_another_rate_counts_at_once_and_none_is_the_end(simulated):
    async def act():
        running = asyncio.create_task(run_for(simulated.churn, 2))
        simulated.churn.set_rate(0.01)
        await asyncio.sleep(0.1)
        simulated.churn.set_rate(50)
        await asyncio.sleep(0.5)
        await simulated.commands.handle('{"command": "churn", "rate": 0}', "input", 1)
        count = len(simulated.account.all)
        await running
        return count

    count = asyncio.run(act())
    assert 20 <= count <= 27 and len(simulated.account.all) == count


def test_the_text_of_a_printer_gets_a_note():
    notes = [members["state"]["txt"] for event, members in churned(1, 300).account.all
             if event == "text" and members["device"] == "Printer"]
    assert notes and all([entry["key"] for entry in note] == ["ty", "note"] for note in notes)
