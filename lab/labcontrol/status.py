# SPDX-License-Identifier: MIT
"""What a lab is doing, for people and for scripts."""

import json


def collect(lab):
    """The state of a lab as plain data; the same that `lab status --json` prints."""
    up = lab.is_up()
    hosts = [_host_status(lab, host) for host in lab.hosts] if up else []
    return {"directory": lab.directory, "up": up, "hosts": hosts}


def table(status):
    if not status["up"]:
        return f"no lab is up in {status['directory']}"
    rows = [("HOST", "PID", "BUS", "DAEMON", "ADDRESSES")]
    for host in status["hosts"]:
        addresses = " ".join(f"{link['name']}={link['address']}" for link in host["links"])
        rows.append((host["name"], str(host["pid"]), host["dbus"], host["daemon"], addresses))
    widths = [max(len(row[column]) for row in rows) for column in range(4)]
    lines = ["  ".join([*(text.ljust(width) for text, width in zip(row, widths)), row[4]]) for row in rows]
    return "\n".join([f"lab in {status['directory']}", *lines])


def as_json(status):
    return json.dumps(status)


def _host_status(lab, host):
    return {
        "name": host.name,
        "pid": lab.host_pid(host),
        "dbus": lab.service_state(host, "dbus"),
        "daemon": lab.service_state(host, "daemon"),
        "links": [{"name": link, "address": address} for link, address in zip(host.links, host.addresses)],
    }
