#!/usr/bin/python3
# SPDX-License-Identifier: MIT
"""Publishes services by python-zeroconf, steered by JSON lines (see ../README.md).

usage: zeroconf-publisher.py [ADDRESS...]    the interfaces to publish on, default: all but the loopback
"""

import asyncio
import os
import socket
import sys

import zeroconf
from zeroconf import const

from publisher_control import Control, ServiceTable, decode_txt, refuse_to_start, require_lab

REPEAT_AFTER_SECONDS = 1.0

# So many services are announced at once: more would overrun the receive buffer of a daemon that listens.
BURST = 10
BURST_PAUSE_SECONDS = 0.01


class DottedNames:
    """Writes instance names that contain dots as the one label that they are.

    python-zeroconf holds names as text and splits them at every dot, the instance name's own ones too.
    """

    def __init__(self):
        self._instances = {}  # full name -> instance name
        names = self

        def write_name(outgoing, name):
            names.write(outgoing, name.removesuffix("."))

        zeroconf.DNSOutgoing.write_name = write_name

    def register(self, full_name, instance):
        if "." in instance:
            self._instances[full_name.removesuffix(".")] = instance

    def write(self, outgoing, name):
        labels = self._labels(name)
        for index, label in enumerate(labels):
            suffix = tuple(labels[index:])
            if suffix in outgoing.names:
                outgoing.write_short(0xC000 | outgoing.names[suffix])
                return
            outgoing.names[suffix] = outgoing.size
            outgoing.write_character_string(label.encode())
        outgoing.write_character_string(b"")

    def _labels(self, name):
        instance = self._instances.get(name)
        if instance is None:
            return name.split(".")
        return [instance, *name[len(instance) + 1:].split(".")]


class Publisher:
    def __init__(self, interfaces):
        self._names = DottedNames()
        self._zeroconf = zeroconf.Zeroconf(interfaces=interfaces, ip_version=zeroconf.IPVersion.V4Only)
        self._services = ServiceTable()
        self._infos = {}
        self._repetitions = set()
        self.handlers = {
            "publish": self._publish,
            "set-txt": self._set_txt,
            "add-address": self._add_address,
            "remove-address": self._remove_address,
            "goodbye": self._goodbye,
            "vanish": self._vanish,
        }

    def _publish(self, request):
        services = self._services.add(request.get("services"))
        for service in services:
            self._infos[service.identifier] = self._make_info(service)
        self._in_loop(self._register_and_announce(services))

    def _set_txt(self, request):
        service = self._services.find(request)
        service.txt = decode_txt(request.get("txt"))
        self._in_loop(self._replace_and_announce([service]))

    def _add_address(self, request):
        affected, _ = self._services.change_addresses(request, adds=True)
        self._in_loop(self._replace_and_announce(affected))

    def _remove_address(self, request):
        affected, address = self._services.change_addresses(request, adds=False)
        self._in_loop(self._withdraw_address(affected, address))

    def _goodbye(self, request):
        services = self._services.remove(request)
        hosts_kept = {service.host for service in services if self._services.on_host_of(service)}
        self._in_loop(self._withdraw(services, hosts_kept))

    def _vanish(self, request):
        self._in_loop(self._unregister(self._services.remove(request)))

    # In the loop of python-zeroconf, whose registry belongs to it

    async def _register_and_announce(self, services):
        for service in services:
            self._zeroconf.registry.async_add(self._infos[service.identifier])
        await self._announce(services)
        self._announce_again(services)

    async def _replace(self, services):
        await self._unregister(services)
        for service in services:
            self._infos[service.identifier] = self._make_info(service)

    async def _replace_and_announce(self, services):
        await self._replace(services)
        await self._register_and_announce(services)

    async def _withdraw_address(self, services, address):
        await self._replace(services)
        for service in services:
            self._zeroconf.registry.async_add(self._infos[service.identifier])
        # Without the cache-flush bit, so that it speaks of this one address and not of the others.
        record = zeroconf.DNSAddress(f"{services[0].host}.local.", const._TYPE_A, const._CLASS_IN, 0,
                                     socket.inet_aton(address))
        goodbye = zeroconf.DNSOutgoing(const._FLAGS_QR_RESPONSE | const._FLAGS_AA)
        goodbye.add_answer_at_time(record, 0)
        self._zeroconf.async_send(goodbye)

    async def _withdraw(self, services, hosts_kept):
        infos = [(self._infos[service.identifier], service.host in hosts_kept) for service in services]
        await self._unregister(services)
        for start in range(0, len(infos), BURST):
            for info, keeps_host in infos[start:start + BURST]:
                self._zeroconf.async_send(
                    self._zeroconf.generate_service_broadcast(info, 0, broadcast_addresses=not keeps_host))
            await asyncio.sleep(BURST_PAUSE_SECONDS)

    async def _unregister(self, services):
        for service in services:
            self._zeroconf.registry.async_remove(self._infos.pop(service.identifier))

    async def _announce(self, services):
        for start in range(0, len(services), BURST):
            for service in services[start:start + BURST]:
                info = self._infos.get(service.identifier)
                if info:
                    self._zeroconf.async_send(self._zeroconf.generate_service_broadcast(info, None))
            await asyncio.sleep(BURST_PAUSE_SECONDS)

    def _announce_again(self, services):
        async def repeat():
            await asyncio.sleep(REPEAT_AFTER_SECONDS)
            await self._announce(services)

        task = asyncio.get_running_loop().create_task(repeat())
        self._repetitions.add(task)
        task.add_done_callback(self._repetitions.discard)

    def _in_loop(self, coroutine):
        asyncio.run_coroutine_threadsafe(coroutine, self._zeroconf.loop).result()

    def _make_info(self, service):
        service_type = f"{service.type}.local."
        full_name = f"{service.name}.{service_type}"
        self._names.register(full_name, service.name)
        text = b"".join(bytes([len(string)]) + string for string in service.txt)
        return zeroconf.ServiceInfo(service_type, full_name, port=service.port, properties=text or b"\0",
                                    server=f"{service.host}.local.", parsed_addresses=service.addresses)


def interface_addresses():
    return [address for address in zeroconf.get_all_addresses() if not address.startswith("127.")]


def chosen_addresses():
    present = interface_addresses()
    for address in sys.argv[1:]:
        if address not in present:
            refuse_to_start(f"no interface has the address {address!r}; there are {', '.join(present)}")
    return sys.argv[1:] or present


def serve(control):
    for line in sys.stdin.buffer:
        if not control.handle_line(line):
            return


def main():
    require_lab()
    publisher = Publisher(chosen_addresses())
    try:
        serve(Control("python-zeroconf", zeroconf.__version__, publisher.handlers))
    except KeyboardInterrupt:
        pass
    # At once, since an orderly end would say goodbye for every service that is left.
    os._exit(0)


if __name__ == "__main__":
    main()
