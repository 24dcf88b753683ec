# SPDX-License-Identifier: MIT
"""A sequence of steps, and what each of them brought about."""

import dataclasses

from .probe import QUIET_S


@dataclasses.dataclass(frozen=True)
class Outcome:
    signals: list
    log: list
    table: dict
    queue: list
    members: dict


class Steps:
    """Plays steps on a probe: steps["name"] is what the step of this name brought about."""

    def __init__(self, probe):
        self._probe = probe
        self._outcomes = {}

    def play(self, name, expected, act, quiet=QUIET_S):
        """Acts, and waits for as many signals as are expected and then for any others."""
        act()
        signals = self._probe.take_signals(expected, quiet)
        log = self._probe.take_log()
        self._outcomes[name] = Outcome(signals, log, self._probe.table(), self._probe.queue(), self._probe.dump())

    def __getitem__(self, name):
        return self._outcomes[name]
