# SPDX-License-Identifier: MIT
"""On which networks the devices appear: all of a lab's host, elsewhere only the one that is named."""

import os
import socket

import ifaddr
import zeroconf

from .errors import UsageError

LAB_VARIABLE = "VD_LAB_HOST"


def chosen(text):
    """The interface that is named by its name or address, or else those of the lab: (name, address) of each."""
    present = _present()
    if text is None:
        if not os.environ.get(LAB_VARIABLE):
            raise UsageError("name the network that the devices are to appear on, as in --interface eth0: "
                             "everyone there will see them (in a lab of lab/lab it need not be named)")
        return _one_of_each(interface for interface in present if interface[0] != "lo")
    named = [interface for interface in present if text in interface]
    if not named:
        known = ", ".join(f"{name} ({address})" for name, address in present) or "none"
        raise UsageError(f"there is no interface {ascii(text)} with an IPv4 address; "
                         f"--interface takes one of: {known}")
    return named[:1]


def open_link(interfaces, is_named):
    """Joins the networks; to be called in the event loop. A named one is listened to alone."""
    addresses = [address for _, address in interfaces]
    link = zeroconf.Zeroconf(interfaces=addresses, ip_version=zeroconf.IPVersion.V4Only)
    engine = link.engine
    if len(engine._respond_sockets) < len(addresses):
        # It goes on without the networks that it cannot join.
        raise OSError("multicast is not possible there")
    if is_named:
        for opened in (engine._listen_socket, *engine._respond_sockets):
            opened.setsockopt(socket.SOL_SOCKET, socket.SO_BINDTODEVICE, interfaces[0][0].encode())
    return link


def _present():
    return [(adapter.nice_name, address.ip) for adapter in ifaddr.get_adapters() for address in adapter.ips
            if address.is_IPv4]


def _one_of_each(interfaces):
    # A second address of one interface would send everything twice.
    first = {}
    for name, address in interfaces:
        first.setdefault(name, address)
    if not first:
        raise UsageError("this host of the lab has no interface with an IPv4 address; see 'lab status'")
    return list(first.items())
