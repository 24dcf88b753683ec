# SPDX-License-Identifier: MIT
"""What vd-discover publish makes of its command line and of the password, where there is no system bus."""

import os
import pty
import signal
import subprocess
import time

import pytest

from conftest import wait_until
from test_unreachable import BUS_REMEDY, DAEMON_REMEDY, HANG_REMEDY, is_interrupt_handled

PASSWORD = "Zuckerhut-4711"
PASSWORD_IN_BASE64 = b"WnVja2VyaHV0LTQ3MTE="
WARNING = b"vd-discover: warning: everyone on the local network can read the record"
NEEDED = ("--type", "_setup._tcp", "--zeph", "0x010203", "--ip", "10.77.0.60", "--mask", "255.255.255.0")


@pytest.fixture
def password_file(tmp_path):
    path = tmp_path / "password"
    path.write_text(PASSWORD + "\n", encoding="utf-8")
    return path


def replaced(option, value):
    """The arguments that are needed, with another value for one of them."""
    index = NEEDED.index(option)
    return ["publish", "Setup", *NEEDED[:index + 1], value, *NEEDED[index + 2:]]


@pytest.mark.parametrize("arguments, error", [
    (["publish"], "publish needs a NAME for the service, as in vd-discover publish Setup (see vd-discover publish "
                  "--help)"),
    (["publish", *NEEDED, "Dock", "setup"], 'publish takes one NAME, and here is a second one, "setup"; put a name '
                                            "with blanks in quotes"),
    (["publish", *NEEDED, "n" * 64], "NAME takes 1 to 63 bytes of UTF-8 text without control characters, not "
                                     f'"{"n" * 64}"'),
    (["publish", *NEEDED, "\x1b[2J"], "NAME takes 1 to 63 bytes of UTF-8 text without control characters, not "
                                      '"\\x1b[2J"'),
    (["publish", "Setup", *NEEDED[2:]], "publish needs --type, such as --type _setup._tcp (see vd-discover publish "
                                        "--help)"),
    (["publish", "Setup", *NEEDED[:-2]], "publish needs --mask, such as --mask 255.255.255.0 (see vd-discover "
                                         "publish --help)"),
    (replaced("--type", "setup"), "--type takes a service type such as _setup._tcp, which begins with _ and ends in "
                                  '._tcp or ._udp, not "setup"'),
    (replaced("--zeph", "010203"), "--zeph takes a whole number from 0 to 16777215, or from 0x0 to 0xffffff, not "
                                   '"010203"'),
    (replaced("--ip", "10.77.0.060"), "--ip takes the IPv4 address of a host as four numbers, such as 192.168.1.10, "
                                      'not "10.77.0.060"'),
    (replaced("--ip", "10.77.0.255"), "--ip 10.77.0.255 is not a host's address but, with this --mask, that of the "
                                      "network or of all its hosts; give another one"),
    (replaced("--mask", "255.0.255.0"), "--mask takes a net mask from 128.0.0.0 to 255.255.255.254, such as "
                                        '255.255.255.0, not "255.0.255.0"'),
    (["publish", "Setup", *NEEDED, "--ip", "10.77.0.61"], "--ip is given more than once; give it once"),
    (["publish", "Setup", *NEEDED, "--dns", "10.77.0.1"], "--dns needs --kind snap, as name servers are published "
                                                          "for storage servers only; give both or leave --dns out"),
    (["publish", "Setup", *NEEDED, "--kind", "nas"], '--kind takes camera or snap, not "nas"'),
    (["publish", "Setup", *NEEDED, "--user", "u" * 239], "--user takes up to 238 bytes of UTF-8 text without "
                                                         f'control characters, not "{"u" * 239}"'),
    (["publish", "Setup", *NEEDED, "--follow"], "--follow is an option of browse, not of publish (see vd-discover "
                                                "publish --help)"),
    (["publish", "Setup", *NEEDED, "--nonsense"], 'unknown option "--nonsense" (see vd-discover publish --help)'),
    (["publish", "Setup", *NEEDED, "--password-file", "/nowhere"],
     '--password-file: "/nowhere" cannot be read: No such file or directory; give a file that can be read, or - for '
     "standard input"),
    (["publish", "Setup", *NEEDED, "--password-file", "/"],
     '--password-file: "/" cannot be read: Is a directory; give a file that can be read, or - for standard input'),
    (["publish", "Setup", *NEEDED, "--password-file", "-"],
     "--password-file: standard input holds no password; leave the option out to publish none"),
])
def test_a_usage_error_is_one_line_on_standard_error_and_status_2(tool, arguments, error):
    assert tool.run(*arguments) == (2, b"", f"vd-discover: {error}\n".encode())


