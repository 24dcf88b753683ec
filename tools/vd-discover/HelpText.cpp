// SPDX-License-Identifier: MIT
#include "HelpText.h"

namespace vd::discover {

QByteArray browseHelp()
{
    return R"HELP(Usage: vd-discover [browse] [options] [TYPE...]
       vd-discover publish NAME [options]
       vd-discover responder [--start]

Commands:
  browse      Find devices. This is what runs when no command is named.
  publish     Publish a network reconfiguration for a device to obey; see
              vd-discover publish --help
  responder   Tell whether the service mdnsd is installed and running, and
              start it; see vd-discover responder --help

Finds Vandrel cameras and Snap Server storage on the local network, by DNS
service discovery over multicast DNS. Needs a running Avahi daemon.

TYPE is a DNS-SD service type; without one, _http._tcp and _https._tcp are
browsed. Devices are recognised by these two types only: any other one may be
given, but nothing is reported for it.

A daemon that is lost on the way is waited for, until the run ends. Devices stay
known meanwhile; what has changed is reported once it is back.

Options:
  -f, --follow           Run until interrupted (Ctrl-C or SIGTERM) and print a
                         line whenever a device is found, gains or loses an
                         address, changes its text, or is lost.
  -t, --timeout SECONDS  How long to collect, without --follow: a number above
                         0, fractions allowed. Default: 5
  -n, --count N          Stop as soon as N devices are known.
  -q, --requery          Query the known devices again from time to time.
  -l, --long-lived       Keep a query open for every device found, so that
                         changes are reported as they happen.
      --plain            Look through the library's plain class, as programs do
                         that use it, instead of the managed one. Then a lost
                         daemon ends a run without --follow; with it, every
                         device is found anew once the daemon is back. Not to
                         be combined with --requery and --long-lived for long:
                         queries pile up, up to the daemon's limit.
      --format FORMAT    table: for people. json: one JSON object a line, one
                         line an event, as it happens. Default: table
  -v, --verbose          Write the discovery log to standard error.
  -h, --help             Print this help.
      --version          Print the version.

Standard output carries results only. A table fits the terminal; in a pipe
nothing is cut off.

JSON:
  {"event":E,"time":T,"service":{...}}  E is found, address, text or lost; T is
  UTC. After an address was removed, the service's addressRemoved is true and
  its addresses hold the removed one only.

Examples:
  vd-discover                          Which devices are there?
  vd-discover -n 1 -t 30               Wait up to 30 s for the first device.
  vd-discover -f -l                    Watch devices come, change and go.
  vd-discover --format json | jq -c '.service | [.serviceName, .addresses[0]]'
                                       Names and addresses, for a script.
  vd-discover _https._tcp              Only devices with an https interface.

Exit status:
  0  At least one device was seen.
  1  No device was seen, or the results could not be written.
  2  The command line is wrong.
  3  The system bus or the Avahi daemon cannot be reached.
)HELP";
}

QByteArray publishHelp()
{
    return R"HELP(Usage: vd-discover publish NAME --type TYPE [options]

Publishes a service whose record tells a device to take another address, until
interrupted (Ctrl-C or SIGTERM); then withdraws it, so that the others on the
network see it go. Needs a running Avahi daemon. If the daemon stops or
restarts meanwhile, the service is published again once it is back.

Everyone on the local network can read the record, user name and password
included: Base64, in which the password stands, hides nothing.

NAME is what the service is called on the network, 1 to 63 bytes of UTF-8.

Needed:
      --type TYPE           The service type that the devices look for, such as
                            _setup._tcp.

What of the next three is left out stands in the record as zeros, and a
warning tells what a device makes of them:
      --zeph N              The number that tells which device is meant, from 0
                            to 16777215, or in hexadecimal with 0x in front.
      --ip A.B.C.D          The address that the device is to take.
      --mask A.B.C.D        Its net mask.

Options:
      --user NAME           User name on the device. Default: empty
      --password-file FILE  File with nothing but the password, in UTF-8; - is
                            standard input, where a terminal does not show what
                            is typed. Default: an empty password
      --kind camera|snap    What kind of device is meant: a Vandrel camera or
                            Snap Server storage. Default: any
      --dns A.B.C.D         A name server; up to three times. Only with
                            --kind snap, as no other device is told of them:
                            without it they are not in the record.
      --save                The device is to keep the settings over a restart.
  -t, --timeout SECONDS     Withdraw the service and end after this time from
                            the start, a number above 0, fractions allowed.
      --format FORMAT       table: lines for people. json: one JSON object a
                            line. Default: table
  -v, --verbose             Write the library's log to standard error. The
                            password is never in it.
  -h, --help                Print this help.
      --version             Print the version.

JSON:
  {"event":E,"time":T,"service":{"serviceName":N,"serviceType":S}}  E is
  established, collision, failure, lost (the daemon is gone, and the service
  with it) or withdrawn; T is UTC.

Example:
  pass show dock-camera | head -n 1 | vd-discover publish "Dock setup" \
      --type _setup._tcp --zeph 0x0a0b0c --ip 192.168.1.10 \
      --mask 255.255.255.0 --user admin --password-file - --save

Exit status:
  0  The service was published.
  1  It was not, or the results could not be written.
  2  The command line is wrong, or the password cannot be read.
  3  The system bus or the Avahi daemon cannot be reached.
)HELP";
}

QByteArray responderHelp()
{
    return R"HELP(Usage: vd-discover responder [--start]

Tells whether the multicast DNS responder service mdnsd is installed and
running. No other command needs it: they use the Avahi daemon.

Options:
      --start    Start it if it is installed and not running. This takes the
                 right to start services, as sudo gives it.
  -h, --help     Print this help.
      --version  Print the version.

Exit status:
  0  It is running.
  1  It is not, or that cannot be found out.
  2  The command line is wrong.
)HELP";
}

QByteArray versionText()
{
    return "vd-discover " VD_VERSION "\n";
}

} // namespace vd::discover
