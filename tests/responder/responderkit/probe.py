# SPDX-License-Identifier: MIT
"""Asks through the library what a service does."""

import json
import os
import subprocess
from pathlib import Path
from typing import NamedTuple

ROOT = Path(__file__).resolve().parents[3]
BUILD = Path(os.environ.get("VD_BUILD_DIR", ROOT / "build" / "qt6")).resolve()

# Longer than anything here may take, so that a hang fails instead of blocking the run.
LONGEST_RUN_S = 60

# Long enough on a busy machine. Whoever waits in vain says how long before the operation.
PATIENT = ("--question-ms", "20000", "--start-ms", "20000")


class Answer(NamedTuple):
    result: object
    ms: float


class Probe:
    """Runs the probe program, which talks to the bus of this address."""

    PROGRAM = BUILD / "tests" / "responder" / "probe" / "vd-responder-probe"

    def __init__(self, address, program=PROGRAM, user=None, options=PATIENT):
        self._command = [program, *options]
        self._options = {"user": user, "group": user, "extra_groups": []} if user else {}
        self._environment = {**os.environ, "DBUS_SYSTEM_BUS_ADDRESS": address, "LC_ALL": "C.UTF-8"}
        if program != self.PROGRAM:
            self._environment["LD_LIBRARY_PATH"] = str(program.parent)

    def begin(self, *arguments):
        """Starts it in the background; `end` has to follow."""
        return subprocess.Popen([*self._command, *map(str, arguments)], env=self._environment, text=True,
                                stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                                **self._options)

    @staticmethod
    def end(process):
        """One answer for each operation. Whatever goes to standard error, such as a log, is a failure."""
        try:
            output, errors = process.communicate(timeout=LONGEST_RUN_S)
        except subprocess.TimeoutExpired:
            process.kill()
            process.communicate()
            raise
        assert (process.returncode, errors) == (0, ""), output
        lines = [json.loads(line) for line in output.splitlines()]
        return [Answer(line["result"], line["ms"]) for line in lines]

    def ask(self, *arguments):
        return self.end(self.begin(*arguments))

    def answer(self, *arguments):
        """The answer to one operation."""
        [answer] = self.ask(*arguments)
        return answer

    def results(self, *arguments):
        return [answer.result for answer in self.ask(*arguments)]
