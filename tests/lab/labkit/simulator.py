# SPDX-License-Identifier: MIT
"""vd-simulate on a host of a lab, and what discovery is to make of its devices."""

import base64
import json
import subprocess

from .conversation import Conversation
from .lines import DEADLINE_S, Lines
from .paths import SIMULATE

# From the hundredth on, for the hosts of the lab have the first ones.
ADDRESSES = "10.77.0.100/24"

CAMERA_FIELDS = {"modelName": "full_name", "softwareVersion": "fs_vers", "errorText": "error",
                 "userdataOwner": "userdata_owner"}
STORAGE_FIELDS = {"modelName": "model", "softwareVersion": "sw_version", "errorText": "error",
                  "totalCapacity": "totalcapacity", "freeCapacity": "freecapacity"}


class Simulator(Conversation):
    def __init__(self, lab, *arguments, host="fleet", before=(), stdin=subprocess.PIPE):
        """`before` stands before the program on the command line, such as "env" with something for it."""
        command = [*before, SIMULATE, "--seed", "1", "--addresses", ADDRESSES, *arguments]
        self._process = lab.start(host, *command, stdin=stdin)
        self.said = Lines(self._process.stdout, json.loads)
        self.errors = Lines(self._process.stderr)
        assert self.wait_for_event("ready"), f"not ready; {self.said.all} {self.errors.all}"

    def is_answer(self, line):
        return line["event"] in ("done", "error")

    def tell(self, command, **fields):
        answer = self.request(command, **fields)
        assert answer["event"] == "done", answer

    def wait_for_event(self, event, count=1):
        """Waits for so many lines of an event; returns them, or None."""
        def found(lines):
            of_event = [line for line in lines if line["event"] == event]
            return of_event if len(of_event) >= count else None
        return self.said.wait_for(found)

    def state(self):
        """The account of all devices, by their names."""
        self.tell("state")
        [*_, last] = [line for line in self.said.all if line["event"] == "state"]
        return {device["device"]: device for device in last["devices"]}

    def names(self):
        return [line["device"] for line in self.said.all if line["event"] == "published"]

    def send_signal(self, number):
        self._process.send_signal(number)

    def end_input(self):
        self._process.stdin.close()

    def wait(self):
        """Waits for its end; returns the exit status and standard error."""
        status = self._process.wait(DEADLINE_S)
        self.errors.join()
        return status, b"".join(self.errors.all)

    def close(self):
        """Asks it to end if it still runs; a failure that the test did not look at is one."""
        if self._process.poll() is None:
            self._process.terminate()
            return self.wait()[0]
        return 0


def as_discovered(device):
    """The members of a record that discovery is to report for a device in this state, or None for another service."""
    values = _values(device)
    for kind, domain, fields in ((1, "vandrel.com", CAMERA_FIELDS), (1024, "snapserver.com", STORAGE_FIELDS)):
        serial = values.get(f"ser_no.{domain}")
        if serial is not None:
            texts = {field: values.get(f"{key}.{domain}", b"").decode() for field, key in fields.items()}
            return {"serviceName": device["device"], "serviceType": device["type"], "port": device["port"],
                    "https": device["type"] == "_https._tcp", "hostName": f"{device['host']}.local",
                    "addresses": sorted(device["addresses"]), "deviceKind": kind,
                    "serialNumber": int.from_bytes((serial + b"\0\0\0")[:3], "big"),
                    "privacyMode": values.get("privacy_mode.vandrel.com") == b"T",
                    **dict.fromkeys({*CAMERA_FIELDS, *STORAGE_FIELDS}, ""), **texts}
    return None


def discovered(services):
    """What discovery reported, by name, cut down to the members of as_discovered()."""
    members = {"serviceName", "serviceType", "port", "https", "hostName", "addresses", "deviceKind", "serialNumber",
               "privacyMode", *CAMERA_FIELDS, *STORAGE_FIELDS}
    cut = [{member: service[member] for member in members} for service in services]
    return {service["serviceName"]: {**service, "addresses": sorted(service["addresses"])} for service in cut}


def _values(device):
    """The values of the TXT keys; of a key that stands there twice the first."""
    values = {}
    for entry in device["txt"]:
        if "text" in entry:
            values.setdefault(entry["key"].lower(), entry["text"].encode())
        elif "value" in entry:
            values.setdefault(entry["key"].lower(), base64.b64decode(entry["value"]))
    return values
