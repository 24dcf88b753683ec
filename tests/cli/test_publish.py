# SPDX-License-Identifier: MIT
"""What vd-discover publish makes of its command line and of the password, where there is no system bus."""

import fcntl
import os
import pty
import signal
import subprocess
import termios
import time

import pytest

from discover_messages import BUS, DAEMON, HANG, READABLE_BY_ALL as WARNING
from test_unreachable import SOON_S

PASSWORD = "Zuckerhut-4711"
# With these nothing is amiss.
ORDINARY = ("--type", "_setup._tcp", "--zeph", "0x010203", "--ip", "10.77.0.60", "--mask", "255.255.255.0")


@pytest.fixture
def password_file(tmp_path):
    path = tmp_path / "password"
    path.write_text(PASSWORD + "\n", encoding="utf-8")
    return path


def replaced(option, value):
    """The ordinary arguments, with another value for one of them."""
    index = ORDINARY.index(option)
    return ["publish", "Setup", *ORDINARY[:index + 1], value, *ORDINARY[index + 2:]]


@pytest.mark.parametrize("arguments, error", [
    (["publish"], "publish needs a NAME for the service, as in vd-discover publish Setup (see vd-discover publish "
                  "--help)"),
    (["publish", *ORDINARY, "Dock", "setup"], 'publish takes one NAME, and here is a second one, "setup"; put a name '
                                            "with blanks in quotes"),
    (["publish", *ORDINARY, "n" * 64], "NAME takes 1 to 63 bytes of UTF-8 text without control characters, not "
                                     f'"{"n" * 64}"'),
    (["publish", *ORDINARY, "\x1b[2J"], "NAME takes 1 to 63 bytes of UTF-8 text without control characters, not "
                                      '"\\x1b[2J"'),
    (["publish", "Setup", *ORDINARY[2:]], "publish needs --type, such as --type _setup._tcp (see vd-discover publish "
                                        "--help)"),
    (replaced("--type", "setup"), "--type takes a service type such as _setup._tcp, which begins with _ and at least "
                                  'two characters behind it, and ends in ._tcp or ._udp, not "setup"'),
    (replaced("--zeph", "010203"), "--zeph takes a whole number from 0 to 16777215, or from 0x0 to 0xffffff, not "
                                   '"010203"'),
    (replaced("--ip", "10.77.0.060"), "--ip takes the IPv4 address of a host as four numbers, such as 192.168.1.10, "
                                      'not "10.77.0.060"'),
    (replaced("--ip", "127.0.0.1"), "--ip takes the IPv4 address of a host as four numbers, such as 192.168.1.10, "
                                    'not "127.0.0.1"'),
    (replaced("--mask", "255.0.255.0"), "--mask takes a net mask with its ones in front, such as 255.255.255.0, not "
                                        '"255.0.255.0"'),
    (["publish", "Setup", *ORDINARY, "--ip", "10.77.0.61"], "--ip is given more than once; give it once"),
    (["publish", "Setup", *ORDINARY, "--kind", "nas"], '--kind takes camera or snap, not "nas"'),
    (["publish", "Setup", *ORDINARY, "--user", "u" * 239], "--user takes up to 238 bytes of UTF-8 text without "
                                                         f'control characters, not "{"u" * 239}"'),
    (["publish", "Setup", *ORDINARY, "--follow"], "--follow is an option of browse, not of publish (see vd-discover "
                                                "publish --help)"),
    (["publish", "Setup", *ORDINARY, "--nonsense"], 'unknown option "--nonsense" (see vd-discover publish --help)'),
    (["publish", "Setup", *ORDINARY, "--password-file", PASSWORD],
     "the file named by --password-file does not exist; give one that holds the password, or - for standard input"),
    (["publish", "Setup", *ORDINARY, "--password-file", "/"],
     '--password-file: "/" cannot be read: Is a directory; give a file that can be read, or - for standard input'),
    (["publish", "Setup", *ORDINARY, "--password-file", "-"],
     "--password-file: standard input holds no password; leave the option out to publish none"),
])
def test_a_usage_error_is_one_line_on_standard_error_and_status_2(tool, arguments, error):
    assert tool.run(*arguments) == (2, b"", f"vd-discover: {error}\n".encode())


@pytest.mark.parametrize("given", [[f"--password={PASSWORD}"], ["--password", PASSWORD]])
def test_a_password_on_the_command_line_is_refused_and_not_repeated(tool, given):
    status, output, errors = tool.run("publish", "Setup", *ORDINARY, *given)
    assert (status, output) == (2, b"")
    assert errors == (b"vd-discover: there is no --password, as every user of this machine can read a command line; "
                      b"use --password-file FILE\n")


@pytest.mark.parametrize("content", [PASSWORD.encode() + b"\n" + PASSWORD.encode(), PASSWORD.encode() + b"\xff",
                                     PASSWORD.encode() + b"\0", 20 * PASSWORD.encode()],
                         ids=["two lines", "no UTF-8", "NUL", "too long"])
