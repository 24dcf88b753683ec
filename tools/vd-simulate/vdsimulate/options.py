# SPDX-License-Identifier: MIT
"""The command line."""

import argparse
import os
import pathlib

from .churn import MAX_CHURN_RATE
from .errors import UsageError
from .fleet import AddressPlan
from .reconfiguration import Credentials
from .requests import RequestError, checked_type

MAX_DEVICES = 10000
DEFAULT_USER, DEFAULT_PASSWORD = "admin", "simulated"

# Reserved for measurements of networks (RFC 2544), so that no real device has one of these.
DEFAULT_ADDRESSES = "198.18.0.0/15"

DESCRIPTION = "Simulates cameras and storage servers on the local network, steered by JSON lines on standard input."
EPILOG = """\
examples:
  vd-simulate --cameras 3 --storage 1 --interface eth0
  vd-simulate --cameras 30 --churn 2 --seed 7          (in a lab)
  vd-simulate --cameras 1 --obey _reconfig._tcp        (in a lab)

commands, one JSON object a line:
  {"command": "text", "device": "Lobby", "key": "error.vandrel.com", "text": "heater failure"}
  {"command": "address", "device": "Lobby", "address": "198.18.0.77"}
  {"command": "goodbye"}   {"command": "return"}   {"command": "state"}   {"wait": 1.5}   {"command": "quit"}

It runs until SIGINT, SIGTERM, SIGHUP or "quit", also at the end of its input, and then says goodbye for every
device. Exit status: 0 ended as asked, 1 failed, 2 usage. The README tells of all commands.
"""


class Parser(argparse.ArgumentParser):
    def error(self, message):
        raise UsageError(f"{message} (vd-simulate --help tells more)")


def parse(arguments):
    parser = Parser(prog="vd-simulate", description=DESCRIPTION, epilog=EPILOG, allow_abbrev=False,
                    formatter_class=argparse.RawDescriptionHelpFormatter)
    _add_fleet(parser)
    _add_behaviour(parser)
    options = parser.parse_args(arguments)
    if not 1 <= options.cameras + options.storage + options.other <= MAX_DEVICES:
        parser.error(f"give 1 to {MAX_DEVICES} devices in all with --cameras, --storage and --other")
    return options


def _add_fleet(parser):
    fleet = parser.add_argument_group("the fleet")
    for option, what in (("--cameras", "cameras"), ("--storage", "storage servers"),
                         ("--other", "printers and the like, which discovery is not to report")):
        fleet.add_argument(option, metavar="N", type=_count, default=0, help=f"so many {what}")
    fleet.add_argument("--addresses", metavar="CIDR", type=_addresses, default=DEFAULT_ADDRESSES,
                       help="their addresses, from the one that is named: 10.77.0.100/24 (default %(default)s)")
    fleet.add_argument("--seed", metavar="N", type=int, help="the same number makes the same fleet and churn")
    fleet.add_argument("--vendor-domain", metavar="DOMAIN", type=_domain, default="vandrel.com",
                       help="what the cameras' TXT keys end in (default %(default)s)")
    fleet.add_argument("--interface", metavar="IFACE",
                       help="the network to appear on, by name or address; needed outside a lab")


def _add_behaviour(parser):
    behaviour = parser.add_argument_group("what they do")
    behaviour.add_argument("--script", metavar="FILE", type=_lines, help="commands to carry out, as on standard input")
    behaviour.add_argument("--churn", metavar="RATE", type=_rate, default=0, help="so many changes a second by chance")
    behaviour.add_argument("--obey", metavar="TYPE", type=_service_type,
                           help="take reconfigurations that are published as services of this type")
    behaviour.add_argument("--user", metavar="NAME", type=os.fsencode, default=DEFAULT_USER,
                           help="the user name that they obey (default %(default)s)")
    behaviour.add_argument("--password-file", metavar="FILE", dest="password", type=_password,
                           default=DEFAULT_PASSWORD.encode(),
                           help=f"holds the password that they obey (without it: {DEFAULT_PASSWORD})")


def credentials(options):
    return Credentials(options.user, options.password)


def _count(text):
    return _number(text, int, 0, MAX_DEVICES)


def _rate(text):
    return _number(text, float, 0.01, MAX_CHURN_RATE)


def _number(text, kind, lowest, highest):
    try:
        number = kind(text)
    except ValueError:
        number = None
    if number is None or not lowest <= number <= highest:
        raise argparse.ArgumentTypeError(f"{ascii(text)} is not a number from {lowest} to {highest}")
    return number


def _addresses(text):
    try:
        return AddressPlan(text)
    except ValueError:
        example = DEFAULT_ADDRESSES
        raise argparse.ArgumentTypeError(f"{ascii(text)} is not an IPv4 network such as {example}") from None


def _domain(text):
    if not text.isascii() or not text.isprintable() or "=" in text or not 1 <= len(text) <= 63:
        raise argparse.ArgumentTypeError(f"{ascii(text)} is not a domain such as vandrel.com")
    return text


def _service_type(text):
    try:
        return checked_type(text)
    except RequestError as error:
        raise argparse.ArgumentTypeError(ascii(str(error))[1:-1]) from None


def _lines(path):
    return _read(path).splitlines()


def _password(path):
    # An editor ends a file with a line feed, which is none of the password.
    return _read(path).removesuffix(b"\n").removesuffix(b"\r")


def _read(path):
    try:
        return pathlib.Path(path).read_bytes()
    except OSError as error:
        raise argparse.ArgumentTypeError(f"cannot read {ascii(path)}: {error.strerror}") from None
