# SPDX-License-Identifier: MIT
import signal

# Under nohup the programs that tests start would inherit that it is ignored.
signal.signal(signal.SIGHUP, signal.SIG_DFL)
