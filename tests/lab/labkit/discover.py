# SPDX-License-Identifier: MIT
"""vd-discover on a host of a lab."""

import json
import subprocess
import time

import pytest

from .lines import DEADLINE_S, Lines
from .paths import VD_DISCOVER

# Of the library: the managed one, and the plain one on request.
with_either_class = pytest.mark.parametrize("plain", [[], ["--plain"]], ids=["managed", "plain"])


class Discover:
    def __init__(self, lab, *arguments, host="viewer", before=()):
        """`before` stands before the program on the command line, such as "prlimit" with something for it."""
        self._began = time.monotonic()
        self._process = lab.start(host, *before, VD_DISCOVER, *arguments, stdin=subprocess.DEVNULL)
        self.output = Lines(self._process.stdout)
        self.errors = Lines(self._process.stderr)

    @property
    def pid(self):
        return self._process.pid

    def wait(self):
        """Waits for its end; returns the exit status, standard output, standard error and the seconds it ran."""
        status = self._process.wait(DEADLINE_S)
        seconds = time.monotonic() - self._began
        self.output.join()
        self.errors.join()
        return status, b"".join(self.output.all), b"".join(self.errors.all), seconds

    def interrupt(self, number):
        self._process.send_signal(number)
        return self.wait()

    def wait_for_output(self, count):
        """Waits for so many lines of output and returns all there are."""
        self.output.wait_for(lambda lines: len(lines) >= count)
        return list(self.output.all)

    def wait_for_errors(self, count):
        self.errors.wait_for(lambda lines: len(lines) >= count)
        return list(self.errors.all)

    def close(self):
        """Ends it if it still runs, which is no failure."""
        self._process.kill()
        self.wait()
        return 0


def events(output):
    """What JSON lines tell: (event, members of the service)."""
    objects = map(json.loads, output.splitlines() if isinstance(output, bytes) else output)
    return [(line["event"], line["service"]) for line in objects]
