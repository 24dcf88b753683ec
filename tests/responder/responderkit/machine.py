# SPDX-License-Identifier: MIT
"""A systemd of its own as the first process of fresh namespaces, with a bus and the units of a test.

It has no network but loopback, none of this machine's units, and a bus socket in the test's own folder. Nothing
here ever talks to the systemd or the bus of this machine.
"""

import os
import shutil
import signal
import subprocess
import tempfile
import time
from pathlib import Path

from .units import BASE_UNITS

SYSTEMD = "/lib/systemd/systemd"
LONGEST_BOOT_S = 15
LONGEST_ANSWER_S = 10
PACKAGE_OF_TOOL = {"unshare": "util-linux", "mount": "mount", "ip": "iproute2", "dbus-daemon": "dbus-daemon",
                   "busctl": "systemd"}

ENTER_CGROUP = 'echo $$ >"$CGROUP/cgroup.procs" && exec unshare "$@"'
NAMESPACES = ["--mount", "--pid", "--ipc", "--uts", "--net", "--cgroup", "--fork", "--kill-child=KILL",
              "--mount-proc"]
# This machine's own files can be read and not be written by what runs inside.
FIRST_PROCESS = f"""
mount --make-rprivate /
ip link set lo up
mount -t tmpfs -o mode=755 tmpfs /run
mkdir -p /run/systemd/system /run/dbus
mount --bind "$FOLDER/bus" /run/dbus
cp -a "$FOLDER/units/." /run/systemd/system/
echo 0123456789abcdef0123456789abcdef >/run/machine-id
mount --bind /run/machine-id /etc/machine-id
mount -o remount,bind,ro /
umount -R /sys/fs/cgroup
mount -t cgroup2 cgroup2 /sys/fs/cgroup
cd /
exec env -i container=test PATH=/usr/sbin:/usr/bin:/sbin:/bin SYSTEMD_UNIT_PATH=/run/systemd/system \\
    {SYSTEMD} --system --unit=test.target --show-status=no --log-target=null </dev/null
"""


def reason_against_machines():
    """Why no machine can be booted here, or an empty string."""
    if os.geteuid() != 0:
        return "only root can boot a systemd of its own"
    if not os.path.exists(SYSTEMD):
        return f"{SYSTEMD} is missing: install the Debian package systemd"
    for tool, package in PACKAGE_OF_TOOL.items():
        if not shutil.which(tool):
            return f"{tool} is missing: install the Debian package {package}"
    folder = Path(tempfile.mkdtemp(prefix="vd-responder-tests-"))
    try:
        Machine(folder / "first", {}).end()
    except (OSError, CannotBoot) as reason:
        return f"a systemd of its own cannot be booted here: {reason}"
    finally:
        shutil.rmtree(folder)
    return ""


class CannotBoot(Exception):
    pass


def _unified_cgroup():
    for line in Path("/proc/mounts").read_text().splitlines():
        _, folder, kind, *_ = line.split()
        if kind == "cgroup2":
            return Path(folder)
    raise CannotBoot("no cgroup2 is mounted")


def _link_or_file(path, content):
    if content.startswith("-> "):
        path.symlink_to(content[3:])
    else:
        path.write_text(content)


