#!/usr/bin/python3
# SPDX-License-Identifier: MIT
"""Publishes many devices and answers at once, whatever their number, steered by JSON lines (see ../README.md).

Every answer is a message that was built before the question came, with all additional records in it, so that a
measurement with it measures the one who asks.

usage: fleet-publisher.py [PAUSE_MS]    pause between two messages, default 1
"""

import os
import selectors
import socket
import struct
import sys
import time

import mdns_wire as wire
from fleet_devices import make_fleet
from publisher_control import Control, ServiceTable, decode_entries, require_lab

GROUP = "224.0.0.251"
PORT = 5353
IP_MULTICAST_ALL = 49
RECEIVE_BUFFER = 4 << 20
SECONDS_FOR_MORE_KNOWN_ANSWERS = 0.45


class Device:
    """A published service with its records and the message that answers every question about it alone."""

    def __init__(self, service):
        self.service = service
        self.group = None
        self.type = wire.labels(*service.type.split("."), "local")
        self.instance = wire.labels(service.name, *service.type.split("."), "local")
        self.host = wire.labels(service.host, "local")
        self.rebuild()

    def rebuild(self):
        service = self.service
        self.pointer = wire.pointer(self.type, self.instance)
        self.details = [wire.service(self.instance, service.port, self.host),
                        wire.text(self.instance, service.txt),
                        *(wire.address(self.host, dotted) for dotted in service.addresses)]
        self.message = wire.response(self.details)
        if self.group:
            self.group.rebuild()


class Group:
    """The devices of one type that fit into one message, the answer to a question for the type."""

    def __init__(self):
        self.devices = []
        self.message = b""

    def add(self, device):
        """Returns false, and stays as it was, when the message would become too long."""
        message = self._build([*self.devices, device])
        if self.devices and len(message) > wire.MAX_MESSAGE:
            return False
        self.devices.append(device)
        device.group, self.message = self, message
        return True

    def remove(self, device):
        self.devices.remove(device)
        device.group, device.message = None, b""
        self.rebuild()

    def rebuild(self):
        self.message = self._build(self.devices) if self.devices else b""

    def has_unknown(self, known):
        return any(wire.name_key(device.instance) not in known for device in self.devices)

    @staticmethod
    def _build(devices):
        details = dict.fromkeys(record for device in devices for record in device.details)
        return wire.response([device.pointer for device in devices], list(details))


class Directory:
    """Finds what answers a question, in the same time for any number of devices."""

    def __init__(self):
        self._groups = {}     # key of a type -> groups
        self._instances = {}  # key of an instance -> device
        self._hosts = {}      # key of a host -> devices, as the keys of a dictionary to keep their order

    def add(self, device):
        """Returns the group that the device has become part of."""
        self._instances[wire.name_key(device.instance)] = device
        self._hosts.setdefault(wire.name_key(device.host), {})[device] = None
        groups = self._groups.setdefault(wire.name_key(device.type), [])
        if not groups or not groups[-1].add(device):
            groups.append(Group())
            groups[-1].add(device)
        return device.group

    def remove(self, device):
        del self._instances[wire.name_key(device.instance)]
        del self._hosts[wire.name_key(device.host)][device]
        group = device.group
        group.remove(device)
        if not group.devices:
            self._groups[wire.name_key(device.type)].remove(group)

    def answers(self, query):
        """The groups and devices whose messages answer a query, each once."""
        answers, asked = {}, {}  # the devices asked for by name, by their groups
        for key, question_type in query.questions:
            if question_type in (wire.TYPE_PTR, wire.TYPE_ANY):
                answers.update((group, None) for group in self._groups.get(key, ()) if group.has_unknown(query.known))
            if question_type in (wire.TYPE_SRV, wire.TYPE_TXT, wire.TYPE_ANY) and key in self._instances:
                device = self._instances[key]
                asked.setdefault(device.group, {})[device] = None
            if question_type in (wire.TYPE_A, wire.TYPE_ANY):
                for device in self._hosts.get(key, ()):
                    asked.setdefault(device.group, {})[device] = None
        for group, devices in asked.items():
            if group not in answers:
                answers.update(devices if len(devices) == 1 else {group: None})
        return list(answers)


class Link:
    """Multicast on one network interface, and only there."""

    def __init__(self, index):
        request = struct.pack("=4s4si", socket.inet_aton(GROUP), socket.inet_aton("0.0.0.0"), index)
        self.socket = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        self.socket.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
        self.socket.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEPORT, 1)
        self.socket.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, RECEIVE_BUFFER)
        # Else it would also hear what other sockets have joined on other interfaces.
        self.socket.setsockopt(socket.IPPROTO_IP, IP_MULTICAST_ALL, 0)
        self.socket.setsockopt(socket.IPPROTO_IP, socket.IP_ADD_MEMBERSHIP, request)
        self.socket.setsockopt(socket.IPPROTO_IP, socket.IP_MULTICAST_IF, request)
        self.socket.setsockopt(socket.IPPROTO_IP, socket.IP_MULTICAST_TTL, 255)
        self.socket.bind(("", PORT))
        self.socket.setblocking(False)
        self.incomplete = {}  # address of who asks -> (query that waits for more known answers, until when)
        self.waiting = {}     # groups and devices whose messages are to be sent, as keys to keep their order

    def send(self, message):
        try:
            self.socket.sendto(message, (GROUP, PORT))
        except OSError:
            # As on any network: a link that is down takes nothing.
            pass

    def send_next(self):
        """Sends one of the waiting messages, as it now is."""
        sender = next(iter(self.waiting))
        del self.waiting[sender]
        if sender.message:
            self.send(sender.message)

    def receive(self):
        """Yields the queries that wait in the socket and are complete."""
        while True:
            try:
                message, (source, _) = self.socket.recvfrom(9000)
            except OSError:
                return
            query = wire.parse_query(message)
            if query:
                query = self._with_earlier_part(query, source)
                if query.truncated:
                    self.incomplete[source] = (query, time.monotonic() + SECONDS_FOR_MORE_KNOWN_ANSWERS)
                else:
                    yield query

    def overdue(self):
        """Yields the queries whose announced further part has not come."""
        now = time.monotonic()
        for source, (query, deadline) in list(self.incomplete.items()):
            if now >= deadline:
                del self.incomplete[source]
                yield query

    def _with_earlier_part(self, query, source):
        earlier, _ = self.incomplete.pop(source, (None, None))
        if earlier:
            query.questions = earlier.questions + query.questions
            query.known |= earlier.known
        return query


