#!/usr/bin/python3
# SPDX-License-Identifier: MIT
"""Moves a simulated camera by a reconfiguration that is published on another host, telling what happens.

usage: reconfiguration.py VD_DISCOVER FLEET_HOST PUBLISHING_HOST    in a lab that is up; takes about 12 s
"""

import contextlib
import json
import signal
import subprocess
import sys
import time
from pathlib import Path

ROOT = Path(__file__).resolve().parents[2]
LAB = ROOT / "lab" / "lab"
SIMULATE = ROOT / "tools" / "vd-simulate" / "vd-simulate"
TYPE = "_setup._tcp"
NEW_ADDRESS = "10.77.0.222"

# The ones that a simulated device obeys unless it is told others.
USER, PASSWORD = "admin", b"simulated\n"


@contextlib.contextmanager
def running(host, *command, **streams):
    """A program on a host, which is asked to end at the end and given the time that its goodbyes take."""
    process = subprocess.Popen([LAB, "exec", host, *command], start_new_session=True, **streams)
    try:
        yield process
    finally:
        process.send_signal(signal.SIGTERM)
        process.wait()


def say(text):
    print(f"  - {text}", flush=True)


def wait_for(simulator, event, kind="camera"):
    """The state of a device in the next line of an event of the simulator's account."""
    for line in simulator.stdout:
        told = json.loads(line)
        if told["event"] == event and told["state"]["kind"] == kind:
            return told["state"]
    sys.exit("reconfiguration.py: the simulator has ended")


def main():
    vd_discover, fleet_host, publishing_host = sys.argv[1:]
    simulate = [SIMULATE, "--cameras", "1", "--seed", "1200", "--addresses", "10.77.0.151/24", "--obey", TYPE]
    with running(fleet_host, *simulate, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, text=True) as simulator:
        camera = wait_for(simulator, "published")
        say(f"{camera['device']} appears, a camera that lets itself be reconfigured")
        time.sleep(3)
        publish = ["publish", f"Move {camera['device']}", "--type", TYPE, "--zeph", f"0x{camera['serial']}",
                   "--ip", NEW_ADDRESS, "--mask", "255.255.255.0", "--kind", "camera", "--user", USER]
        say(f"{publishing_host} publishes a new address for the serial number {camera['serial']}")
        with running(publishing_host, vd_discover, *publish, "--password-file", "-", stdin=subprocess.PIPE,
                     stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL) as publisher:
            publisher.stdin.write(PASSWORD)
            publisher.stdin.close()
            camera = wait_for(simulator, "obeyed")
            say(f"{camera['device']} obeys and is at {camera['addresses'][0]} now")
            time.sleep(4)
        say(f"{publishing_host} withdraws it, and {camera['device']} says goodbye")
    time.sleep(2)


if __name__ == "__main__":
    try:
        main()
    except KeyboardInterrupt:
        sys.exit(128 + signal.SIGINT)