class Machine:
    def __init__(self, folder, units):
        """`units` are the texts of services by name, or "-> TARGET" for a link."""
        self.folder = folder
        self.address = f"unix:path={folder}/bus/system_bus_socket"
        for name in ("units", "bus"):
            (folder / name).mkdir(parents=True)
        for name, text in BASE_UNITS.items():
            (folder / "units" / name).write_text(text)
        for name, text in units.items():
            _link_or_file(folder / "units" / f"{name}.service", text)
        self._cgroup = _unified_cgroup() / f"vd-responder-{os.getpid()}-{time.monotonic_ns()}"
        self._cgroup.mkdir()
        self._log = (folder / "log").open("w")
        environment = {**os.environ, "FOLDER": str(folder), "CGROUP": str(self._cgroup)}
        self._outermost = subprocess.Popen(
            ["sh", "-c", ENTER_CGROUP, "sh", *NAMESPACES, "sh", "-euc", FIRST_PROCESS], env=environment,
            stdin=subprocess.DEVNULL, stdout=self._log, stderr=self._log, start_new_session=True)
        self._wait_until_booted()

    def _wait_until_booted(self):
        deadline = time.monotonic() + LONGEST_BOOT_S
        while not self._has_booted():
            if time.monotonic() > deadline or self._outermost.poll() is not None:
                self.end()
                lines = (self.folder / "log").read_text().splitlines()
                raise CannotBoot(lines[-1] if lines else "it does not come up")
            time.sleep(0.02)

    def _has_booted(self):
        try:
            outcome = self._busctl("get-property", "org.freedesktop.systemd1", "/org/freedesktop/systemd1",
                                   "org.freedesktop.systemd1.Manager", "SystemState")
        except subprocess.TimeoutExpired:
            return False
        return outcome.stdout.strip() in ('s "running"', 's "degraded"')

    def _busctl(self, *arguments):
        # busctl, unlike systemctl, talks to no other systemd than the one on the bus it is given.
        return subprocess.run(["busctl", f"--address={self.address}", *arguments], text=True, check=False,
                              stdin=subprocess.DEVNULL, capture_output=True, timeout=LONGEST_ANSWER_S)

    def tell_systemd(self, method, *arguments):
        """Calls a method of the manager, whose arguments are strings."""
        signature = ["s" * len(arguments)] if arguments else []
        outcome = self._busctl("call", "org.freedesktop.systemd1", "/org/freedesktop/systemd1",
                               "org.freedesktop.systemd1.Manager", method, *signature, *arguments)
        assert outcome.returncode == 0, outcome.stderr

    def active_state(self, service):
        path = "/org/freedesktop/systemd1/unit/" + "".join(
            letter if letter.isalnum() else f"_{ord(letter):02x}" for letter in f"{service}.service")
        outcome = self._busctl("get-property", "org.freedesktop.systemd1", path, "org.freedesktop.systemd1.Unit",
                               "ActiveState")
        return outcome.stdout.strip()[3:-1]

    def wait_for(self, service, state):
        deadline = time.monotonic() + LONGEST_BOOT_S
        while self.active_state(service) != state:
            assert time.monotonic() < deadline, f"{service} is {self.active_state(service)}, not {state}"
            time.sleep(0.01)

    def _pids(self):
        for path in self._cgroup.rglob("cgroup.procs"):
            try:
                yield from map(int, path.read_text().split())
            except OSError:
                # The group has gone since it was listed.
                continue

    def _parents(self, command):
        """The parent of each process inside that bears this name, by its pid."""
        own = os.readlink("/proc/self/ns/cgroup")
        found = {}
        for pid in self._pids():
            try:
                # The outermost process is in the group, and not in the namespaces.
                if os.readlink(f"/proc/{pid}/ns/cgroup") == own:
                    continue
                status = Path(f"/proc/{pid}/status").read_text()
            except OSError:
                # The process has ended since it was listed.
                continue
            fields = dict(line.split(":\t", 1) for line in status.splitlines() if ":\t" in line)
            if fields["Name"] == command:
                found[pid] = int(fields["PPid"])
        return found

    def signal(self, command, number):
        """Sends a signal to the one process of this name inside, which may still be about to take it."""
        deadline = time.monotonic() + LONGEST_ANSWER_S
        while True:
            parents = self._parents(command)
            # A child that was just forked bears its parent's name until it runs its own program.
            pids = [pid for pid, parent in parents.items() if parent not in parents]
            if pids or time.monotonic() > deadline:
                break
            time.sleep(0.01)
        [pid] = pids
        os.kill(pid, number)

    def release(self):
        """Lets the service that waits for it become ready."""
        (self.folder / "bus" / "released").touch()

    def end(self):
        self._outermost.send_signal(signal.SIGKILL)
        self._outermost.wait()
        self._log.close()
        deadline = time.monotonic() + LONGEST_BOOT_S
        while self._cgroup.exists() and time.monotonic() < deadline:
            groups = sorted((path for path in self._cgroup.rglob("*") if path.is_dir()), reverse=True)
            try:
                for group in [*groups, self._cgroup]:
                    group.rmdir()
            except OSError:
                # A process of it is still about to end.
                time.sleep(0.01)

    def what_is_left(self):
        return [self._cgroup.name] if self._cgroup.exists() else []
