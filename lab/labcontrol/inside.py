# SPDX-License-Identifier: MIT
"""Running commands on a host: in its network, its mounts, its name and on its bus, all or none of them."""

import os
import subprocess

from .errors import LabError
from .lab import BUS_ADDRESS
from .plan import SWITCH


def arguments(lab, host_name, command, pid_namespace=False):
    """The command line that runs a command on a host, or with the host name "switch" on the switch."""
    pid = lab.switch_pid() if host_name == SWITCH else lab.host_pid(lab.host(host_name))
    enter = ["nsenter", f"--target={pid}", "--net", "--mount", "--uts", f"--wdns={os.getcwd()}"]
    if pid_namespace:
        enter.append("--pid")
    if lab.user_namespace:
        enter += ["--user", "--preserve-credentials"]
    return [*enter, "--", *command]


def environment(host_name):
    # By it a program knows that it is not on the machine's own network.
    variables = {**os.environ, "VD_LAB_HOST": host_name}
    if host_name == SWITCH:
        variables.pop("DBUS_SYSTEM_BUS_ADDRESS", None)
    else:
        variables["DBUS_SYSTEM_BUS_ADDRESS"] = BUS_ADDRESS
    return variables


def replace_this_process(lab, host_name, command, pid_namespace=False):
    enter = arguments(lab, host_name, command, pid_namespace)
    os.execvpe(enter[0], enter, environment(host_name))


def run(lab, host_name, command, pid_namespace=False):
    """Runs a command of the lab's own and raises LabError with what it complained of."""
    outcome = subprocess.run(arguments(lab, host_name, command, pid_namespace), env=environment(host_name),
                             stdin=subprocess.DEVNULL, stderr=subprocess.PIPE, text=True, check=False)
    if outcome.returncode != 0:
        complaint = outcome.stderr.strip() or f"status {outcome.returncode}"
        raise LabError(f"{os.path.basename(command[0])} on {host_name}: {complaint}")
