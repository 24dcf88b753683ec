# SPDX-License-Identifier: MIT
"""What vd-discover tells on standard error of the bus, the Avahi daemon and what it publishes, each line without its end."""

BUS = (b'vd-discover: the D-Bus system bus cannot be reached; start it with "sudo systemctl start dbus", '
       b'or install it with "sudo apt install dbus"')
DAEMON = (b"vd-discover: the Avahi daemon is not running; start it with "
          b'"sudo systemctl start avahi-daemon", or install it with "sudo apt install avahi-daemon"')
HANG = (b"vd-discover: the Avahi daemon or the system bus does not answer; restart the daemon with "
        b'"sudo systemctl restart avahi-daemon"')
ENDED = (b"vd-discover: the connection to the Avahi daemon has ended; if it does not come back by itself, "
         b'start it with "sudo systemctl start avahi-daemon"')
# Behind each of them, where the run goes on.
WAITING = b"; waiting for it"


READABLE_BY_ALL = b"vd-discover: warning: everyone on the local network can read the record"


def taken(name):
    return f'vd-discover: another service on the network has the name "{name}"; choose another NAME'.encode()


def back(purpose):
    return b"vd-discover: the Avahi daemon answers; " + purpose
