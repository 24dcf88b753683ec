// SPDX-License-Identifier: MIT
#pragma once

#include <string>

// What vd-discover tells of the bus and the daemon. On standard error PROGRAM stands in front of it.

const std::string PROGRAM = "vd-discover: ";
const std::string BUS_REMEDY
    = "the D-Bus system bus cannot be reached; start it with \"sudo systemctl start dbus\", "
      "or install it with \"sudo apt install dbus\"";
const std::string DAEMON_REMEDY = "the Avahi daemon is not running; start it with \"sudo systemctl start "
                                  "avahi-daemon\", or install it with \"sudo apt install avahi-daemon\"";
const std::string END_REMEDY = "the connection to the Avahi daemon has ended; if it does not come back by itself, "
                               "start it with \"sudo systemctl start avahi-daemon\"";
const std::string REFUSAL_REMEDY = "the Avahi daemon refuses to browse; restart it with \"sudo systemctl restart "
                                   "avahi-daemon\"";
const std::string HANG_REMEDY
    = "the Avahi daemon or the system bus does not answer; restart the daemon with \"sudo "
      "systemctl restart avahi-daemon\"";
// Behind each of them, where the run goes on.
const std::string WAITING = "; waiting for it";
const std::string RECOVERY = "the Avahi daemon answers; ";
