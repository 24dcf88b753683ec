# SPDX-License-Identifier: MIT
"""The table of discovery beside the simulator's account of its devices."""

import base64
from collections import Counter

from labkit.records import checksum
from labkit.simulator import as_discovered, discovered

TYPES = ("_http._tcp", "_https._tcp")


class Comparison:
    """What the two sides differ in, device by device.

    `services` are the records by their keys, `queue` the pairs of name and type that are queried in turn.
    """

    def __init__(self, account, services, queue):
        records = {name: expected_record(device) for name, device in account.items()}
        expected = {name: record for name, record in records.items() if record and _is_alive(account[name])}
        self.alive = len(expected)
        self.away = sum(not _is_alive(device) for device in account.values())
        self.known = len(services)
        self.differences = [*_differences(expected, known_records(services)), *_of_queue(services, queue)]


def expected_record(device):
    """What discovery has to know of a device that is alive, or None for one that is none of ours."""
    record = as_discovered(device)
    return record and {**record, "recordHostName": record["hostName"], "txtChecksum": checksum(_head(device))}


def known_records(services):
    """The records cut down to what the simulator knows too."""
    return {name: {**record, **{member: services[name][member] for member in ("recordHostName", "txtChecksum")}}
            for name, record in discovered(services.values()).items()}


def readable_text(device):
    """Whether discovery can read the text of a device: with wrong lengths nobody can, and it needs a serial number."""
    return "record" not in device and (device["kind"] == "other" or as_discovered(device) is not None)


def objects_amiss(services, queries, objects):
    """The Avahi objects that are open too many, or missing, when nothing but long-lived queries is going on."""
    expected = Counter(f"browser of {service_type}" for service_type in TYPES)
    expected.update(f"resolver of {name}" for name in queries)
    expected.update(f"address browser of {services[name]['hostName']}" for name in queries if name in services)
    is_open = Counter(objects)
    return [*(f"open and not needed: {what!r}" for what in (is_open - expected).elements()),
            *(f"needed and not open: {what!r}" for what in (expected - is_open).elements())]


def _is_alive(device):
    return device["presence"] == "alive"


def _head(device):
    """The first string of the text that is not empty, as the daemon passes over the others."""
    return next(filter(None, map(_string, device["txt"])), b"")


def _string(entry):
    if "raw" in entry:
        return base64.b64decode(entry["raw"])
    if "text" in entry:
        return f"{entry['key']}={entry['text']}".encode()
    if "value" in entry:
        return entry["key"].encode() + b"=" + base64.b64decode(entry["value"])
    return entry["key"].encode()


def _differences(expected, known):
    for name in sorted({*expected, *known}):
        if name not in known:
            yield f"{name!r} is alive and not in the table"
        elif name not in expected:
            yield f"{name!r} is in the table and not alive"
        else:
            for member, value in expected[name].items():
                if known[name][member] != value:
                    yield f"{name!r} {member}: alive with {value!r}, in the table {known[name][member]!r}"


def _of_queue(services, queue):
    pairs = sorted((record["serviceName"], record["serviceType"]) for record in services.values())
    if sorted(map(tuple, queue)) != pairs:
        yield f"the queue of {len(queue)} is not one pair for each of the {len(pairs)} services"
