# SPDX-License-Identifier: MIT
"""Changes by chance: which device, and what happens to it, is up to the dice."""

import asyncio
import time

from . import catalogue, txt
from .device import ALIVE, CAMERA, STORAGE

CAUSE = "churn"

# How often each of the changes is thrown, if the device can undergo it.
WEIGHTS = {"text": 5, "address": 2, "add-address": 2, "remove-address": 2, "goodbye": 1, "silence": 1, "serial": 1,
           "malformed": 1}

MAX_ADDRESSES = 4
MAX_CHURN_RATE = 100


class Churn:
    def __init__(self, fleet, actions, random):
        self._fleet = fleet
        self._actions = actions
        self._random = random
        self._rate = 0
        self._rate_set = asyncio.Event()

    def set_rate(self, rate):
        """So many changes a second from now on."""
        self._rate = rate
        self._rate_set.set()

    async def run(self):
        """Makes changes until it is cancelled."""
        due = 0
        while True:
            # One that is late does not make the next ones late.
            due = max(due + 1 / self._rate, time.monotonic()) if self._rate else 0
            patience = due - time.monotonic() if self._rate else None
            try:
                await asyncio.wait_for(self._rate_set.wait(), patience)
            except asyncio.TimeoutError:
                pass
            # A rate that is set in the moment at which a change is due counts already.
            if self._rate_set.is_set():
                self._rate_set.clear()
                due = time.monotonic()
            else:
                await self.change()

    async def change(self):
        device = self._random.choice(list(self._fleet))
        if device.presence != ALIVE:
            await self._actions.come_back([device], CAUSE)
            return
        await self._changes()[self._throw(device)](device)

    def _throw(self, device):
        impossible = set()
        if not device.serial_key:
            impossible.add("serial")
        if len(device.addresses) < 2:
            impossible.add("remove-address")
        if len(device.addresses) >= MAX_ADDRESSES:
            impossible.add("add-address")
        possible = [change for change in WEIGHTS if change not in impossible]
        return self._random.choices(possible, [WEIGHTS[change] for change in possible])[0]

    def _changes(self):
        actions = self._actions
        return {
            "text": self._text,
            "address": lambda device: self._address(actions.set_address, device),
            "add-address": lambda device: self._address(actions.add_address, device),
            "remove-address": lambda device: actions.remove_address(
                device, self._random.choice(device.addresses), CAUSE),
            "goodbye": lambda device: actions.goodbye([device], CAUSE),
            "silence": lambda device: actions.silence([device], CAUSE),
            "serial": lambda device: actions.set_serial(device, self._bytes(self._random.choice([3, 3, 3, 0, 2, 9])),
                                                        CAUSE),
            "malformed": lambda device: actions.set_record(device, self._malformed(device), CAUSE, "malformed"),
        }

    async def _address(self, change, device):
        address = self._fleet.free_address(self._random)
        if address:
            await change(device, address, CAUSE)

    async def _text(self, device):
        """Another value for the first string, which also mends a record that was malformed."""
        key, values = _telling(device)
        string = txt.pair(key, self._random.choice(values).encode())
        record = txt.record_of(txt.with_string(_sound_strings(device), key, string))
        await self._actions.set_record(device, record, CAUSE)

    def _malformed(self, device):
        strings = _sound_strings(device)
        key = txt.key_of(strings[0]) if strings else b"key"
        return self._random.choice([
            b"",                                                    # no length at all
            b"\0",                                                  # nothing but an empty string
            txt.record_of([key, *strings[1:]]),                     # a key without a value
            txt.record_of([b"=" + self._bytes(5), *strings]),       # a value without a key
            txt.record_of([b"", *strings]),                         # an empty string among others
            txt.record_of([*strings, key + b"=again"]),             # a key twice
            txt.record_of([*strings, self._bytes(255)]),            # the longest string, of any bytes
            txt.record_of(strings)[:-1],                            # the last length promises too much
        ])

    def _bytes(self, count):
        return bytes(self._random.randrange(256) for _ in range(count))


def _sound_strings(device):
    """The text of a device as it is when nothing is wrong with it."""
    strings = list(filter(None, txt.strings_of(device.original)))
    if not device.serial_key:
        return strings
    return txt.with_string(strings, device.serial_key, txt.pair(device.serial_key, device.serial))


def _telling(device):
    """The key that tells something new now and then, and what it may tell."""
    domain = device.serial_key.partition(".")[2]
    if device.kind == CAMERA:
        return f"error.{domain}", sorted(set(catalogue.CAMERA_ERRORS))
    if device.kind == STORAGE:
        return f"freecapacity.{domain}", [f"{number} TB" for number in range(13)]
    return "note", catalogue.PLACES
