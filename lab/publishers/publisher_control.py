# SPDX-License-Identifier: MIT
"""The protocol that steers a publisher: one JSON object a line, each answered by one JSON line.

../README.md describes the commands.
"""

import dataclasses
import json
import os
import sys
from pathlib import Path

# What the simulator and the publishers have in common stands with the simulator, which is installed without these.
sys.path.insert(1, str(Path(__file__).resolve().parents[2] / "tools" / "vd-simulate"))

from vdsimulate.requests import RequestError, checked_address, checked_type, text_member  # noqa: E402
from vdsimulate.txt import decode_entries, record_of  # noqa: E402

MAX_LABEL = 63


def require_lab():
    """Ends a publisher that was started elsewhere: its devices would appear on the machine's real network."""
    if not os.environ.get("VD_LAB_HOST"):
        refuse_to_start("run me by lab exec HOST ..., as I publish on every network that I see")


def refuse_to_start(reason):
    print(f"{os.path.basename(sys.argv[0])}: {reason}", file=sys.stderr)
    sys.exit(2)


@dataclasses.dataclass
class Service:
    identifier: str
    name: str
    type: str
    host: str
    port: int
    addresses: list
    txt: list  # strings of the TXT record as bytes, in their order

    @classmethod
    def from_request(cls, fields):
        """Builds a service of what a "publish" request says of it."""
        name = text_member(fields, "name")
        return cls(identifier=fields.get("service", name), name=_label(name),
                   type=checked_type(text_member(fields, "type")),
                   host=_label(text_member(fields, "host").removesuffix(".local")),
                   port=_port(fields.get("port", 80)),
                   addresses=[checked_address(text) for text in fields.get("addresses", [])],
                   txt=decode_entries(fields.get("txt", [])))

    @property
    def record(self):
        """The TXT record as it is on the wire."""
        return record_of(self.txt)


class Control:
    """Answers request lines by calling the handler of their command, `handlers[command](request)`.

    A handler returns the further members of the answer, or None, or raises RequestError.
    """

    def __init__(self, publisher, version, handlers):
        self._handlers = handlers
        _write({"event": "ready", "publisher": publisher, "version": version})

    def handle_line(self, line):
        """Returns false when the publisher is to end."""
        command = None
        try:
            request = json.loads(line)
            command = request.get("command") if isinstance(request, dict) else None
            if command == "quit":
                _write({"event": "done", "command": command})
                return False
            if command not in self._handlers:
                raise RequestError(f"no such command; there are {', '.join([*self._handlers, 'quit'])}")
            result = self._handlers[command](request) or {}
            _write({"event": "done", "command": command, **result})
        except RequestError as error:
            _write({"event": "error", "command": command, "message": str(error)})
        except ValueError as error:
            _write({"event": "error", "command": command, "message": f"not a JSON object in UTF-8: {error}"})
        return True


class ServiceTable:
    """The published services by their identifiers."""

    def __init__(self):
        self._services = {}

    def add(self, requested):
        """Takes the "services" of a request, all or none."""
        if not isinstance(requested, list) or not requested:
            raise RequestError("services is a list with at least one service")
        services = [Service.from_request(fields) for fields in requested]
        self.add_services(services)
        return services

    def add_services(self, services):
        taken = set(self._services)
        for service in services:
            if service.identifier in taken:
                raise RequestError(f"service '{service.identifier}' is already published")
            taken.add(service.identifier)
        self._services.update((service.identifier, service) for service in services)

    def find(self, request):
        return self._find(request.get("service"))

    def remove(self, request):
        """Removes the "services" that a request names, or all; returns them."""
        named = request.get("services")
        removed = [self._find(name) for name in named] if named is not None else list(self._services.values())
        for service in removed:
            del self._services[service.identifier]
        return removed

    def on_host_of(self, service):
        """The published services that stand on the same host, for an address belongs to the host."""
        return [other for other in self._services.values() if other.host.lower() == service.host.lower()]

    def change_addresses(self, request, adds):
        """Adds or removes the "address" of a request on the host of its "service".

        Returns the services of that host, and the address.
        """
        service, address = self.find(request), checked_address(request.get("address"))
        if (address in service.addresses) == adds:
            state = "already has" if adds else "has not"
            raise RequestError(f"'{service.identifier}' {state} the address {address}")
        affected = self.on_host_of(service)
        for other in affected:
            other.addresses = [known for known in other.addresses if known != address] + [address] * adds
        return affected, address

    def _find(self, identifier):
        if identifier not in self._services:
            raise RequestError(f"service '{identifier}' is not published")
        return self._services[identifier]


def _label(text):
    if not 1 <= len(text.encode()) <= MAX_LABEL:
        raise RequestError(f"a name has 1 to {MAX_LABEL} bytes, not {len(text.encode())}")
    return text


def _port(number):
    if not isinstance(number, int) or not 0 <= number <= 65535:
        raise RequestError(f"{number!r} is not a port")
    return number


def _write(answer):
    sys.stdout.write(json.dumps(answer) + "\n")
    sys.stdout.flush()