class FleetPublisher:
    def __init__(self, links, pause):
        self._links = links
        self._pause = pause
        self._services = ServiceTable()
        self._devices = {}
        self._directory = Directory()
        self.handlers = {
            "publish": self._publish,
            "fleet": self._publish_fleet,
            "set-txt": self._set_txt,
            "add-address": self._add_address,
            "remove-address": self._remove_address,
            "goodbye": self._goodbye,
            "vanish": self._vanish,
        }

    def answer(self, link, query):
        # Asked the same again before the answer has left, one answer is enough.
        link.waiting.update(dict.fromkeys(self._directory.answers(query)))

    def _publish(self, request):
        self._add(self._services.add(request.get("services")))

    def _publish_fleet(self, request):
        services = make_fleet(request)
        self._services.add_services(services)
        self._add(services)

    def _add(self, services):
        groups = {}
        for service in services:
            device = self._devices[service.identifier] = Device(service)
            groups[self._directory.add(device)] = None
        self._send_everywhere(group.message for group in groups)

    def _set_txt(self, request):
        service = self._services.find(request)
        service.txt = decode_entries(request.get("txt"))
        self._announce_changed([service])

    def _add_address(self, request):
        affected, _ = self._services.change_addresses(request, adds=True)
        self._announce_changed(affected)

    def _remove_address(self, request):
        affected, address = self._services.change_addresses(request, adds=False)
        devices = self._rebuild(affected)
        # Without the cache-flush bit, so that it speaks of this one address and not of the others.
        record = wire.address(devices[0].host, address, unique=False)
        self._send_everywhere([wire.response([record], ttl=0)])

    def _goodbye(self, request):
        services = self._services.remove(request)
        kept_hosts = {service.host for service in services if self._services.on_host_of(service)}
        goodbyes = [self._goodbye_records(service, service.host in kept_hosts) for service in services]
        self._take_away(services)
        self._send_everywhere(wire.response(records, ttl=0) for records in goodbyes)

    def _vanish(self, request):
        self._take_away(self._services.remove(request))

    def _goodbye_records(self, service, keeps_host):
        device = self._devices[service.identifier]
        return [device.pointer, *(record for record in device.details
                                  if record.type != wire.TYPE_A or not keeps_host)]

    def _take_away(self, services):
        for service in services:
            self._directory.remove(self._devices.pop(service.identifier))

    def _announce_changed(self, services):
        self._send_everywhere([device.message for device in self._rebuild(services)])

    def _rebuild(self, services):
        devices = [self._devices[service.identifier] for service in services]
        for device in devices:
            device.rebuild()
        return devices

    def _send_everywhere(self, messages):
        """Sends before the request counts as done, at the pace that those who listen can follow."""
        for message in messages:
            for link in self._links:
                link.send(message)
            time.sleep(self._pause)


def serve(publisher, links, control, pause):
    """Answers queries and request lines until the input ends or a request ends it."""
    requests = sys.stdin.fileno()
    pending, next_sending = b"", 0.0
    with selectors.DefaultSelector() as selector:
        selector.register(requests, selectors.EVENT_READ)
        for link in links:
            selector.register(link.socket, selectors.EVENT_READ)
        while True:
            ready = selector.select(_patience(links, next_sending))
            for link in links:
                for query in (*link.receive(), *link.overdue()):
                    publisher.answer(link, query)
            if time.monotonic() >= next_sending and any(link.waiting for link in links):
                for link in filter(lambda link: link.waiting, links):
                    link.send_next()
                next_sending = time.monotonic() + pause
            if any(key.fileobj == requests for key, _ in ready):
                received = os.read(requests, 1 << 16)
                *lines, pending = (pending + received).split(b"\n")
                if not received or not all(map(control.handle_line, lines)):
                    return


def _patience(links, next_sending):
    """How long to wait for a message or a request, None without end."""
    if any(link.waiting for link in links):
        return max(0.0, next_sending - time.monotonic())
    return 0.05 if any(link.incomplete for link in links) else None


def main():
    require_lab()
    pause = float(sys.argv[1]) / 1000 if len(sys.argv) > 1 else 0.001
    links = [Link(index) for index, name in socket.if_nameindex() if name != "lo"]
    publisher = FleetPublisher(links, pause)
    try:
        serve(publisher, links, Control("fleet", "1", publisher.handlers), pause)
    except KeyboardInterrupt:
        # As at the end of the input: silently.
        pass


if __name__ == "__main__":
    main()
