# SPDX-License-Identifier: MIT
"""The command line, as far as nothing is published."""

import os
import subprocess
from pathlib import Path

import pytest

from vdsimulate import options

PROGRAM = Path(__file__).resolve().parents[2] / "tools" / "vd-simulate" / "vd-simulate"


def run(*arguments):
    """Runs it as outside a lab; it ends before anything is sent, for no interface is named that there is."""
    environment = {name: value for name, value in os.environ.items() if name != "VD_LAB_HOST"}
    return subprocess.run([PROGRAM, *arguments], env=environment, stdin=subprocess.DEVNULL, capture_output=True,
                          text=True, timeout=20, check=False)


def complaint(*arguments):
    outcome = run(*arguments)
    assert (outcome.returncode, outcome.stdout) == (2, "")
    assert outcome.stderr.startswith("vd-simulate: ") and outcome.stderr.count("\n") == 1
    return outcome.stderr[len("vd-simulate: "):-1]


def test_outside_a_lab_it_asks_for_the_interface():
    assert complaint("--cameras", "1") == (
        "name the network that the devices are to appear on, as in --interface eth0: everyone there will see them "
        "(in a lab of lab/lab it need not be named)")


def test_an_interface_that_is_not_there_is_refused_with_those_that_are():
    assert complaint("--cameras", "1", "--interface", "no\nsuch").startswith(
        "there is no interface 'no\\nsuch' with an IPv4 address; --interface takes one of: lo (127.0.0.1)")


@pytest.mark.parametrize("arguments, message", [
    ([], "give 1 to 10000 devices in all with --cameras, --storage and --other"),
    (["--cameras", "9000", "--other", "1001"],
     "give 1 to 10000 devices in all with --cameras, --storage and --other"),
    (["--cameras", "x\n"], "argument --cameras: 'x\\n' is not a number from 0 to 10000"),
    (["--cameras", "-1"], "argument --cameras: '-1' is not a number from 0 to 10000"),
    (["--camera", "1"], "unrecognized arguments: --camera 1"),
    (["--cameras", "1", "x\ny"], "unrecognized arguments: x\\ny"),
    (["--cameras", "1", "--churn", "0"], "argument --churn: '0' is not a number from 0.01 to 100"),
    (["--cameras", "1", "--churn", "nan"], "argument --churn: 'nan' is not a number from 0.01 to 100"),
    (["--cameras", "1", "--addresses", "10.0.0.0/33"],
     "argument --addresses: '10.0.0.0/33' is not an IPv4 network such as 198.18.0.0/15"),
    (["--cameras", "1", "--obey", "reconfig"],
     "argument --obey: 'reconfig' is not a service type such as _http._tcp"),
    (["--cameras", "1", "--vendor-domain", "a=b"],
     "argument --vendor-domain: 'a=b' is not a domain such as vandrel.com"),
    (["--cameras", "1", "--script", "/nonexistent"],
     "argument --script: cannot read '/nonexistent': No such file or directory"),
    (["--cameras", "1", "--password-file", "/"], "argument --password-file: cannot read '/': Is a directory"),
])
def test_a_wrong_option_is_told_in_one_line_with_what_is_right(arguments, message):
    assert complaint(*arguments) == f"{message} (vd-simulate --help tells more)"


def test_a_network_without_room_is_refused():
    assert complaint("--cameras", "3", "--addresses", "10.0.0.0/30") == (
        "10.0.0.0/30 has room for 2 of 3 devices; name a larger network with --addresses")


def test_the_help_tells_of_every_option_and_ends_well():
    outcome = run("--help")
    assert (outcome.returncode, outcome.stderr) == (0, "")
    for option in ("--cameras", "--storage", "--other", "--addresses", "--seed", "--vendor-domain", "--interface",
                   "--script", "--churn", "--obey", "--user", "--password-file"):
        assert f"  {option} " in outcome.stdout


def test_the_defaults_of_what_is_obeyed_are_documented_ones():
    credentials = options.credentials(options.parse(["--cameras", "1"]))
    assert (credentials.user, credentials.password) == (b"admin", b"simulated")


@pytest.mark.parametrize("content, password", [
    (b"s3cret\n", b"s3cret"), (b"s3cret", b"s3cret"), (b"s3cret\r\n", b"s3cret"), (b"two\nlines\n\n", b"two\nlines\n"),
    (b" \xFF ", b" \xFF "), (b"", b"")])
def test_a_password_is_the_file_without_its_last_line_feed(tmp_path, content, password):
    path = tmp_path / "password"
    path.write_bytes(content)
    parsed = options.parse(["--cameras", "1", "--user", "ops", "--password-file", str(path)])
    assert (options.credentials(parsed).user, options.credentials(parsed).password) == (b"ops", password)
