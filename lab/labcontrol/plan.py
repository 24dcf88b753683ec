# SPDX-License-Identifier: MIT
"""What a lab is to look like: hosts, their links and addresses, and their daemons' configuration."""

import dataclasses
import ipaddress
import re

from .errors import UsageError

SWITCH = "switch"
MAX_HOSTS = 250
MAX_LINKS = 4
HOST_NAME = re.compile(r"[a-z0-9]([a-z0-9-]{0,61}[a-z0-9])?")
CONFIG_ENTRY = re.compile(r"(?:(?P<section>[a-z-]+)\.)?(?P<key>[a-z0-9-]+)=(?P<value>[^\n]*)")


def segment_address(segment, number):
    """The address of the host of this number on a segment: 10.77.0.1/24, on the second segment 10.78.0.1/24."""
    return f"10.{77 + segment}.0.{number}/24"


@dataclasses.dataclass
class Host:
    name: str
    number: int
    addresses: list  # one a link: that of lan0 first, each with its prefix length
    daemon: bool = True
    config: dict = dataclasses.field(default_factory=dict)  # section -> key -> value, beside the defaults

    @property
    def links(self):
        return [f"lan{index}" for index in range(len(self.addresses))]

    def port(self, link):
        """The name of the switch's end of a link."""
        return f"port{self.number}-{link}"


def make_hosts(names, links=(), static_addresses=(), without_daemon=(), config=(), ipv6=True):
    """Makes the hosts from the texts of the command line; raises UsageError for the first that is wrong."""
    names = list(names) or ["viewer", "device"]
    _check_names(names)
    hosts = {name: Host(name, number, [segment_address(0, number)]) for number, name in enumerate(names, 1)}

    for text in links:
        for host, count in _addressees(text, hosts):
            if not re.fullmatch(r"[0-9]+", count) or not 1 <= int(count) <= MAX_LINKS:
                raise UsageError(f"--links {text}: the number of links is 1 to {MAX_LINKS}")
            host.addresses = [segment_address(segment, host.number) for segment in range(int(count))]
    for text in static_addresses:
        name, _, address = text.partition(":")
        _find(hosts, name, text).addresses[0] = checked_address(address)
    for name in without_daemon:
        _find(hosts, name, name).daemon = False

    for host in hosts.values():
        host.config = _default_config(host.name, ipv6)
    for text in config:
        for host, entry in _addressees(text, hosts, separator_before="="):
            _apply_config_entry(host, entry)
    return list(hosts.values())


def checked_address(text):
    """An IPv4 address with its prefix length, /24 where none is given."""
    try:
        return str(ipaddress.IPv4Interface(text if "/" in text else text + "/24"))
    except ValueError:
        raise UsageError(f"'{text}' is not an IPv4 address: use A.B.C.D or A.B.C.D/PREFIX") from None


def avahi_configuration(host):
    lines = []
    for section, entries in host.config.items():
        lines += [f"[{section}]", *(f"{key}={value}" for key, value in entries.items()), ""]
    return "\n".join(lines)


def _check_names(names):
    if len(names) > MAX_HOSTS:
        raise UsageError(f"{len(names)} hosts are too many: a lab has at most {MAX_HOSTS}")
    for name in names:
        if not HOST_NAME.fullmatch(name) or name == SWITCH:
            raise UsageError(f"'{name}' cannot name a host: use small letters, digits and inner hyphens, "
                             f"and not '{SWITCH}'")
        if names.count(name) > 1:
            raise UsageError(f"host '{name}' is named twice")


def _find(hosts, name, text):
    if name not in hosts:
        raise UsageError(f"'{text}': there is no host '{name}' among {', '.join(hosts)}")
    return hosts[name]


def _addressees(text, hosts, separator_before=None):
    """Splits an optional leading `HOST:` off; without it the rest is meant for every host."""
    head = text.split(separator_before, 1)[0] if separator_before else text
    if ":" not in head:
        return [(host, text) for host in hosts.values()]
    name, _, rest = text.partition(":")
    return [(_find(hosts, name, text), rest)]


def _default_config(name, ipv6):
    return {
        "server": {
            "host-name": name,
            "use-ipv4": "yes",
            "use-ipv6": "yes" if ipv6 else "no",
            "ratelimit-interval-usec": "1000000",
            "ratelimit-burst": "1000",
        },
        "wide-area": {"enable-wide-area": "no"},
        "publish": {"publish-hinfo": "no", "publish-workstation": "no"},
    }


def _apply_config_entry(host, text):
    match = CONFIG_ENTRY.fullmatch(text)
    if not match:
        raise UsageError(f"--config {text}: use [HOST:][SECTION.]KEY=VALUE, for example objects-per-client-max=20")
    host.config.setdefault(match["section"] or "server", {})[match["key"]] = match["value"]
