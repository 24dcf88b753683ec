# SPDX-License-Identifier: MIT
"""Bringing a lab up and down."""

import os
import re
import selectors
import shlex
import signal
import subprocess
import time

from . import plan, processes, requirements
from .errors import LabError

INSIDE = os.path.join(os.path.dirname(os.path.dirname(os.path.abspath(__file__))), "inside")
LOG_LINES_SHOWN = 10


def up(lab, hosts, ipv6=True, force_user_namespace=False, owner=None, timeout=60):
    """Starts the hosts and returns when every daemon among them runs; on failure nothing stays behind but logs."""
    if lab.is_up():
        raise LabError(f"a lab is already up in {lab.directory}: end it with 'lab down', "
                       "or set VD_LAB_DIR for one beside it")
    flags = requirements.choose_isolation(force_user_namespace)
    lab.create_directory()
    lab.describe(hosts, "--user" in flags, ipv6)
    for host in hosts:
        _write_host_files(lab, host)
    process = _start(lab, flags, owner)
    try:
        _await_hosts(lab, process.stdout, timeout)
    except BaseException:
        _kill(lab)
        # Before it has told its process id, the lab's first process can only be ended by way of its parent.
        process.kill()
        process.wait()
        raise
    process.stdout.close()
    # It is meant to outlive this command, so it is not to be waited for.
    process.returncode = 0


def down(lab):
    """Ends the lab with all its processes. Returns false when there was none."""
    was_up = lab.is_up()
    if was_up:
        _kill(lab)
    lab.remove_directory()
    return was_up


def _start(lab, flags, owner):
    segments = max(len(host.addresses) for host in lab.hosts)
    command = ["unshare", *flags, os.path.join(INSIDE, "switch"), lab.directory, str(owner or "-"), str(segments),
               *(host.name for host in lab.hosts)]
    with open(lab.path("switch.log"), "wb") as log:
        return subprocess.Popen(command, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=log,
                                cwd="/", start_new_session=True)


def _await_hosts(lab, reports, timeout):
    deadline = time.monotonic() + timeout
    missing = {host.name for host in lab.hosts}
    for report in _lines(reports, deadline):
        outcome, name = report.split()
        if outcome == "failed":
            raise LabError(f"host '{name}' did not come up; its log:\n{_last_log_lines(lab, name)}")
        missing.discard(name)
        if not missing:
            return
    name = min(missing)
    reason = f"is not ready after {timeout:g} s" if time.monotonic() >= deadline else "did not come up"
    raise LabError(f"host '{name}' {reason}; its log:\n{_last_log_lines(lab, name)}")


def _lines(stream, deadline):
    """Yields lines until the stream ends or the deadline passes."""
    pending = b""
    with selectors.DefaultSelector() as selector:
        selector.register(stream, selectors.EVENT_READ)
        while selector.select(max(0, deadline - time.monotonic())):
            received = os.read(stream.fileno(), 4096)
            if not received:
                return
            *lines, pending = (pending + received).split(b"\n")
            yield from (line.decode() for line in lines)


def _last_log_lines(lab, name):
    lines = []
    for path in (lab.path("switch.log"), *(lab.path("hosts", name, log)
                                           for log in ("host.log", "dbus.log", "daemon.log"))):
        try:
            with open(path, encoding="utf-8", errors="replace") as file:
                lines += [f"  {os.path.basename(path)}: {line.rstrip()}"
                          for line in file.readlines()[-LOG_LINES_SHOWN:]]
        except FileNotFoundError:
            pass
    return "\n".join(lines) or "  (empty)"


def _write_host_files(lab, host):
    os.makedirs(lab.host_path(host, "etc", "avahi", "services"))
    _write(lab.host_path(host, "etc", "avahi", "hosts"), "")
    _write(lab.host_path(host, "etc", "avahi", "avahi-daemon.conf"), plan.avahi_configuration(host))
    if lab.user_namespace:
        _write_accounts(lab, host)
    settings = {
        "name": host.name,
        "number": str(host.number),
        "ipv6": "yes" if lab.ipv6 else "no",
        "daemon": "yes" if host.daemon else "no",
        "userNamespace": "yes" if lab.user_namespace else "no",
    }
    lines = [f"{key}={shlex.quote(value)}" for key, value in settings.items()]
    lines.append(f"addresses=({shlex.join(host.addresses)})")
    _write(lab.host_path(host, "settings"), "\n".join(lines) + "\n")


def _write_accounts(lab, host):
    """In a user namespace only id 0 exists, so the accounts that the daemons ask for by name must have it."""
    with open("/etc/passwd", encoding="utf-8") as file:
        accounts = re.sub(r"(?m)^(avahi|messagebus):([^:]*):\d+:\d+:", r"\1:\2:0:0:", file.read())
    with open("/etc/group", encoding="utf-8") as file:
        groups = re.sub(r"(?m)^(avahi|messagebus|netdev):([^:]*):\d+:", r"\1:\2:0:", file.read())
    _write(lab.host_path(host, "etc", "passwd"), accounts)
    _write(lab.host_path(host, "etc", "group"), groups)


def _write(path, text):
    with open(path, "w", encoding="utf-8") as file:
        file.write(text)


def _kill(lab):
    """Ends the first process, and with it all of the lab; then what `lab exec` started and left running."""
    switch = lab.switch_pid()
    if not switch:
        return
    networks = {processes.namespace(pid, "net") for pid in [switch, *map(lab.host_pid, lab.hosts)] if pid}
    # A host that failed as it started has no namespace of its own to show.
    networks -= {None, processes.namespace("self", "net")}
    processes.send_signal_if(switch, signal.SIGKILL, lambda pid: pid == lab.switch_pid())
    if not processes.wait_until(lambda: processes.state(switch) in (None, "Z"), 10):
        raise LabError(f"the lab's first process {switch} does not end")
    for pid in processes.all_pids():
        if pid != os.getpid():
            processes.send_signal_if(pid, signal.SIGKILL, lambda pid: processes.namespace(pid, "net") in networks)


