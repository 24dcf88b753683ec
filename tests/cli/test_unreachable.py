# SPDX-License-Identifier: MIT
"""What vd-discover does where the bus or the Avahi daemon is missing or hangs."""

import os
import pty
import signal
import time

import pytest

from buses import silent_bus_at
from discover_messages import BUS, DAEMON, HANG, WAITING
from waiting import wait_until

# Far more than what is told takes, and less than the 25 s after which D-Bus itself gives up.
SOON_S = 10


def read_line(process):
    return process.stderr.readline().rstrip(b"\n")


def is_interrupt_handled(process):
    """Whether the process has come as far as to end cleanly at SIGINT."""
    with open(f"/proc/{process.pid}/status", encoding="ascii") as status:
        caught = next(line for line in status if line.startswith("SigCgt:"))
    return bool(int(caught.split()[1], 16) >> (signal.SIGINT - 1) & 1)


def cpu_seconds(process):
    with open(f"/proc/{process.pid}/stat", encoding="ascii") as stat:
        fields = stat.read().rsplit(")", 1)[1].split()
    return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")


def test_a_missing_bus_is_told_in_one_line_and_soon(tool, plain):
    begin = time.monotonic()
    assert tool.run(*plain) == (3, b"", BUS + b"\n")
    assert time.monotonic() - begin < SOON_S


def test_a_missing_daemon_is_told_in_one_line_and_soon(tool, bare_bus, plain):
    begin = time.monotonic()
    assert tool.run(*plain) == (3, b"", DAEMON + b"\n")
    assert time.monotonic() - begin < SOON_S


def test_a_bus_that_hangs_is_told_in_one_line_and_soon(tool, silent_bus, plain):
    begin = time.monotonic()
    assert tool.run(*plain) == (3, b"", HANG + b"\n")
    assert time.monotonic() - begin < SOON_S


def test_json_does_not_change_what_is_told(tool):
    assert tool.run("--format", "json") == (3, b"", BUS + b"\n")


@pytest.mark.parametrize("number", [signal.SIGINT, signal.SIGTERM])
def test_following_waits_for_the_bus_until_it_is_interrupted(tool, number):
    process = tool.start("--follow")
    assert read_line(process) == BUS + WAITING
    process.send_signal(number)
    output, errors = process.communicate(timeout=SOON_S)
    assert (process.returncode, output, errors) == (3, b"", b"")


def test_following_waits_for_the_daemon_and_tells_once(tool, bare_bus, plain):
    process = tool.start("--follow", *plain)
    assert read_line(process) == DAEMON + WAITING
    process.send_signal(signal.SIGINT)
    assert process.communicate(timeout=SOON_S) == (b"", b"")
    assert process.returncode == 3


def test_following_notices_that_the_bus_goes_away(tool, bare_bus, plain):
    process = tool.start("--follow", *plain)
    assert read_line(process) == DAEMON + WAITING
    bare_bus.send_signal(signal.SIGTERM)
    bare_bus.wait()
    assert read_line(process) == BUS + WAITING


def test_following_notices_that_the_bus_it_waited_for_hangs(tool, plain):
    process = tool.start("--follow", *plain)
    assert read_line(process) == BUS + WAITING
    with silent_bus_at(tool.bus):
        assert read_line(process) == HANG + WAITING
        process.send_signal(signal.SIGINT)
        assert process.communicate(timeout=SOON_S) == (b"", b"")
    assert process.returncode == 3


def test_waiting_costs_no_cpu(tool):
    process = tool.start("--follow")
    read_line(process)
    before = cpu_seconds(process)
    # The span that is measured, in which a busy loop would take four times as much.
    time.sleep(2)
    assert cpu_seconds(process) - before < 0.5


def test_a_second_signal_ends_the_process_even_while_it_is_blocked(tool, silent_bus):
    process = tool.start("--follow")
    assert read_line(process) == HANG + WAITING
    process.send_signal(signal.SIGINT)
    wait_until(lambda: not is_interrupt_handled(process))
    assert process.poll() is None
    process.send_signal(signal.SIGINT)
    assert process.wait(timeout=SOON_S) == -signal.SIGINT


def test_a_second_signal_may_be_another_one(tool, silent_bus):
    process = tool.start("--follow")
    read_line(process)
    process.send_signal(signal.SIGINT)
    wait_until(lambda: not is_interrupt_handled(process))
    process.send_signal(signal.SIGTERM)
    assert process.wait(timeout=SOON_S) == -signal.SIGTERM


def test_one_signal_is_enough_though_the_bus_hangs(tool, silent_bus):
    process = tool.start("--follow")
    assert read_line(process) == HANG + WAITING
    process.send_signal(signal.SIGINT)
    assert process.communicate(timeout=SOON_S) == (b"", b"")
    assert process.returncode == 3


def test_following_ends_when_its_reader_is_gone(tool):
    process = tool.start("--follow")
    read_line(process)
    process.stdout.close()
    assert process.wait(timeout=SOON_S) == 3
    assert process.stderr.read() == b""


def test_closed_standard_descriptors_do_no_harm(tool):
    status, _, errors = tool.run(preexec_fn=lambda: os.closerange(0, 2), stdin=None, stdout=None)
    assert (status, errors) == (3, BUS + b"\n")


def test_verbose_writes_the_log_to_standard_error_only(tool):
    status, output, errors = tool.run("--verbose")
    assert (status, output) == (3, b"")
    log = [line for line in errors.splitlines() if b"AvahiServiceDiscovery::" in line]
    assert [line for line in errors.splitlines() if line not in log] == [BUS]
    assert log[0].endswith(b"AvahiServiceDiscovery::BrowseServices() -> starting to browse for Bonjour services")


def test_a_terminal_gets_the_same_one_line(tool):
    primary, secondary = pty.openpty()
    process = tool.start(stdout=secondary, stderr=secondary, environment={"TERM": "xterm"})
    os.close(secondary)
    assert process.wait(timeout=SOON_S) == 3
    assert os.read(primary, 4096) == BUS + b"\r\n"
    os.close(primary)
