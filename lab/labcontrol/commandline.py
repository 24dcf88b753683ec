# SPDX-License-Identifier: MIT
"""The command line of `lab`."""

import argparse
import os
import shlex
import signal
import sys
import time

from . import faults, inside, lifecycle, plan, requirements, status
from .errors import EXIT_EXEC_FAILED, EXIT_FAILED, LabError, UsageError
from .lab import Lab

DESCRIPTION = """\
An isolated network of several hosts on one machine, each with a system bus and an avahi-daemon of its own.
Everything lives in namespaces: nothing reaches the machine's network or bus, and 'lab down' ends it all.
Works as root and as an ordinary user."""

EXAMPLES = """\
examples:
  lab up                                    two hosts, viewer and device
  lab up viewer camera store                three hosts; camera answers to camera.local
  lab up viewer camera --links camera:2     camera has lan0 and lan1, each on a segment of its own
  lab up viewer fleet --no-daemon fleet     a publisher on 'fleet' has port 5353 to itself
  lab up viewer device --config viewer:objects-per-client-max=20
  lab exec viewer avahi-browse -rpt _http._tcp
  lab fault viewer daemon-kill && lab fault viewer daemon-start
  lab fault camera unplug --link 1
  lab address add camera 10.77.0.99
  lab status --json
  lab down
  VD_LAB_DIR=/tmp/second lab up             a second lab beside the first

environment:
  VD_LAB_DIR   the lab's folder: state and logs, default a folder for each user under ${TMPDIR:-/tmp}

exit status:
  0 done; 1 failed, or (lab status) no lab is up; 2 usage; 77 no lab can run on this machine, the reason is
  the one line on standard error. 'lab exec' passes on the command's status, and has 125 for its own failures.
"""

UP_DETAILS = """\
A host N (counted from 1) has the address 10.77.0.N on the interface lan0, on a second segment 10.78.0.N on lan1,
and so on, and fe80::77:N, fe80::78:N. Its avahi-daemon publishes the host's own name and no services.

examples:
  lab up viewer camera --links 2                        every host on both segments
  lab up viewer camera --static-address camera:10.77.0.200
  lab up viewer camera --config publish.publish-hinfo=yes --no-ipv6
"""

EXEC_DETAILS = """\
The command has the host's network, mounts, name and bus, and stays in the process namespace of the caller:
its process id can be signalled and waited for as usual. 'lab down' ends it if it still runs.

examples:
  lab exec viewer avahi-browse -rpt _http._tcp
  lab exec switch ip -brief link            the switch between the hosts
"""

FAULT_DETAILS = """\
faults:
  daemon-stop, daemon-kill, daemon-start    avahi-daemon ends in order, ends with SIGKILL, runs again and is ready
  daemon-hang, daemon-continue              SIGSTOP, SIGCONT
  dbus-stop, dbus-kill, dbus-start, dbus-hang, dbus-continue
                                            the same for the bus; the avahi-daemon ends when its bus does
  link-down, link-up                        the interface is switched off on the host, and on again
  unplug, plug                              the cable: the interface loses its carrier
  isolate, join                             packets vanish behind a link that looks healthy
  loss PERCENT                              that share of packets is dropped in each direction; 0 ends it

Every fault has taken hold when the command returns. Link faults concern every link of the host, or one: --link.

examples:
  lab fault viewer daemon-hang
  lab fault camera loss 30
  lab fault camera isolate --link 1
"""


def main(arguments):
    # Ended by a signal, 'lab up' still has a half-built lab to take away.
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(128 + signal.SIGTERM))
    requirements.extend_search_path()
    options = _parser().parse_args(arguments)
    try:
        return options.action(options) or 0
    except LabError as error:
        print(f"lab: {error}", file=sys.stderr)
        return EXIT_EXEC_FAILED if options.action is _exec else error.exit_status
    except KeyboardInterrupt:
        return 128 + signal.SIGINT


def _up(options):
    hosts = plan.make_hosts(options.hosts, options.links, options.static_address, options.no_daemon,
                            options.config, options.ipv6)
    lab, started = Lab(), time.monotonic()
    lifecycle.up(lab, hosts, options.ipv6, options.user_namespace, options.owner, options.timeout)
    if not options.quiet:
        print(f"lab up in {time.monotonic() - started:.2f} s: {' '.join(host.name for host in hosts)} "
              f"(state and logs: {lab.directory})")


def _down(options):
    lab = Lab()
    was_up = lifecycle.down(lab)
    if not options.quiet:
        print("lab down" if was_up else f"no lab was up in {lab.directory}")


def _exec(options):
    lab = _running_lab()
    command = options.command[1:] if options.command[:1] == ["--"] else options.command
    if not command:
        raise UsageError("lab exec HOST COMMAND...: the command is missing")
    try:
        inside.replace_this_process(lab, options.host, command, options.pid_namespace)
    except OSError as error:
        raise LabError(f"cannot run {shlex.join(command)}: {error}") from None


def _fault(options):
    lab = _running_lab()
    faults.apply(lab, lab.host(options.host), options.fault, options.percent, options.link)


