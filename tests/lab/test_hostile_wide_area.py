# SPDX-License-Identifier: MIT
"""A daemon that may ask name servers: whether a spoofer on the link can make discovery have it ask one."""

import base64

import pytest

from labkit.hostile import spoofed_camera, wire
from labkit.labs import NO_DAEMON
from labkit.lines import Lines, wait_until

# As Debian delivers it.
WIDE_AREA = (*NO_DAEMON, "--config", "viewer:wide-area.enable-wide-area=yes")
NAME_SERVER = "10.77.0.2"
PORT_OF_DNS = "53"
CLASSES = {"managed": (["--managed"], []), "plain": ([], ["--plain"])}
HOSTS = {name: (f"wanted-by-{name}".encode(), b"somewhere", b"example") for name in CLASSES}
# Longer than a round of queries and all that the daemon asks again, even on a busy machine.
SETTLING_S = 10
PATIENCE_S = 60

# Prints each message that comes, in Base64, and answers none.
LISTEN = """
import base64, socket, sys
with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as listener:
    listener.bind((sys.argv[1], int(sys.argv[2])))
    print("ready", flush=True)
    while True:
        print(base64.b64encode(listener.recv(9000)).decode(), flush=True)
"""

# A link may lead to where the host has files of its own; nothing is made on the machine itself.
USE_RESOLV_CONF = """
target=$(readlink -m /etc/resolv.conf)
case $target in /run/*) mkdir -p "${target%/*}" && : >"$target" ;; esac
mount --bind "$1" "$target"
"""


class NameServer:
    """What the viewer's daemon takes for the machine's name server."""

    def __init__(self, lab):
        listener = lab.start("fleet", "/usr/bin/python3", "-c", LISTEN, NAME_SERVER, PORT_OF_DNS, stderr=None)
        assert listener.stdout.readline() == b"ready\n"
        self._said = Lines(listener.stdout, base64.b64decode)
        configuration = lab.folder / "resolv.conf"
        configuration.write_text(f"nameserver {NAME_SERVER}\n", encoding="utf-8")
        lab.run("viewer", "sh", "-euc", USE_RESOLV_CONF, "sh", configuration)

    def asked(self):
        """The names that were asked for so far."""
        return {name for message in list(self._said.all) for name, _ in wire.parse_query(message).questions}


def let_all_find(stage, lab, hostile, of_class):
    """The probe and vd-discover of a class find a camera elsewhere and query it in turn and for long, then end."""
    probe_options, tool_options = CLASSES[of_class]
    name = f"Camera for {of_class}"
    probe = stage.probe(lab, *probe_options)
    assert probe.call("browse", type="_http._tcp")
    probe.call("start-query-all")
    tools = [stage.discover(lab, *tool_options, "--follow", "--format", "json", way)
             for way in ("--requery", "--long-lived")]
    hostile.send([spoofed_camera(name, host=HOSTS[of_class]).packet()])

    def all_have_found():
        return name in probe.table() and all(
            any(name.encode() in line for line in list(tool.output.all)) for tool in tools)
    assert wait_until(all_have_found, PATIENCE_S)
    assert dict(probe.table()[name])["hostName"] == f"wanted-by-{of_class}.somewhere.example"
    assert probe.start_query(name, True)
    wait_until(lambda: False, SETTLING_S)
    for program in (probe, *tools):
        program.close()


def play(stage):
    """What the name server is asked while nobody but the managed class looks on, and then the plain class."""
    lab = stage.lab(WIDE_AREA)
    name_server, hostile = NameServer(lab), stage.hostile(lab)
    lab.fault("viewer", "daemon-start")
    asked = {}
    for of_class in CLASSES:
        before = name_server.asked()
        let_all_find(stage, lab, hostile, of_class)
        asked[of_class] = name_server.asked() - before
    return asked


the_name_server = pytest.mark.story.with_args(play)


@the_name_server
def test_the_managed_class_asks_no_name_server_whatever_host_a_device_names(story):
    assert story["managed"] == set()


@the_name_server
def test_the_plain_class_has_the_daemon_ask_for_the_host_that_a_device_names(story):
    assert wire.name_key(HOSTS["plain"]) in story["plain"]
