# SPDX-License-Identifier: MIT
"""Unit files."""

BASE_UNITS = {
    "dbus.socket": """[Unit]
DefaultDependencies=no
[Socket]
ListenStream=/run/dbus/system_bus_socket
""",
    "dbus.service": """[Unit]
DefaultDependencies=no
Requires=dbus.socket
[Service]
Type=notify
NotifyAccess=main
ExecStart=/usr/bin/dbus-daemon --system --address=systemd: --nofork --nopidfile --systemd-activation --syslog-only
""",
    "test.target": """[Unit]
DefaultDependencies=no
Requires=dbus.socket dbus.service
After=dbus.socket dbus.service
""",
}


def service(*lines, unit=()):
    return "\n".join(["[Unit]", "DefaultDependencies=no", *unit, "[Service]", *lines, ""])


SLEEPS = "ExecStart=/bin/sleep infinity"

SOUND = service(SLEEPS)
MASKED = "-> /dev/null"
DANGLING = "-> nowhere.service"
INVALID = service("Type=simple")
ENDS_AT_ONCE = service("ExecStart=/bin/false")
PROGRAM_MISSING = service("ExecStart=/nonexistent/mdnsd")
FAILS_TO_START = service("Type=oneshot", "ExecStart=/bin/false")
ENDS_WELL = service("Type=oneshot", "ExecStart=/bin/true")
BY_DEPENDENCY_ONLY = service(SLEEPS, unit=["RefuseManualStart=yes"])
SLOW_TO_RELOAD = service(SLEEPS, "ExecReload=/bin/sleep 60")
# Starts until Machine.release().
READY_ONCE_RELEASED = service(
    "Type=notify", "NotifyAccess=all", "TimeoutStartSec=infinity",
    "ExecStart=/bin/sh -c 'until [ -e /run/dbus/released ]; do sleep 0.05; done; systemd-notify --ready; "
    "exec sleep infinity'")
