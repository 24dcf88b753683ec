# SPDX-License-Identifier: MIT
"""What can go wrong on a host, done on purpose, and undone."""

import os
import signal

from . import inside, processes
from .errors import LabError, UsageError
from .lifecycle import INSIDE
from .plan import SWITCH
from .requirements import require_tool

SERVICES = ("dbus", "daemon")
SERVICE_FAULTS = {"start": None, "stop": signal.SIGTERM, "kill": signal.SIGKILL,
                  "hang": signal.SIGSTOP, "continue": signal.SIGCONT}
LINK_FAULTS = ("link-down", "link-up", "unplug", "plug", "isolate", "join")
NAMES = [*(f"{service}-{fault}" for service in SERVICES for fault in SERVICE_FAULTS), *LINK_FAULTS, "loss"]

SECONDS_TO_END = 10
SECONDS_TO_LEAVE = 1


def apply(lab, host, fault, percent=None, link=None):
    """Applies a fault and returns when it has taken hold. Without `link` it concerns every link of the host."""
    if (fault == "loss") != (percent is not None):
        raise UsageError("a percentage belongs to the fault 'loss', and only to it")
    service, _, action = fault.partition("-")
    if service in SERVICES:
        if link is not None:
            raise UsageError(f"--link has no meaning for '{fault}'")
        _apply_to_service(lab, host, service, action)
    else:
        for index in selected_links(host, link):
            _apply_to_link(lab, host, fault, index, percent)


def selected_links(host, link):
    if link is None:
        return range(len(host.addresses))
    if not 0 <= link < len(host.addresses):
        raise UsageError(f"host '{host.name}' has no link {link}, only 0 to {len(host.addresses) - 1}")
    return [link]


def _apply_to_service(lab, host, service, action):
    pid = lab.service_pid(host, service)
    if action == "start":
        if pid:
            raise LabError(f"{service} of {host.name} already runs (process {pid})")
        inside.run(lab, host.name, [os.path.join(INSIDE, "service"), "start", service, lab.host_path(host)],
                   pid_namespace=True)
        return
    if not pid:
        raise LabError(f"{service} of {host.name} does not run: start it with 'lab fault {host.name} {service}-start'")
    signals = [SERVICE_FAULTS[action]]
    if action == "stop":
        # A process that hangs takes no notice of being asked to end.
        signals.append(signal.SIGCONT)
    for number in signals:
        processes.send_signal_if(pid, number, lambda pid: lab.is_process_of(pid, host))
    _await_effect(lab, host, service, action)


def _await_effect(lab, host, service, action):
    wanted = {"stop": "stopped", "kill": "stopped", "hang": "hung", "continue": "running"}[action]
    _await_state(lab, host, service, wanted)
    if service == "dbus" and wanted == "stopped" and lab.service_state(host, "daemon") == "running":
        _await_daemon_without_bus(lab, host)


def _await_daemon_without_bus(lab, host):
    """The daemon leaves when it loses its bus; "daemon-start" must not meet it on its way out.

    One that has something to send just then stays, and tries to send it again and again (Avahi 0.8), so it is ended.
    """
    if not processes.wait_until(lambda: lab.service_state(host, "daemon") == "stopped", SECONDS_TO_LEAVE):
        pid = lab.service_pid(host, "daemon")
        processes.send_signal_if(pid, signal.SIGKILL, lambda pid: lab.is_process_of(pid, host))
        _await_state(lab, host, "daemon", "stopped")


def _await_state(lab, host, service, wanted):
    if not processes.wait_until(lambda: lab.service_state(host, service) == wanted, SECONDS_TO_END):
        raise LabError(f"{service} of {host.name} is {lab.service_state(host, service)} after {SECONDS_TO_END} s, "
                       f"not {wanted}")


def _apply_to_link(lab, host, fault, index, percent):
    interface, port = f"lan{index}", host.port(index)
    if fault == "link-up":
        ipv6 = "yes" if lab.ipv6 else "no"
        inside.run(lab, host.name, [os.path.join(INSIDE, "link-up"), str(index), str(host.number), ipv6])
    elif fault == "link-down":
        inside.run(lab, host.name, ["ip", "link", "set", interface, "down"])
    elif fault == "loss":
        _set_loss(lab, host, interface, percent)
    else:
        change = {"unplug": ["down"], "plug": ["up"], "isolate": ["nomaster"], "join": ["master", f"br{index}"]}
        inside.run(lab, SWITCH, ["ip", "link", "set", port, *change[fault]])


def _set_loss(lab, host, interface, percent):
    """Drops a random share of the packets of one interface, in both directions; 0 drops none."""
    if not 0 <= percent <= 100:
        raise UsageError(f"{percent:g} is not a percentage")
    require_tool("iptables-legacy", "iptables")
    for tool in ["iptables-legacy", "ip6tables-legacy"] if lab.ipv6 else ["iptables-legacy"]:
        for chain, direction in (("INPUT", "-i"), ("OUTPUT", "-o")):
            own_chain = f"loss-{interface}-{chain.lower()}"
            script = (f'"$0" -w -N {own_chain} 2>/dev/null && "$0" -w -A {chain} {direction} {interface} '
                      f'-j {own_chain}; "$0" -w -F {own_chain}')
            if percent:
                script += (f' && "$0" -w -A {own_chain} -m statistic --mode random '
                           f'--probability {percent / 100:.6f} -j DROP')
            inside.run(lab, host.name, ["sh", "-c", script, tool])
