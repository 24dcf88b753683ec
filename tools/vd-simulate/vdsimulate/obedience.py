# SPDX-License-Identifier: MIT
"""Devices that look for published reconfigurations and do as they are told."""

from .device import ALIVE
from .reconfiguration import Record, Refusal


class Obedience:
    """Each device that is there takes each record once; one that was away does so when it returns."""

    def __init__(self, fleet, actions, account, credentials, domain):
        self._fleet = fleet
        self._actions = actions
        self._account = account
        self._credentials = credentials
        self._domain = domain
        self._published = {}  # the present text by the name of who publishes it
        self._settled = set()  # (device, name, text): what is done or refused

    async def appear(self, name, text):
        """A text is published under a name, instead of any before it."""
        self._published[name] = text
        record = Record(text, self._domain)
        if not record.is_reconfiguration():
            return
        try:
            serial = record.serial()
        except Refusal as refusal:
            self._refuse_once(None, name, text, refusal)
            return
        devices = [device for device in self._fleet if device.serial_key and device.serial == serial]
        if not devices:
            self._refuse_once(None, name, text, f"no device has the serial number {serial.hex()}")
        for device in devices:
            await self._take_once(device, name, text)

    def disappear(self, name, text=None):
        """A text, or whatever the name had, is no longer published. Should it be so again, it counts as new."""
        present = self._published.get(name)
        if present is None or text not in (None, present):
            # The text from before a change, which others remember a little longer.
            return
        del self._published[name]
        self._settled = {entry for entry in self._settled if entry[1:] != (name, present)}

    async def catch_up(self, device):
        """A device has come back and finds what is published."""
        for name, text in list(self._published.items()):
            record = Record(text, self._domain)
            try:
                is_meant = record.is_reconfiguration() and record.serial() == device.serial
            except Refusal:
                continue
            if is_meant and device.serial_key:
                await self._take_once(device, name, text)

    async def _take_once(self, device, name, text):
        if device.presence != ALIVE or (device.name, name, text) in self._settled:
            return
        record = Record(text, self._domain)
        try:
            record.require(self._credentials)
            network, save = record.network(device.kind), record.save()
            self._require_free(network.addresses[0], device)
        except Refusal as refusal:
            self._refuse_once(device, name, text, refusal)
            return
        self._settled.add((device.name, name, text))
        await self._actions.reconfigure(device, network, save, name)

    def _require_free(self, address, device):
        user = self._fleet.other_user_of(address, device)
        if user:
            raise Refusal(f"NEWIP {address} belongs to '{user.name}'")

    def _refuse_once(self, device, name, text, reason):
        device_name = device.name if device else None
        if (device_name, name, text) not in self._settled:
            self._settled.add((device_name, name, text))
            self._account.tell("refused", device=device_name, record=name, reason=str(reason))
