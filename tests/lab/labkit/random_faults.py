# SPDX-License-Identifier: MIT
"""What happens at random moments: daemons break, devices change, clients come, are told to do things, and go."""

import signal
import threading
import time
from collections import Counter
from concurrent.futures import ThreadPoolExecutor

from .discover import Discover
from .lines import wait_until
from .usage import catches

TYPES = ("_http._tcp", "_https._tcp")
PUBLISHED_TYPE = "_setup._tcp"

LONGEST_CALM_S = 0.4
LONGEST_ABSENCE_S = 0.4
SHORTEST_HANG_S = 0.3
LONGEST_HANG_S = 1.0

STARTS = {"daemon": ["daemon-start"], "dbus": ["dbus-start", "daemon-start"]}
BREAKS = [(service, how) for service in STARTS for how in ("kill", "stop", "hang", "kill at start")]


class Breakdowns:
    """Kills, ends, hangs and restarts the daemon and the bus of the viewer; after each cycle both run."""

    def __init__(self, lab, chance):
        self._lab = lab
        self._chance = chance
        self._to_come = []
        self.counts = Counter()

    def cycle(self):
        time.sleep(self._chance.uniform(0, LONGEST_CALM_S))
        service, how = self._next_break()
        if how == "hang":
            self._hang(service)
        elif how == "kill at start":
            self._kill_at_start(service)
        else:
            self._restart(service, how)
        self.counts[f"{service} {how}"] += 1

    def _next_break(self):
        """In no certain order, but each kind as often as any other."""
        if not self._to_come:
            self._to_come = self._chance.sample(BREAKS, len(BREAKS))
        return self._to_come.pop()

    def _restart(self, service, how):
        self._lab.fault("viewer", f"{service}-{how}")
        time.sleep(self._chance.uniform(0, LONGEST_ABSENCE_S))
        for fault in STARTS[service]:
            self._lab.fault("viewer", fault)

    def _hang(self, service):
        self._lab.fault("viewer", f"{service}-hang")
        time.sleep(self._chance.uniform(SHORTEST_HANG_S, LONGEST_HANG_S))
        self._lab.fault("viewer", f"{service}-continue")

    def _kill_at_start(self, service):
        """The daemon dies once more just when its clients see it again, before it is ready."""
        self._lab.fault("viewer", f"{service}-kill")
        *before, last = STARTS[service]
        for fault in before:
            self._lab.fault("viewer", fault)
        start = threading.Thread(target=self._try, args=[last])
        start.start()
        time.sleep(self._chance.uniform(0, LONGEST_CALM_S))
        assert wait_until(lambda: self._try("daemon-kill"))
        start.join()
        self._lab.fault("viewer", last)

    def _try(self, fault):
        try:
            self._lab.fault("viewer", fault)
        except AssertionError:
            return False
        return True


class Devices:
    """Changes one device of a simulator at each step."""

    pause_s = 0.3

    def __init__(self, simulator, chance):
        self._simulator = simulator
        self._chance = chance
        self._names = simulator.names()
        self._away = set()
        self._changes = 0

    def step(self):
        name = self._chance.choice(self._names)
        self._changes += 1
        if name in self._away:
            self._away.remove(name)
            self._simulator.tell("return", device=name)
            return
        change = self._chance.choice(("goodbye", "address", "text"))
        if change == "goodbye":
            self._away.add(name)
            self._simulator.tell("goodbye", device=name)
        elif change == "address":
            network, host = divmod(self._changes, 200)
            self._simulator.tell("address", device=name, address=f"10.77.{1 + network}.{1 + host}")
        else:
            self._simulator.tell("text", device=name, key="error.vandrel.com", text=f"change {self._changes}")


class Host:
    """A long-lived client that is told something else at each step, and answers."""

    pause_s = 0.3

    def __init__(self, probe, chance, names, actions):
        self._probe = probe
        self._chance = chance
        self._names = names
        self._actions = [getattr(self, action) for action in actions]
        self.slowest = (0, "")
        self.calls = 0

    def step(self):
        self._chance.choice(self._actions)()

    def call(self, command, **fields):
        asked = time.monotonic()
        result = self._probe.call(command, **fields)
        self.slowest = max(self.slowest, (time.monotonic() - asked, command))
        self.calls += 1
        return result

    def begin_anew(self):
        """Whether it browses again."""
        self.withdraw()
        self.terminate()
        return all([self.call("browse", type=service_type) for service_type in TYPES])

    def terminate(self):
        self.call("terminate")

    def register(self):
        name = f"Passing {self._chance.randrange(5)}"
        self.call("register", name=name, type=PUBLISHED_TYPE, userName="admin")

    def withdraw(self):
        self.call("terminate-registration")

    def query(self):
        self.call("start-query", name=self._chance.choice(self._names), type=self._chance.choice(TYPES),
                  longLiveQuery=self._chance.random() < 0.5)

    def stop_query(self):
        self.call("stop-query", name=self._chance.choice(self._names), type=self._chance.choice(TYPES))

    def query_all(self):
        self.call(self._chance.choice(("start-query-all", "stop-query-all")))


class Passers:
    """At each step a run of vd-discover that begins and ends at any moment."""

    pause_s = 0.2

    def __init__(self, lab, chance):
        self._lab = lab
        self._chance = chance
        self.runs = 0
        self.statuses = set()
        self.latest_end = (0, "")
        self.strange_lines = []

    def step(self):
        seconds = self._chance.uniform(0.8, 2)
        run = self._chance.choice((self._collect, self._follow, self._publish))
        arguments, number = run(f"{seconds:.1f}")
        begin = time.monotonic()
        running = Discover(self._lab, *arguments)
        if number:
            time.sleep(seconds)
            # Before that it would end as any program does.
            assert wait_until(lambda: catches(running.pid, "vd-discover", number))
            status, _, errors, _ = running.interrupt(number)
        else:
            status, _, errors, _ = running.wait()
        self.runs += 1
        self.statuses.add(status)
        self.latest_end = max(self.latest_end, (time.monotonic() - begin - seconds, " ".join(arguments)))
        self.strange_lines += [line for line in errors.splitlines() if not line.startswith(b"vd-discover: ")]

    def _collect(self, seconds):
        options = self._some("--requery", "--long-lived", "--plain")
        return ["--timeout", seconds, "--format", "json", *options], None

    def _follow(self, _):
        return ["--follow", "--format", "json", *self._some("--plain")], self._chance.choice(
            (signal.SIGINT, signal.SIGTERM))

    def _publish(self, seconds):
        name = f"Short {self._chance.randrange(1000)}"
        return ["publish", name, "--type", PUBLISHED_TYPE, "--timeout", seconds], None

    def _some(self, *options):
        return [option for option in options if self._chance.random() < 0.5]


def play(cycles, breakdowns, actors):
    """Something breaks so many times, and all the while the actors act, each in a thread of its own."""
    over = threading.Event()

    def act(actor, chance):
        try:
            while not over.wait(chance.uniform(0, 2 * actor.pause_s)):
                actor.step()
        finally:
            over.set()

    with ThreadPoolExecutor(len(actors)) as pool:
        acting = [pool.submit(act, actor, chance) for actor, chance in actors]
        try:
            for _ in range(cycles):
                if not over.is_set():
                    breakdowns.cycle()
        finally:
            over.set()
    for each in acting:
        each.result()
