# SPDX-License-Identifier: MIT
"""Publishes services by python-zeroconf, at once: without probing, and with no more packets than are needed.

A service is any object with `name`, `type`, `host`, `port`, `addresses` and `record`, the bytes of its TXT record.
"""

import asyncio
import socket

import zeroconf
from zeroconf import const

from .dotted_names import DottedNames

REPEAT_AFTER_SECONDS = 1.0
GOODBYE_AGAIN_AFTER_SECONDS = 0.2

# So many packets are sent at once: more would overrun the receive buffer of a daemon that listens.
BURST = 4
BURST_PAUSE_SECONDS = 0.01

# A service of the usual size takes a third of a packet, which is filled up to what Ethernet carries.
PACKET_ROOM = 1440

MAX_LABEL = 63


class Announcer:
    """Its coroutines belong to the loop of its Zeroconf object, as the registry does."""

    def __init__(self, link):
        self._zeroconf = link
        self._names = DottedNames()
        self._infos = {}  # by full name
        self._repetitions = set()

    async def publish(self, services):
        """Announces services, new ones or changed ones, and does so once more after a second."""
        self._register(services)
        await self._announce(services)
        self._announce_again(services)

    async def withdraw_addresses(self, services, addresses):
        """Says goodbye for addresses that the one host of these services has no longer."""
        self._register(services)
        # Without the cache-flush bit, so that it speaks of these addresses and not of the others.
        host = f"{services[0].host}.local."
        records = [zeroconf.DNSAddress(host, const._TYPE_A, const._CLASS_IN, 0, socket.inet_aton(address))
                   for address in addresses]
        await self._send([records])

    async def withdraw(self, services, hosts_kept=(), times=1):
        """Says goodbye for services, as far as they are published, but not for the addresses of these hosts."""
        goodbyes = {_full_name(service): service.host not in hosts_kept for service in services}
        goodbyes = {name: _records(self._infos[name], 0, with_addresses)
                    for name, with_addresses in goodbyes.items() if name in self._infos}
        self.forget(services)
        await self._say(goodbyes)
        for _ in range(times - 1):
            await asyncio.sleep(GOODBYE_AGAIN_AFTER_SECONDS)
            await self._say(goodbyes)

    def forget(self, services):
        """Stops to answer for services, silently."""
        infos = [self._infos.pop(name) for name in map(_full_name, services) if name in self._infos]
        self._zeroconf.registry.async_remove(infos)
        self._drop_waiting_answers(infos)

    def _register(self, services):
        """Answers for services as they are now."""
        self.forget(services)
        for service in services:
            self._infos[_full_name(service)] = info = self._make_info(service)
            self._zeroconf.registry.async_add(info)

    def ask_for_text(self, instance, service_type):
        """Asks for the TXT record of somebody else's service unless it is known already."""
        full_name = f"{instance}.{service_type}.local."
        is_known = self._zeroconf.cache.get_by_details(full_name, const._TYPE_TXT, const._CLASS_IN)
        # One with bytes that are no text has grown when they were replaced, and is nobody's name.
        if is_known or not 1 <= len(instance.encode()) <= MAX_LABEL:
            return
        self._names.register(full_name, instance)
        question = zeroconf.DNSOutgoing(const._FLAGS_QR_QUERY)
        question.add_question(zeroconf.DNSQuestion(full_name, const._TYPE_TXT, const._CLASS_IN))
        self._zeroconf.async_send(question)

    # Sending takes its time when there is much to be sent, and what was true when it began need not be so later.

    async def _announce(self, services):
        names = list(map(_full_name, services))
        await self._send(_records(self._infos[name], None, True) for name in names if name in self._infos)

    async def _say(self, goodbyes):
        await self._send(records for name, records in goodbyes.items() if name not in self._infos)

    def _announce_again(self, services):
        async def repeat():
            await asyncio.sleep(REPEAT_AFTER_SECONDS)
            await self._announce(services)

        task = asyncio.get_running_loop().create_task(repeat())
        self._repetitions.add(task)
        task.add_done_callback(self._repetitions.discard)

    async def _send(self, groups):
        """Sends groups of records, as many in a packet as it holds; all at once when they are few."""
        for count, packet in enumerate(_packed(groups)):
            if count and count % BURST == 0:
                await asyncio.sleep(BURST_PAUSE_SECONDS)
            self._zeroconf.async_send(packet)

    def _drop_waiting_answers(self, infos):
        # Answers wait up to a second for company, and would contradict what is said meanwhile.
        names = {name for info in infos for name in (info.key, info.server_key)}

        def speaks_of_them(record):
            return (record.name.lower() in names
                    or isinstance(record, zeroconf.DNSPointer) and record.alias.lower() in names)

        for queue in (self._zeroconf._out_queue.queue, self._zeroconf._out_delay_queue.queue):
            for group in queue:
                for record in list(filter(speaks_of_them, group.answers)):
                    del group.answers[record]

    def _make_info(self, service):
        full_name = _full_name(service)
        self._names.register(full_name, service.name)
        return zeroconf.ServiceInfo(f"{service.type}.local.", full_name, service.port, properties=service.record,
                                    server=f"{service.host}.local.", parsed_addresses=list(service.addresses))


def _full_name(service):
    return f"{service.name}.{service.type}.local."


def _records(info, ttl, with_addresses):
    records = [info.dns_pointer(ttl), info.dns_service(ttl), info.dns_text(ttl)]
    return records + (info.dns_addresses(ttl) if with_addresses else [])


def _packed(groups):
    """Packs groups into packets, none of them torn apart unless it fills more than one."""
    records, size = [], 0
    for group in groups:
        group_size = sum(map(_size, group))
        if records and size + group_size > PACKET_ROOM:
            yield _packet(records)
            records, size = [], 0
        records += group
        size += group_size
    if records:
        yield _packet(records)


def _packet(records):
    packet = zeroconf.DNSOutgoing(const._FLAGS_QR_RESPONSE | const._FLAGS_AA)
    for record in records:
        packet.add_answer_at_time(record, 0)
    return packet


def _size(record):
    """How many bytes a record takes, roughly: its names are compressed, but for the first of their kind."""
    fixed = 12
    if isinstance(record, zeroconf.DNSText):
        return fixed + len(record.text)
    if isinstance(record, zeroconf.DNSPointer):
        return fixed + len(record.alias.encode()) + 2
    if isinstance(record, zeroconf.DNSService):
        return fixed + 8 + len(record.server.encode())
    return fixed + 4
