# SPDX-License-Identifier: MIT
"""From the command line to the exit status."""

import asyncio
import logging
import sys

from . import options
from .errors import Failure, UsageError
from .requests import RequestError
from .simulation import Simulation

FAILED, USAGE = 1, 2


def main():
    # What python-zeroconf would say on standard error holds text from the network.
    logging.getLogger("zeroconf").setLevel(logging.CRITICAL + 1)
    try:
        asyncio.run(_run(options.parse(sys.argv[1:])))
    except (UsageError, RequestError) as error:
        _end(USAGE, error)
    except (Failure, OSError) as error:
        _end(FAILED, error)
    except Exception as error:
        _end(FAILED, f"{type(error).__name__}: {error}; every device has said goodbye, please report this")


async def _run(parsed):
    await Simulation(parsed).run()


def _end(status, reason):
    text = "".join(character if character.isprintable() else ascii(character)[1:-1] for character in str(reason))
    print(f"vd-simulate: {text}", file=sys.stderr)
    sys.exit(status)
