# SPDX-License-Identifier: MIT
"""The probe: a discovery object in a program of its own, and what it signalled and logged."""

import time

from .conversation import Conversation
from .paths import PROBE

# Long enough for what a change brings along after a second: repeated announcements, records that expire.
QUIET_S = 1.5

CACHE_EXHAUSTED = "AvahiServiceDiscovery::ServiceBrowse() -> cache exhausted - service restarting might help!"


class Probe(Conversation):
    def __init__(self, lab, *options, program=(PROBE,)):
        """`program` is another one that takes the same commands, with what stands before it on the command line."""
        self._signals_taken = 0
        self._log_taken = 0
        super().__init__(lab.start("viewer", *program, *options, stderr=None))

    def is_answer(self, line):
        return line["event"] == "answer"

    # Operations of the discovery object

    def call(self, command, **fields):
        return self.request(command, **fields)["result"]

    def browse(self, *types):
        """Starts to browse, and waits until all that was cached is told. The rest comes as it is published."""
        types = types or ("_http._tcp",)
        before = _log(self.said.all).count(CACHE_EXHAUSTED)
        assert [self.call("browse", type=service_type) for service_type in types] == [True] * len(types)
        assert self.said.wait_for(lambda lines: _log(lines).count(CACHE_EXHAUSTED) >= before + len(types))

    def start_query(self, name, long_lived, service_type="_http._tcp"):
        return self.call("start-query", name=name, type=service_type, longLiveQuery=long_lived)

    def stop_query(self, name, service_type="_http._tcp"):
        self.call("stop-query", name=name, type=service_type)

    def register(self, name, service_type, **info):
        return self.call("register", name=name, type=service_type, **info)

    # Its members

    def dump(self):
        return self.call("dump")

    def table(self):
        """The service table: the records by their keys, with their members as pairs."""
        return {key: _pairs(record) for key, record in self.dump()["services"]}

    def queue(self):
        return [tuple(entry) for entry in self.dump()["recordQueue"]]

    # What it told

    def take_signals(self, expected, quiet=QUIET_S):
        """The signals since the last time, as (name, argument): waits for so many, and for more to show up."""
        begin = self._signals_taken
        self.said.wait_for(lambda lines: len(_signals(lines)) - begin >= expected)
        time.sleep(quiet)
        signals = _signals(self.said.all)
        self._signals_taken = len(signals)
        return signals[begin:]

    def wait_for_found(self, *names):
        """Waits until services of these names were found; returns when the last of them was."""
        def last_found(lines):
            found = {dict(line["argument"])["serviceName"]: number for number, line in enumerate(lines)
                     if line.get("signal") == "serviceFound"}
            return found.keys() >= set(names) and max(found[name] for name in names)

        last = self.said.wait_for(last_found)
        assert last, f"not all of {names} were found"
        return self.said.times[last]

    def take_log(self):
        """The log lines since the last time."""
        texts = _log(self.said.all)
        begin, self._log_taken = self._log_taken, len(texts)
        return texts[begin:]

    def wait_for_log(self, text, count=1):
        """Waits until a line was logged so many times since the log was taken last; returns whether it was."""
        begin = self._log_taken
        return self.said.wait_for(lambda lines: _log(lines)[begin:].count(text) >= count)


def _signals(lines):
    return [(line["signal"], _argument(line["argument"])) for line in lines if line["event"] == "signal"]


def _log(lines):
    return [line["text"] for line in lines if line["event"] == "log"]


def _argument(argument):
    return argument if isinstance(argument, str) else _pairs(argument)


def _pairs(members):
    return [tuple(member) for member in members]
