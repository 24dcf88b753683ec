# SPDX-License-Identifier: MIT
"""One lab, as its folder tells it to every command: hosts, process ids, logs."""

import dataclasses
import json
import os
import shutil
import stat
import tempfile

from . import processes
from .errors import CannotRunHere, LabError, UsageError
from .plan import Host

DIRECTORY_VARIABLE = "VD_LAB_DIR"
BUS_ADDRESS = "unix:path=/run/dbus/system_bus_socket"


def lab_directory():
    chosen = os.environ.get(DIRECTORY_VARIABLE)
    directory = os.path.realpath(chosen or os.path.join(tempfile.gettempdir(), f"vd-lab-{os.getuid()}"))
    if directory.startswith("/run/"):
        raise CannotRunHere(f"the lab's folder {directory} lies under /run, which every host has for its own: "
                            f"set {DIRECTORY_VARIABLE} to another folder")
    return directory


class Lab:
    """The lab in its folder; `description` is null while there is none."""

    def __init__(self):
        self.directory = lab_directory()
        self.description = self._read_description()

    # The folder

    def path(self, *parts):
        return os.path.join(self.directory, *parts)

    def host_path(self, host, *parts):
        return self.path("hosts", host.name, *parts)

    def create_directory(self):
        """Makes an empty folder that only this user can enter, in place of what an earlier lab left."""
        self.remove_directory()
        try:
            os.makedirs(self.directory, mode=0o700)
        except OSError as error:
            raise LabError(f"cannot make the lab's folder: {error}") from None

    def remove_directory(self):
        """Removes the folder, but only one that a lab of this user made."""
        if not os.path.lexists(self.directory):
            return
        status = os.lstat(self.directory)
        ours = stat.S_ISDIR(status.st_mode) and status.st_uid == os.getuid()
        if not ours or (os.listdir(self.directory) and not os.path.exists(self.path("lab.json"))):
            raise LabError(f"{self.directory} is not a lab's folder: set VD_LAB_DIR to one that does not exist")
        shutil.rmtree(self.directory)

    def describe(self, hosts, user_namespace, ipv6):
        self.description = {
            "hosts": [dataclasses.asdict(host) for host in hosts],
            "userNamespace": user_namespace,
            "ipv6": ipv6,
        }
        with open(self.path("lab.json"), "w", encoding="utf-8") as file:
            json.dump(self.description, file, indent=1)

    def _read_description(self):
        try:
            with open(self.path("lab.json"), encoding="utf-8") as file:
                return json.load(file)
        except (FileNotFoundError, NotADirectoryError):
            return None
        except PermissionError:
            raise LabError(f"the lab in {self.directory} belongs to another user") from None
        except ValueError:
            raise LabError(f"{self.path('lab.json')} is damaged: remove {self.directory}") from None

    # The hosts

    @property
    def hosts(self):
        return [Host(**fields) for fields in self.description["hosts"]] if self.description else []

    @property
    def user_namespace(self):
        return self.description["userNamespace"]

    @property
    def ipv6(self):
        return self.description["ipv6"]

    def host(self, name):
        for host in self.hosts:
            if host.name == name:
                return host
        raise UsageError(f"the lab has no host '{name}', only {', '.join(host.name for host in self.hosts)}")

    # Its processes

    def switch_pid(self):
        """The process id of the lab's first process, else None."""
        pid = self._pid("switch.pid")
        # An id alone might by now be that of another process.
        return pid if pid and processes.start_time(pid) == self._pid("switch.started") else None

    def host_pid(self, host):
        return self._pid("hosts", host.name, "pid")

    def service_pid(self, host, service):
        """The process id of the running "dbus" or "daemon" of a host, else None."""
        pid = self._pid("hosts", host.name, f"{service}.pid")
        return pid if self.is_process_of(pid, host) else None

    def service_state(self, host, service):
        pid = self.service_pid(host, service)
        state = processes.state(pid) if pid else None
        if state is None or state == "Z":
            return "stopped"
        return "hung" if state == "T" else "running"

    def is_process_of(self, pid, host):
        """Whether a process id is that of a process inside a host, and not of a later process of the machine."""
        host_pid = self.host_pid(host)
        if not pid or not host_pid:
            return False
        own = processes.namespace(pid, "pid")
        return own is not None and own == processes.namespace(host_pid, "pid")

    def is_up(self):
        pid = self.switch_pid()
        return pid is not None and processes.state(pid) not in (None, "Z")

    def require_up(self):
        if not self.is_up():
            raise LabError(f"no lab is up in {self.directory}: start one with 'lab up'")

    def _pid(self, *parts):
        try:
            with open(self.path(*parts), encoding="ascii") as file:
                return int(file.read())
        except (FileNotFoundError, NotADirectoryError, ValueError):
            return None
