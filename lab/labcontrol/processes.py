# SPDX-License-Identifier: MIT
"""Processes as the kernel shows them, named so that a process id used again is never mistaken for the old one."""

import os
import signal
import time


def state(pid):
    """The one-letter state of a process; None when there is none."""
    fields = _stat_fields(pid)
    return fields[0] if fields else None


def start_time(pid):
    """The start of a process in clock ticks since boot; None when there is none."""
    fields = _stat_fields(pid)
    return int(fields[19]) if fields else None


def namespace(pid, kind):
    """The identity of a process's namespace of a kind ("net", "pid"); None when it cannot be seen."""
    try:
        status = os.stat(f"/proc/{pid}/ns/{kind}")
    except OSError:
        return None
    return status.st_dev, status.st_ino


def all_pids():
    return [int(entry) for entry in os.listdir("/proc") if entry.isdigit()]


def send_signal_if(pid, number, condition):
    """Signals a process that meets the condition, surely that one: its id cannot pass on in between."""
    try:
        handle = os.pidfd_open(pid)
    except OSError:
        return False
    try:
        if not condition(pid):
            return False
        signal.pidfd_send_signal(handle, number)
        return True
    except ProcessLookupError:
        return False
    finally:
        os.close(handle)


def wait_until(condition, seconds):
    deadline = time.monotonic() + seconds
    while not condition():
        if time.monotonic() > deadline:
            return False
        time.sleep(0.005)
    return True


def _stat_fields(pid):
    """What follows the command's name in /proc/PID/stat: the state is the first of them."""
    try:
        with open(f"/proc/{pid}/stat", encoding="utf-8", errors="replace") as file:
            return file.read().rpartition(")")[2].split()
    except (FileNotFoundError, ProcessLookupError):
        return None
