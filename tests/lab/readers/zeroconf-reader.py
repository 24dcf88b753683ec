#!/usr/bin/python3
# SPDX-License-Identifier: MIT
"""Tells by JSON lines which services of one type python-zeroconf sees, with their TXT records in base64.

usage: zeroconf-reader.py TYPE    such as _http._tcp; ends with its input
"""

import base64
import json
import os
import sys

import zeroconf


def say(event, **members):
    print(json.dumps({"event": event, **members}), flush=True)


class Listener(zeroconf.ServiceListener):
    def __init__(self, suffix):
        self._suffix = suffix

    def add_service(self, network, service_type, name):
        self._tell("found", network, service_type, name)

    def update_service(self, network, service_type, name):
        self._tell("updated", network, service_type, name)

    def remove_service(self, network, service_type, name):
        say("lost", name=self._instance(name))

    def _tell(self, event, network, service_type, name):
        info = network.get_service_info(service_type, name, timeout=3000)
        if info:
            say(event, name=self._instance(name), host=info.server, port=info.port,
                addresses=sorted(info.parsed_addresses(zeroconf.IPVersion.V4Only)),
                txt=base64.b64encode(info.text).decode())

    def _instance(self, name):
        return name.removesuffix("." + self._suffix)


def main():
    if "VD_LAB_HOST" not in os.environ:
        sys.exit("zeroconf-reader.py listens in the lab only: start it by lab/lab exec HOST")
    suffix = sys.argv[1] + ".local."
    with zeroconf.Zeroconf(ip_version=zeroconf.IPVersion.V4Only) as network:
        network.add_service_listener(suffix, Listener(suffix))
        say("ready")
        sys.stdin.read()


if __name__ == "__main__":
    main()
