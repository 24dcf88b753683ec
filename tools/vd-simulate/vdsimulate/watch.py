# SPDX-License-Identifier: MIT
"""Follows the TXT records of all services of one type."""

import asyncio

import zeroconf
from zeroconf.asyncio import AsyncServiceBrowser


class TextWatch(zeroconf.RecordUpdateListener):
    """Awaits `appear(name, text)` for what is published, and calls `disappear(name, text)` for what no longer is.

    With None for its text the whole service is gone. The events come one after the other, in their order.
    """

    def __init__(self, link, announcer, service_type, appear, disappear):
        self._announcer = announcer
        self._type = service_type
        self._suffix = f".{service_type}.local."
        self._appear = appear
        self._disappear = disappear
        self._events = asyncio.Queue()
        link.async_add_listener(self, None)
        AsyncServiceBrowser(link, f"{service_type}.local.", handlers=[self._on_change])

    async def run(self):
        while True:
            name, text, is_there = await self._events.get()
            if is_there:
                await self._appear(name, text)
            else:
                self._disappear(name, text)

    def async_update_records(self, _, now, records):
        for update in records:
            record = update.new
            if isinstance(record, zeroconf.DNSText) and record.name.lower().endswith(self._suffix.lower()):
                self._events.put_nowait((self._instance(record.name), record.text, not record.is_expired(now)))

    def async_update_records_complete(self):
        pass

    def _on_change(self, name, state_change, **_):
        if not name.lower().endswith(self._suffix.lower()):
            # Anybody can say that anything is a service of this type.
            return
        if state_change is zeroconf.ServiceStateChange.Removed:
            self._events.put_nowait((self._instance(name), None, False))
        elif state_change is zeroconf.ServiceStateChange.Added:
            # The text comes by itself with most publishers; others have to be asked for it.
            self._announcer.ask_for_text(self._instance(name), self._type)

    def _instance(self, full_name):
        return full_name[:-len(self._suffix)]