@pytest.mark.parametrize("given", [[f"--password={PASSWORD}"], ["--password", PASSWORD]])
def test_a_password_on_the_command_line_is_refused_and_not_repeated(tool, given):
    status, output, errors = tool.run("publish", "Setup", *NEEDED, *given)
    assert (status, output) == (2, b"")
    assert errors == (b"vd-discover: there is no --password, as every user of this machine can read a command line; "
                      b"use --password-file FILE\n")


@pytest.mark.parametrize("content", [PASSWORD.encode() + b"\n" + PASSWORD.encode(), PASSWORD.encode() + b"\xff",
                                     PASSWORD.encode() + b"\0", 20 * PASSWORD.encode()],
                         ids=["two lines", "no UTF-8", "NUL", "too long"])
def test_a_password_that_is_refused_is_not_repeated(tool, password_file, content):
    password_file.write_bytes(content)
    status, output, errors = tool.run("publish", "Setup", *NEEDED, "--password-file", password_file)
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
    assert tool.run("publish", "Setup", *NEEDED) == (3, b"", WARNING + b"\n" + BUS_REMEDY + b"\n")


def test_a_missing_daemon_is_told_in_one_line_within_two_seconds(tool, bare_bus):
    begin = time.monotonic()
    assert tool.run("publish", "Setup", *NEEDED) == (3, b"", WARNING + b"\n" + DAEMON_REMEDY + b"\n")
    assert time.monotonic() - begin < 2


def test_a_bus_that_hangs_is_told_in_one_line_within_two_seconds(tool, silent_bus):
    begin = time.monotonic()
    assert tool.run("publish", "Setup", *NEEDED) == (3, b"", WARNING + b"\n" + HANG_REMEDY + b"\n")
    assert time.monotonic() - begin < 2


def test_the_password_is_neither_in_the_arguments_nor_in_the_log(tool, silent_bus, password_file):
    process = tool.start("publish", "Setup", *NEEDED, "--user", "admin", "--password-file", password_file, "--verbose")
    wait_until(lambda: is_interrupt_handled(process))
    with open(f"/proc/{process.pid}/cmdline", "rb") as arguments:
        assert PASSWORD.encode() not in arguments.read()
    with open(f"/proc/{process.pid}/environ", "rb") as environment:
        assert PASSWORD.encode() not in environment.read()
    process.send_signal(signal.SIGINT)
    output, errors = process.communicate(timeout=5)
    assert errors.startswith(WARNING + b", password included\n")
    for secret in (PASSWORD.encode(), PASSWORD_IN_BASE64):
        assert secret not in output + errors


def test_the_password_may_come_from_standard_input(tool):
    process = tool.start("publish", "Setup", *NEEDED, "--password-file", "-", stdin=subprocess.PIPE)
    output, errors = process.communicate(PASSWORD.encode() + b"\n", timeout=5)
    assert (process.returncode, output) == (3, b"")
    assert errors.startswith(WARNING + b", password included\n")


def test_a_terminal_does_not_show_the_password_that_is_typed(tool):
    primary, secondary = pty.openpty()
    process = tool.start("publish", "Setup", *NEEDED, "--password-file", "-", stdin=secondary, stdout=secondary,
                         stderr=secondary, preexec_fn=os.setsid)
    os.close(secondary)
    shown = os.read(primary, 100)
    time.sleep(0.1)
    os.write(primary, PASSWORD.encode() + b"\n")
    assert process.wait(timeout=5) == 3
    shown += os.read(primary, 10000)
    os.close(primary)
    assert shown.startswith(b"Password: \r\n" + WARNING + b", password included\r\n")
    assert PASSWORD.encode() not in shown
