# SPDX-License-Identifier: MIT
"""What a running program holds of the machine."""

import os
import re
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
    fields = Path(f"/proc/{pid}/stat").read_text(encoding="utf-8", errors="replace").rsplit(")", 1)[1].split()
    return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")


def catches(pid, name, number):
    """Whether it has become the program of this name, and handles this signal."""
    return _status(pid, "Name") == name and bool(int(_status(pid, "SigCgt"), 16) >> number - 1 & 1)


def _status(pid, name):
    status = Path(f"/proc/{pid}/status").read_text(encoding="utf-8", errors="replace")
    return re.search(rf"^{name}:\s+(\S+)", status, re.MULTILINE)[1]
