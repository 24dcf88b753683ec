// SPDX-License-Identifier: MIT
#include "HelpText.h"

namespace vd::discover {

QByteArray helpText()
{
    return R"HELP(Usage: vd-discover [browse] [options] [TYPE...]

Finds Vandrel cameras and Snap Server storage on the local network, by DNS
service discovery over multicast DNS. Needs a running Avahi daemon.

TYPE is a DNS-SD service type; without one, _http._tcp and _https._tcp are
browsed. Devices are recognised by these two types only: any other one may be
given, but nothing is reported for it.

Options:
  -f, --follow           Run until interrupted (Ctrl-C or SIGTERM) and print a
                         line whenever a device is found, gains or loses an
                         address, changes its text, or is lost.
  -t, --timeout SECONDS  How long to collect, without --follow: a number above
                         0, fractions allowed. Default: 5
  -n, --count N          Stop as soon as N devices are known.
  -q, --requery          Query the known devices again from time to time.
  -l, --long-lived       Keep a query open for every device found, so that
                         changes are reported as they happen. Not to be
                         combined with --requery for long: each time, one more
                         query is kept for every device, and the daemon allows
                         a program 1024 objects.
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

QByteArray versionText()
{
    return "vd-discover " VD_VERSION "\n";
}

} // namespace vd::discover
