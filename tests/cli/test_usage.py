# SPDX-License-Identifier: MIT
"""What vd-discover answers to its command line alone."""

import pytest


def test_help_is_printed_to_standard_output(tool):
    status, output, errors = tool.run("--help")
    assert (status, errors) == (0, b"")
    assert output.startswith(b"Usage: vd-discover [browse] [options] [TYPE...]\n")


def test_help_needs_no_bus_whatever_else_is_asked(tool):
    status, output, _ = tool.run("browse", "-h", "--count", "0")
    assert status == 0
    assert output == tool.run("--help")[1]


@pytest.mark.parametrize("command, beginning", [
    ("publish", b"Usage: vd-discover publish NAME --type TYPE [options]\n"),
    ("responder", b"Usage: vd-discover responder [--start]\n"),
])
def test_each_command_has_a_help_of_its_own(tool, command, beginning):
    status, output, errors = tool.run(command, "--help")
    assert (status, errors) == (0, b"")
    assert output.startswith(beginning)


@pytest.mark.parametrize("command, statuses", [("browse", 4), ("publish", 4), ("responder", 3)])
def test_help_tells_of_every_exit_status(tool, command, statuses):
    text = tool.run(command, "--help")[1].decode()
    lines = text.split("Exit status:\n")[1].splitlines()
    assert [line[:3] for line in lines] == [f"  {number}" for number in range(statuses)]


def test_help_lists_every_command(tool):
    text = tool.run("--help")[1].decode()
    commands = text.split("Commands:\n")[1].split("\n\n")[0].splitlines()
    assert [line.split()[0] for line in commands if line[2] != " "] == ["browse", "publish", "responder"]


def test_version_is_one_line(tool):
    status, output, errors = tool.run("--version")
    assert (status, errors) == (0, b"")
    name, number = output.decode().splitlines()[0].split(" ")
    assert name == "vd-discover"
    assert all(part.isdigit() for part in number.split("."))
    assert output.count(b"\n") == 1


@pytest.mark.parametrize("arguments, error", [
    (["--nonsense"], 'unknown option "--nonsense" (see vd-discover --help)'),
    (["--timeout", "0"], "--timeout takes a number of seconds above 0 and up to 2000000, such as 5 or 0.5, "
                         'not "0"'),
    (["--count", "none"], '--count takes a whole number from 1, such as 3, not "none"'),
    (["--format", "xml"], '--format takes table or json, not "xml"'),
    (["-f", "-t", "1"], "--timeout and --follow exclude each other: --follow runs until it is interrupted; "
                        "leave one of them out"),
    (["publisher"], '"publisher" is neither a command nor a service type: the commands are browse, publish and '
                    "responder, and a type looks like _http._tcp (see vd-discover --help)"),
    (["--zeph", "1"], "--zeph is an option of publish, not of browse (see vd-discover --help)"),
    (["responder", "-v"], "-v is an option of browse and publish, not of responder (see vd-discover responder "
                          "--help)"),
    (["browse", "_http"], '"_http" is not a service type: give one such as _http._tcp, which begins with _ and '
                          "at least two characters behind it, and ends in ._tcp or ._udp"),
])
def test_a_usage_error_is_one_line_on_standard_error_and_status_2(tool, arguments, error):
    assert tool.run(*arguments) == (2, b"", f"vd-discover: {error}\n".encode())


def test_a_usage_error_repeats_no_control_character(tool):
    _, _, errors = tool.run("--count", "\x1b[2J\u202e\n")
    assert errors.endswith(b'not "\\x1b[2J\\u202e\\x0a"\n')


@pytest.mark.parametrize("locale", ["C", "POSIX", "xx_XX", "de_DE.ISO-8859-1", ""])
def test_output_is_utf8_without_complaint_in_every_locale(tool, locale):
    environment = {"LC_ALL": locale, "LC_CTYPE": locale, "LANG": locale}
    status, output, errors = tool.run("--count", "ü", environment=environment)
    assert (status, output) == (2, b"")
    assert errors.endswith('not "ü"\n'.encode())
    assert errors.count(b"\n") == 1


def test_bytes_that_are_not_utf8_in_an_argument_are_an_error_like_any_other(tool):
    status, output, errors = tool.run(b"--count=\xff\xfe")
    assert (status, output) == (2, b"")
    errors.decode("utf-8")


def test_help_into_a_full_device_is_no_success(tool):
    with open("/dev/full", "wb") as full:
        status, _, _ = tool.run("--help", stdout=full)
    assert status == 1
