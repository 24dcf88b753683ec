#!/usr/bin/python3
# SPDX-License-Identifier: MIT
"""Publishes services by python-zeroconf, steered by JSON lines (see ../README.md).

usage: zeroconf-publisher.py [ADDRESS...]    the interfaces to publish on, default: all but the loopback
"""

import asyncio
import os
import sys

import zeroconf

from fleet_devices import make_fleet
from publisher_control import Control, ServiceTable, decode_entries, refuse_to_start, require_lab
from vdsimulate.announcer import Announcer


class Publisher:
    def __init__(self, interfaces):
        self._zeroconf = zeroconf.Zeroconf(interfaces=interfaces, ip_version=zeroconf.IPVersion.V4Only)
        self._announcer = Announcer(self._zeroconf)
        self._services = ServiceTable()
        self.handlers = {
            "publish": self._publish,
            "fleet": self._publish_fleet,
            "set-txt": self._set_txt,
            "add-address": self._add_address,
            "remove-address": self._remove_address,
            "goodbye": self._goodbye,
            "vanish": self._vanish,
        }

    def _publish(self, request):
        self._in_loop(self._announcer.publish(self._services.add(request.get("services"))))

    def _publish_fleet(self, request):
        services = make_fleet(request)
        self._services.add_services(services)
        self._in_loop(self._announcer.publish(services))

    def _set_txt(self, request):
        service = self._services.find(request)
        service.txt = decode_entries(request.get("txt"))
        self._in_loop(self._announcer.publish([service]))

    def _add_address(self, request):
        affected, _ = self._services.change_addresses(request, adds=True)
        self._in_loop(self._announcer.publish(affected))

    def _remove_address(self, request):
        affected, address = self._services.change_addresses(request, adds=False)
        self._in_loop(self._announcer.withdraw_addresses(affected, [address]))

    def _goodbye(self, request):
        services = self._services.remove(request)
        hosts_kept = {service.host for service in services if self._services.on_host_of(service)}
        self._in_loop(self._announcer.withdraw(services, hosts_kept))

    def _vanish(self, request):
        self._in_loop(self._forget(self._services.remove(request)))

    async def _forget(self, services):
        self._announcer.forget(services)

    def _in_loop(self, coroutine):
        """Runs it in the loop of python-zeroconf, whose registry belongs to it."""
        asyncio.run_coroutine_threadsafe(coroutine, self._zeroconf.loop).result()


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
