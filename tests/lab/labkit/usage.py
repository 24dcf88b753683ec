# SPDX-License-Identifier: MIT
"""What a running program holds of the machine."""

import re
import time
from pathlib import Path

import pytest

from .paths import PROBE


def _is_sanitized():
    return PROBE.exists() and b"libasan.so" in PROBE.read_bytes()


of_true_memory = pytest.mark.skipif(_is_sanitized(), reason="the address sanitizer keeps memory that was freed")


def memory_kib(pid):
    return int(_status(pid, "VmRSS"))


def handles(pid):
    """Its open descriptors and its threads, which are the same before and after whatever the network does."""
    descriptors = sum(1 for _ in Path(f"/proc/{pid}/fd").iterdir())
    return {"descriptors": descriptors, "threads": int(_status(pid, "Threads"))}


def cpu_seconds(pid):
    """Exact, by the clock that clock_getcpuclockid() names."""
    return time.clock_gettime(~pid << 3 | 2)


def share_of_a_processor(pid, seconds):
    """Used in so many seconds from now on."""
    before, begin = cpu_seconds(pid), time.monotonic()
    time.sleep(seconds)
    return (cpu_seconds(pid) - before) / (time.monotonic() - begin)


def catches(pid, name, number):
    """Whether it has become the program of this name, and handles this signal."""
    return _status(pid, "Name") == name and bool(int(_status(pid, "SigCgt"), 16) >> number - 1 & 1)


def _status(pid, name):
    status = Path(f"/proc/{pid}/status").read_text(encoding="utf-8", errors="replace")
    return re.search(rf"^{name}:\s+(\S+)", status, re.MULTILINE)[1]
