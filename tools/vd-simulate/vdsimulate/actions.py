# SPDX-License-Identifier: MIT
"""What can happen to a device: each is done, made known on the network, and told."""

import dataclasses

from . import txt
from .device import ALIVE, GONE, SILENT
from .requests import RequestError

MAX_RECORD = 8192
# Daemons lose some of many packets that come at once, and nobody can repeat what they lost at the end.
FINAL_GOODBYES = 3


class Actions:
    """`cause` is why it happens, for the account. RequestError is raised before anything has changed.

    A change is told at once and then made known, which may take its time, so that the account has all in order.
    """

    def __init__(self, fleet, announcer, account):
        self._fleet = fleet
        self._announcer = announcer
        self._account = account
        self._after_return = []

    def on_return(self, handler):
        """Calls the coroutine function `handler(device)` for each device that has come back."""
        self._after_return.append(handler)

    async def set_record(self, device, record, cause, event="text"):
        _require(device, ALIVE)
        if len(record) > MAX_RECORD:
            raise RequestError(f"a TXT record has at most {MAX_RECORD} bytes, not {len(record)}")
        device.record = record
        self._account.tell_of(event, device, cause=cause)
        await self._announcer.publish([device])

    async def set_serial(self, device, serial, cause):
        if not device.serial_key:
            raise RequestError(f"'{device.name}' has no serial number, as it is no camera and no storage server")
        strings = txt.with_string(txt.strings_of(device.record), device.serial_key,
                                  txt.pair(device.serial_key, serial))
        _require(device, ALIVE)
        device.serial = serial
        await self.set_record(device, txt.record_of(strings), cause, "serial")

    async def set_address(self, device, address, cause):
        self._require_new(device, address)
        await self._change_addresses("address", device, [address], cause)

    async def add_address(self, device, address, cause):
        self._require_new(device, address)
        await self._change_addresses("add-address", device, [*device.addresses, address], cause)

    async def remove_address(self, device, address, cause):
        if address not in device.addresses:
            raise RequestError(f"'{device.name}' has not the address {address}")
        await self._change_addresses("remove-address", device,
                                     [known for known in device.addresses if known != address], cause)

    async def goodbye(self, devices, cause, is_final=False):
        _require_all(devices, ALIVE)
        for device in devices:
            device.presence = GONE
        self._tell_of_all("goodbye", devices, cause)
        await self._announcer.withdraw(devices, times=FINAL_GOODBYES if is_final else 1)

    async def silence(self, devices, cause):
        _require_all(devices, ALIVE)
        for device in devices:
            device.presence = SILENT
        self._tell_of_all("silence", devices, cause)
        self._announcer.forget(devices)

    async def come_back(self, devices, cause):
        """As after a restart: what was not saved is forgotten."""
        _require_all(devices, SILENT, GONE)
        for device in devices:
            device.presence = ALIVE
            if device.saved:
                device.network, device.saved = device.saved, None
        self._tell_of_all("return", devices, cause)
        await self._announcer.publish(devices)
        for handler in self._after_return:
            for device in devices:
                await handler(device)

    async def reconfigure(self, device, network, save, record_name):
        """Takes new settings, for good or until it restarts."""
        device.saved = None if save else device.saved or device.network
        await self._renumber(device, network, "obeyed", cause="record", record=record_name, save=save)

    async def _change_addresses(self, event, device, addresses, cause):
        _require(device, ALIVE)
        network = dataclasses.replace(device.network, addresses=tuple(addresses))
        await self._renumber(device, network, event, cause=cause)

    async def _renumber(self, device, network, event, **told):
        given_up = [address for address in device.addresses if address not in network.addresses]
        device.network = network
        self._account.tell_of(event, device, **told)
        if given_up:
            await self._announcer.withdraw_addresses([device], given_up)
        await self._announcer.publish([device])

    def _require_new(self, device, address):
        user = device if address in device.addresses else self._fleet.other_user_of(address, device)
        if user:
            raise RequestError(f"the address {address} belongs to '{user.name}' already")

    def _tell_of_all(self, event, devices, cause):
        for device in devices:
            self._account.tell_of(event, device, cause=cause)


def _require(device, *presences):
    if device.presence not in presences:
        remedy = 'bring it back with "return"' if device.presence != ALIVE else "it need not return"
        raise RequestError(f"'{device.name}' is {device.presence}; {remedy}")


def _require_all(devices, *presences):
    for device in devices:
        _require(device, *presences)