def test_a_password_that_is_refused_is_not_repeated(tool, password_file, content):
    password_file.write_bytes(content)
    status, output, errors = tool.run("publish", "Setup", *ORDINARY, "--password-file", password_file)
    assert (status, output, errors.count(b"\n")) == (2, b"", 1)
    assert PASSWORD.encode() not in errors


def test_the_password_is_not_read_while_the_command_line_is_wrong(tool):
    reader, writer = os.pipe()
    os.write(writer, PASSWORD.encode())
    status, _, _ = tool.run("publish", "Setup", "--password-file", "-", stdin=reader)
    assert status == 2
    assert os.read(reader, 100) == PASSWORD.encode()
    os.close(reader)
    os.close(writer)


def test_a_missing_bus_is_told_after_the_warning(tool):
    assert tool.run("publish", "Setup", *ORDINARY) == (3, b"", WARNING + b"\n" + BUS + b"\n")


@pytest.mark.parametrize("arguments, warning", [
    (["--type", "_setup._tcp", "--ip", "10.77.0.60"],
     b"without --zeph the record is meant for the device with the number 0; without --mask the record tells the device "
     b"to take the net mask 0.0.0.0"),
    (["--type", "_setup._tcp", "--zeph", "1", "--mask", "255.255.255.0"],
     b"without --ip the record tells the device to take 0.0.0.0"),
    (replaced("--ip", "10.77.0.255")[2:],
     b"with this --mask, --ip 10.77.0.255 is the address of all the network's hosts, not that of a host"),
    (replaced("--mask", "255.255.255.255")[2:],
     b"with --mask 255.255.255.255 the device is alone in its network"),
    ([*ORDINARY, "--dns", "10.77.0.1"],
     b"no device but Snap Server storage is told of name servers, so without --kind snap the record holds none"),
])
def test_what_may_not_be_meant_is_warned_of_in_one_line_and_goes_on(tool, arguments, warning):
    errors = WARNING + b"\nvd-discover: warning: " + warning + b"\n" + BUS + b"\n"
    assert tool.run("publish", "Setup", *arguments) == (3, b"", errors)


def test_a_missing_daemon_is_told_in_one_line_and_soon(tool, bare_bus):
    begin = time.monotonic()
    assert tool.run("publish", "Setup", *ORDINARY) == (3, b"", WARNING + b"\n" + DAEMON + b"\n")
    assert time.monotonic() - begin < SOON_S


def test_a_bus_that_hangs_is_told_in_one_line_and_soon(tool, silent_bus):
    begin = time.monotonic()
    assert tool.run("publish", "Setup", *ORDINARY) == (3, b"", WARNING + b"\n" + HANG + b"\n")
    assert time.monotonic() - begin < SOON_S


def test_the_password_may_come_from_standard_input(tool):
    process = tool.start("publish", "Setup", *ORDINARY, "--password-file", "-", stdin=subprocess.PIPE)
    output, errors = process.communicate(PASSWORD.encode() + b"\n", timeout=SOON_S)
    assert (process.returncode, output) == (3, b"")
    assert errors.startswith(WARNING + b", password included\n")


@pytest.fixture
def terminal():
    primary, secondary = pty.openpty()
    yield primary, secondary
    for descriptor in (primary, secondary):
        os.close(descriptor)


def prompted(tool, secondary):
    """A run at the terminal that waits for a password, of a session of its own, as it has in a shell."""
    def own_the_terminal():
        # The tests themselves may run as a job in the background, which ignores these.
        for number in (signal.SIGINT, signal.SIGQUIT):
            signal.signal(number, signal.SIG_DFL)
        os.setsid()
        fcntl.ioctl(secondary, termios.TIOCSCTTY, 0)
    return tool.start("publish", "Setup", *ORDINARY, "--password-file", "-", stdin=secondary, stdout=secondary,
                      stderr=secondary, preexec_fn=own_the_terminal)


def is_showing(terminal_descriptor):
    return bool(termios.tcgetattr(terminal_descriptor)[3] & termios.ECHO)


def test_a_terminal_does_not_show_the_password_that_is_typed(tool, terminal):
    primary, secondary = terminal
    process = prompted(tool, secondary)
    shown = os.read(primary, 100)
    os.write(primary, PASSWORD.encode() + b"\n")
    assert process.wait(timeout=SOON_S) == 3
    shown += os.read(primary, 10000)
    assert shown.startswith(b"Password: \r\n" + WARNING + b", password included\r\n")
    assert PASSWORD.encode() not in shown
    assert is_showing(secondary)


@pytest.mark.parametrize("key, number", [(b"\x03", signal.SIGINT), (b"\x1c", signal.SIGQUIT),
                                         (None, signal.SIGTERM), (None, signal.SIGHUP)])
def test_a_signal_at_the_prompt_ends_the_run_and_shows_typing_again(tool, terminal, key, number):
    primary, secondary = terminal
    process = prompted(tool, secondary)
    os.read(primary, 100)
    if key:
        os.write(primary, key)
    else:
        process.send_signal(number)
    assert process.wait(timeout=SOON_S) == -number
    assert is_showing(secondary)
