# SPDX-License-Identifier: MIT
"""Whether a lab can run on this machine, and if not, why."""

import os
import shutil
import subprocess

from .errors import CannotRunHere

PACKAGE_OF_TOOL = {
    "bash": "bash",
    "sleep": "coreutils",
    "unshare": "util-linux",
    "nsenter": "util-linux",
    "setsid": "util-linux",
    "mount": "mount",
    "hostname": "hostname",
    "ip": "iproute2",
    "dbus-daemon": "dbus-daemon",
    "dbus-send": "dbus-bin",
    "avahi-daemon": "avahi-daemon",
}

BUS_POLICY_OF_AVAHI = "/usr/share/dbus-1/system.d/avahi-dbus.conf"

USER_NAMESPACE = ["--user", "--map-root-user"]
NAMESPACES = ["--net", "--mount", "--uts", "--pid", "--fork", "--kill-child=KILL", "--propagation", "private"]

# Everything the lab asks of the kernel, tried once in namespaces that end with it.
PROBE = """
mount -t tmpfs tmpfs /run &&
ip link add br0 type bridge &&
ip link add lan0 type veth peer name port0 &&
ip link set port0 master br0
"""


def extend_search_path():
    """An ordinary user's PATH lacks the folders that daemons and network tools stand in."""
    folders = os.environ.get("PATH", os.defpath).split(":")
    folders += [folder for folder in ("/usr/sbin", "/sbin") if folder not in folders]
    os.environ["PATH"] = ":".join(folders)


def require_tool(tool, package):
    if not shutil.which(tool):
        raise CannotRunHere(f"{tool} is missing: install the Debian package {package}")


def choose_isolation(force_user_namespace=False):
    """Returns the flags of `unshare` for the lab's first process, or raises CannotRunHere with the reason."""
    for tool, package in PACKAGE_OF_TOOL.items():
        require_tool(tool, package)
    if not os.path.exists(BUS_POLICY_OF_AVAHI):
        raise CannotRunHere(f"{BUS_POLICY_OF_AVAHI} is missing: install the Debian package avahi-daemon")

    if os.geteuid() == 0 and not force_user_namespace:
        failure = _probe(NAMESPACES)
        if not failure:
            return NAMESPACES
    failure = _probe(USER_NAMESPACE + NAMESPACES)
    if failure:
        raise CannotRunHere(f"no network namespaces for this user ({failure}): run as root, "
                            "or allow user namespaces (sysctl kernel.unprivileged_userns_clone=1)")
    return USER_NAMESPACE + NAMESPACES


def _probe(flags):
    """Returns what went wrong, or an empty string."""
    outcome = subprocess.run(["unshare", *flags, "sh", "-c", PROBE], stdin=subprocess.DEVNULL,
                             capture_output=True, text=True, check=False)
    if outcome.returncode == 0:
        return ""
    lines = outcome.stderr.strip().splitlines()
    return lines[-1] if lines else f"unshare ended with status {outcome.returncode}"