def _address(options):
    lab = _running_lab()
    host = lab.host(options.host)
    address = plan.checked_address(options.address)
    [link] = faults.selected_links(host, options.link)
    inside.run(lab, host.name, ["ip", "address", options.change, address, "dev", f"lan{link}"])


def _status(options):
    lab = Lab()
    current = status.collect(lab)
    print(status.as_json(current) if options.json else status.table(current))
    return 0 if current["up"] else EXIT_FAILED


def _log(options):
    lab = _running_lab()
    path = lab.host_path(lab.host(options.host), f"{options.log}.log")
    if os.path.exists(path):
        with open(path, encoding="utf-8", errors="backslashreplace") as file:
            sys.stdout.write(file.read())


def _check(options):
    flags = requirements.choose_isolation(options.user_namespace)
    Lab()
    print(f"a lab can run here ({'as an ordinary user' if '--user' in flags else 'as root'})")


def _running_lab():
    lab = Lab()
    lab.require_up()
    return lab


def _parser():
    parser = argparse.ArgumentParser(prog="lab", description=DESCRIPTION, epilog=EXAMPLES,
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    commands = parser.add_subparsers(title="commands", metavar="COMMAND", required=True)
    _add_up(commands)
    _add_simple(commands)
    _add_exec(commands)
    _add_fault(commands)
    _add_address(commands)
    return parser


def _add_command(commands, name, action, summary, details=None):
    command = commands.add_parser(name, help=summary, description=summary[0].upper() + summary[1:] + ".",
                                  epilog=details, formatter_class=argparse.RawDescriptionHelpFormatter)
    command.set_defaults(action=action)
    return command


def _add_up(commands):
    up = _add_command(commands, "up", _up, "start a lab and return when every daemon in it runs", UP_DETAILS)
    up.add_argument("hosts", nargs="*", metavar="HOST", help="name of a host, default: viewer device")
    up.add_argument("--links", action="append", default=[], metavar="[HOST:]N",
                    help="interfaces of every host or of one, each on its own segment; repeatable")
    up.add_argument("--static-address", action="append", default=[], metavar="HOST:A.B.C.D[/PREFIX]",
                    help="address of a host's lan0 in place of the counted one; repeatable")
    up.add_argument("--config", action="append", default=[], metavar="[HOST:][SECTION.]KEY=VALUE",
                    help="entry of avahi-daemon.conf, in [server] unless a section is named; repeatable")
    up.add_argument("--no-daemon", action="append", default=[], metavar="HOST",
                    help="a host with a bus but no avahi-daemon; repeatable")
    up.add_argument("--no-ipv6", dest="ipv6", action="store_false", help="no IPv6 addresses, IPv4 only daemons")
    up.add_argument("--owner", type=int, metavar="PID", help="the lab ends by itself when this process does")
    up.add_argument("--timeout", type=float, default=60, metavar="SECONDS", help="default 60")
    _add_user_namespace(up)
    _add_quiet(up)


def _add_simple(commands):
    down = _add_command(commands, "down", _down, "end the lab, all its processes and its folder")
    _add_quiet(down)
    check = _add_command(commands, "check", _check,
                         "tell whether a lab can run on this machine, else why not (77)")
    _add_user_namespace(check)
    show = _add_command(commands, "status", _status, "show hosts, addresses and whether their daemons run")
    show.add_argument("--json", action="store_true", help="the same for scripts, as one JSON object")
    log = _add_command(commands, "log", _log, "print a log of a host")
    log.add_argument("host", metavar="HOST")
    log.add_argument("log", nargs="?", choices=["daemon", "dbus", "host"], default="daemon",
                     help="whose, default: daemon")


def _add_exec(commands):
    run = _add_command(commands, "exec", _exec, "run a command on a host", EXEC_DETAILS)
    run.add_argument("-p", "--pid-namespace", action="store_true",
                     help="in the host's process namespace instead: it dies with the host, "
                          "but its process id is not that of this command")
    run.add_argument("host", metavar="HOST")
    run.add_argument("command", nargs=argparse.REMAINDER, metavar="COMMAND...")


def _add_fault(commands):
    fault = _add_command(commands, "fault", _fault, "break something on a host, or mend it", FAULT_DETAILS)
    fault.add_argument("host", metavar="HOST")
    fault.add_argument("fault", metavar="FAULT", choices=faults.NAMES, help="see below")
    fault.add_argument("percent", nargs="?", type=float, metavar="PERCENT", help="with the fault 'loss'")
    _add_link(fault, "one link only: 0 for lan0, 1 for lan1")


def _add_address(commands):
    address = _add_command(commands, "address", _address,
                           "give a host's interface one more address, or take it away")
    address.add_argument("change", choices=["add", "del"])
    address.add_argument("host", metavar="HOST")
    address.add_argument("address", metavar="A.B.C.D[/PREFIX]", help="the prefix is 24 where none is given")
    _add_link(address, "the interface: 0 (the default) for lan0, 1 for lan1", default=0)


def _add_link(command, text, default=None):
    command.add_argument("--link", type=int, default=default, metavar="N", help=text)


def _add_user_namespace(command):
    command.add_argument("--user-namespace", action="store_true",
                         help="as root, do it the way an ordinary user has to")


def _add_quiet(command):
    command.add_argument("-q", "--quiet", action="store_true", help="say nothing when all goes well")
