# SPDX-License-Identifier: MIT
"""Clients that discover the same devices through the same daemon, in turn, in a lab, and what each run took."""

import contextlib
import dataclasses
import json
import os
import statistics
import subprocess
import sys
import tempfile
import time
from pathlib import Path

ROOT = Path(__file__).resolve().parents[1]
sys.path.insert(0, str(ROOT / "tests" / "lab"))

from labkit.labs import PLAIN, Lab, reason_against_labs  # noqa: E402
from labkit.publishers import FLEET_PUBLISHER, ZEROCONF, Publisher  # noqa: E402, F401

SERVICE_TYPE = "_http._tcp"
CANNOT_RUN = 77
PROGRAMS = ("plain-client", "library-client")
TRIALS = 3

# The daemon keeps the query of a client that has left until it is to be repeated, so many seconds after its first
# time. A run that comes sooner would be spared its own query.
QUERY_EXPIRIES_S = (1, 3, 7, 15, 31, 63, 127)
LEAST_PAUSE_S = 4
MARGIN_S = 0.5

MS_PER_TICK = 1000 / os.sysconf("SC_CLK_TCK")


class Failed(Exception):
    """There is nothing to compare, and why."""


class OwnClient:
    """A client of the build, which prints its figures as one JSON line."""

    def __init__(self, title, program, *options):
        self.title = title
        self._command = (program, *options)

    def run(self, lab, build, devices):
        program, *options = self._command
        return json.loads(lab.run("viewer", build / "bench" / program, *options, SERVICE_TYPE, devices))


class AvahiBrowse:
    """avahi-browse, which ends when it believes that it has seen all. It is timed from beginning to end."""

    title = "avahi-browse -rpt"
    # Timed on the host, as entering the host takes its time too.
    _SCRIPT = 'TIMEFORMAT="%3R %3U %3S"; { time avahi-browse -rpt "$0"; } 2>&1'

    def run(self, lab, build, devices):
        *lines, times = lab.run("viewer", "bash", "-c", self._SCRIPT, SERVICE_TYPE).splitlines()
        elapsed, user, system = map(float, times.split())
        resolved = {line.split(";")[3] for line in lines if line.startswith("=")}
        return {"found": len(resolved), "lastAddressMs": elapsed * 1000, "cpuMs": (user + system) * 1000}


WINDOWED = OwnClient("plain-client --window 16", "plain-client", "--window", "16")
UNBOUNDED = OwnClient("plain-client", "plain-client")
MANAGED = OwnClient("library-client --managed", "library-client", "--managed")
BROWSE = AvahiBrowse()


@dataclasses.dataclass(frozen=True)
class RunSet:
    """Who is to discover what. With a cold daemon each run begins with one that was just started."""

    publisher: str
    devices: int
    clients: tuple
    is_cold: bool = False
    lab_options: tuple = ()


def measure(run_set, build, runs):
    """Returns the figures of each run by the titles of the clients."""
    with _network(run_set) as lab:
        if not run_set.is_cold:
            # Fills the daemon's cache.
            _run_once(run_set.clients[0], run_set, lab, build)
        results = {client.title: [] for client in run_set.clients}
        for _ in range(runs):
            for client in run_set.clients:
                results[client.title].append(_run_completely(client, run_set, lab, build))
        return results


def daemon_cpu_ms(lab, host):
    """What the daemon of one host of one lab has used of the processor, in all its time."""
    pid = int((lab.folder / "hosts" / host / "daemon.pid").read_text())
    name, _, fields = Path(f"/proc/{pid}/stat").read_text().rpartition(")")
    if not name.endswith("(avahi-daemon"):
        raise Failed(f"process {pid} is not the daemon of {host}: {name})")
    user, system = fields.split()[11:13]
    return (int(user) + int(system)) * MS_PER_TICK


def ratios(figure, results, over, under):
    """Of the runs of two clients, turn by turn, and that of their medians."""
    pairs = [(above[figure], below[figure]) for above, below in zip(results[over], results[under])]
    above, below = (statistics.median(values) for values in zip(*pairs))
    return [above / below for above, below in pairs], above / below


def missing_programs(build):
    """What to say when the build lacks the clients, or an empty string."""
    missing = [program for program in PROGRAMS if not (build / "bench" / program).exists()]
    return missing and (f"no {' and no '.join(missing)} in {build}: run cmake --preset release "
                        "-DVD_BUILD_BENCHMARKS=ON && cmake --build --preset release")


def add_common_options(parser, runs):
    parser.add_argument("--build", type=Path, default=ROOT / "build" / "release",
                        help="build tree with benchmarks")
    parser.add_argument("--runs", type=int, default=runs, metavar="N", help=f"of each client; default {runs}")


def run_script(name, parser, compare):
    """Ends the process with what `compare(arguments)` returns as its status, or with a line that tells what failed."""
    arguments = parser.parse_args()
    arguments.build = arguments.build.resolve()
    missing = missing_programs(arguments.build)
    if missing:
        sys.exit(f"{name}: {missing}")
    reason = reason_against_labs()
    if reason:
        print(reason, file=sys.stderr)
        sys.exit(CANNOT_RUN)
    try:
        sys.exit(compare(arguments))
    except (Failed, AssertionError, subprocess.TimeoutExpired, OSError) as error:
        sys.exit(f"{name}: {error}")


@contextlib.contextmanager
def _network(run_set):
    """A lab in which the devices are published."""
    with tempfile.TemporaryDirectory(prefix="vd-compare-") as folder:
        lab = Lab(Path(folder) / "lab", (*PLAIN, *run_set.lab_options))
        try:
            Publisher(lab, run_set.publisher).tell("fleet", count=run_set.devices, type=SERVICE_TYPE)
            # Until all is announced, which some do twice.
            time.sleep(LEAST_PAUSE_S)
            yield lab
        finally:
            lab.down()


def _run_completely(client, run_set, lab, build):
    """Who misses devices has been faster than it could be, so that run does not count."""
    for _ in range(TRIALS):
        figures = _run_once(client, run_set, lab, build)
        if figures["found"] >= run_set.devices:
            return figures
        print(f"{client.title} found {figures['found']} of {run_set.devices}: run again", flush=True)
    raise Failed(f"{client.title} did not find {run_set.devices} devices in {TRIALS} runs")


def _run_once(client, run_set, lab, build):
    if run_set.is_cold:
        lab.fault("viewer", "daemon-stop")
        lab.fault("viewer", "daemon-start")
    before, begin = daemon_cpu_ms(lab, "viewer"), time.monotonic()
    figures = client.run(lab, build, run_set.devices)
    figures["daemonCpuMs"] = daemon_cpu_ms(lab, "viewer") - before
    time.sleep(_pause_after(time.monotonic() - begin))
    return figures


def _pause_after(seconds):
    expiry = next(expiry for expiry in QUERY_EXPIRIES_S if expiry > seconds)
    return max(LEAST_PAUSE_S, expiry - seconds + MARGIN_S)
