# SPDX-License-Identifier: MIT
"""Where a test takes place: its labs, and the programs that run in them."""

from .discover import Discover
from .hostile import HostilePublisher
from .labs import PLAIN
from .probe import Probe
from .publishers import ZEROCONF, Publisher
from .reader import Reader
from .simulator import Simulator


class Stage:
    """As a context manager it ends everything that was started on it."""

    def __init__(self, labs):
        self._all_labs = labs
        self._labs = []
        self._programs = []

    def set_up(self, lab_options=PLAIN, program=ZEROCONF, probe_options=()):
        """What most tests need: a lab, a probe on its viewer and a publisher."""
        lab = self.lab(lab_options)
        return lab, self.probe(lab, *probe_options), self.publisher(lab, program)

    def lab(self, options=PLAIN):
        self._labs.append(self._all_labs.start(options))
        return self._labs[-1]

    def probe(self, lab, *options, **program):
        return self._add(Probe(lab, *options, **program))

    def publisher(self, lab, program=ZEROCONF, host="fleet", arguments=()):
        return self._add(Publisher(lab, program, host, arguments))

    def hostile(self, lab, host="fleet", interface="lan0"):
        return self._add(HostilePublisher(lab, host, interface))

    def simulator(self, lab, *arguments, **options):
        return self._add(Simulator(lab, *arguments, **options))

    def reader(self, lab, service_type):
        return self._add(Reader(lab, service_type))

    def discover(self, lab, *arguments, **options):
        return self._add(Discover(lab, *arguments, **options))

    def _add(self, program):
        self._programs.append(program)
        return program

    def __enter__(self):
        return self

    def __exit__(self, kind, *_):
        # A program that crashes at its end is a failure too, unless one is told of already.
        statuses = [program.close() for program in reversed(self._programs)]
        for lab in self._labs:
            lab.down()
        assert kind or not any(statuses), f"programs ended with {statuses}"
