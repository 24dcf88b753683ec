# SPDX-License-Identifier: MIT
"""Isolated networks for the tests, each with a viewer, whose daemon discovery uses, and a host of devices."""

import itertools
import json
import os
import shutil
import subprocess
import tempfile
from pathlib import Path

from .lines import wait_until
from .paths import LAB

# The devices' own programs speak multicast DNS there, so that host is without a daemon.
PLAIN = ("viewer", "fleet", "--no-daemon", "fleet")
TWO_SEGMENTS = (*PLAIN, "--links", "2")
TWO_DAEMONS = ("viewer", "fleet", "other", "--no-daemon", "fleet")
WITH_DESK = ("viewer", "fleet", "desk", "--no-daemon", "fleet", "--no-daemon", "desk")
FEW_OBJECTS = (*PLAIN, "--config", "viewer:objects-per-client-max=20")
NO_DAEMON = (*PLAIN, "--no-daemon", "viewer")

FOLDER_VARIABLE = "VD_LAB_DIR"


def reason_against_labs():
    """Why no lab can run here, or an empty string."""
    outcome = _lab_command("check")
    return outcome.stderr.strip() if outcome.returncode else ""


class Lab:
    """One network. Its processes end with it, and so do those that `start` started in it."""

    def __init__(self, folder, options=PLAIN):
        self.folder = folder
        self._environment = {**os.environ, FOLDER_VARIABLE: str(folder)}
        self._processes = []
        # Should the tests be killed, it ends by itself.
        self.command("up", *options, "--owner", str(os.getpid()))
        # Of the viewer's interfaces, by their names.
        self.interface_indexes = {link["ifname"]: link["ifindex"]
                                  for link in json.loads(self.run("viewer", "ip", "-json", "link"))}

    def command(self, *arguments):
        """Runs a `lab` command that has to succeed; returns what it printed."""
        outcome = _lab_command(*arguments, environment=self._environment)
        assert outcome.returncode == 0, f"lab {' '.join(arguments)}: {outcome.stderr}"
        return outcome.stdout

    def start(self, host, *command, **streams):
        """Starts a program on a host, with pipes for its standard streams."""
        streams = {**dict.fromkeys(("stdin", "stdout", "stderr"), subprocess.PIPE), **streams}
        process = subprocess.Popen([LAB, "exec", host, *map(str, command)], env=self._environment, **streams)
        self._processes.append(process)
        return process

    def run(self, host, *command):
        """Runs a program on a host that has to succeed; returns what it printed."""
        return self.command("exec", host, *map(str, command))

    def fault(self, host, fault, *details):
        self.command("fault", host, fault, *details)

    def down(self):
        for process in self._processes:
            process.kill()
            process.wait()
            for stream in filter(None, (process.stdin, process.stdout, process.stderr)):
                stream.close()
        self.command("down")


class Labs:
    """All labs of a test run, side by side."""

    def __init__(self):
        self._folder = Path(tempfile.mkdtemp(prefix="vd-lab-tests-"))
        self._numbers = itertools.count(1)

    def start(self, options=PLAIN):
        return Lab(self._folder / str(next(self._numbers)), options)

    def what_is_left(self):
        """Processes of these labs that still run, and what stands in their folder, which is removed then."""
        wait_until(lambda: not processes_of_lab(self._folder))
        left = processes_of_lab(self._folder) + sorted(map(str, self._folder.iterdir()))
        shutil.rmtree(self._folder)
        return left


def processes_of_lab(folder):
    """The command lines of all processes that the lab in this folder, or one below it, brought into being."""
    mark = f"{FOLDER_VARIABLE}={folder}".encode()
    found = []
    for process in Path("/proc").glob("[0-9]*"):
        try:
            environment = (process / "environ").read_bytes().split(b"\0")
            if any(variable == mark or variable.startswith(mark + b"/") for variable in environment):
                command = (process / "cmdline").read_bytes().decode(errors="replace")
                found.append(" ".join(command.split("\0")).strip())
        except OSError:
            pass
    return found


def _lab_command(*arguments, environment=None):
    return subprocess.run([LAB, *arguments], env=environment, stdin=subprocess.DEVNULL, capture_output=True,
                          text=True, timeout=90, check=False)
