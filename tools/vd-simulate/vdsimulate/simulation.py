# SPDX-License-Identifier: MIT
"""Brings a fleet to life until it is told to end, and then says goodbye for it, whatever happened."""

import asyncio
import random
import secrets
import signal
import sys

from zeroconf.asyncio import AsyncZeroconf

from . import interfaces, options as command_line
from .account import Account
from .actions import Actions
from .announcer import Announcer
from .churn import Churn
from .commands import Commands
from .device import CAMERA, OTHER, STORAGE
from .errors import Failure
from .fleet import make_fleet
from .input import InputLines
from .obedience import Obedience
from .watch import TextWatch

SIGNALS = (signal.SIGINT, signal.SIGTERM, signal.SIGHUP)


class Simulation:
    """To be made in the event loop."""

    def __init__(self, options):
        self._options = options
        self._seed = secrets.randbits(32) if options.seed is None else options.seed
        self._fleet = self._make_fleet()
        self._interfaces = interfaces.chosen(options.interface)
        self._loop = asyncio.get_running_loop()
        self._stop = asyncio.Event()
        self._failure = None
        self._catch_signals()

    async def run(self):
        if sys.stdout is None:
            raise Failure("the standard output is closed; redirect it, to /dev/null if nobody is to read it")
        link = _open(self._interfaces, self._options.interface is not None)
        self._account = Account(sys.stdout.fileno(), self._on_nobody_reads)
        self._announcer = Announcer(link)
        self._actions = Actions(self._fleet, self._announcer, self._account)
        # Dice of its own, so that the same fleet may live with and without it.
        self._churn = Churn(self._fleet, self._actions, random.Random(f"churn {self._seed}"))
        work, stopping = map(asyncio.ensure_future, (self._work(link), self._stop.wait()))
        try:
            await link.async_wait_for_start()
            await asyncio.wait([work, stopping], return_when=asyncio.FIRST_COMPLETED)
        finally:
            work.cancel()
            await asyncio.wait([work])
            await self._actions.goodbye(self._fleet.alive(), "end", is_final=True)
            await AsyncZeroconf(zc=link).async_close()
            self._account.close()
        if not work.cancelled():
            work.result()
        if self._failure:
            raise Failure(self._failure)

    async def _work(self, link):
        """Everything that the fleet does; it has no end of its own."""
        await link.async_wait_for_start()
        await self._announcer.publish(list(self._fleet))
        for device in self._fleet:
            self._account.tell_of("published", device, cause="start")
        self._account.tell("ready", devices=len(self._fleet), seed=self._seed,
                           interfaces=[name for name, _ in self._interfaces])
        options = self._options
        commands = Commands(self._fleet, self._actions, self._account, self._churn, self._stop.set)
        self._churn.set_rate(options.churn)
        await asyncio.gather(self._carry_out_input(commands), self._carry_out_script(commands), self._churn.run(),
                             *([self._obey(link)] if options.obey else []))

    async def _carry_out_input(self, commands):
        lines, number = InputLines(sys.stdin.fileno()) if sys.stdin else None, 0
        while lines:
            number += 1
            line = await lines.next()
            if line is None:
                return
            if line.strip():
                await commands.handle(line, "input", number)

    async def _carry_out_script(self, commands):
        for number, line in enumerate(self._options.script or [], 1):
            if line.strip():
                await commands.handle(line, "script", number)

    async def _obey(self, link):
        obedience = Obedience(self._fleet, self._actions, self._account, command_line.credentials(self._options),
                              self._options.vendor_domain)
        self._actions.on_return(obedience.catch_up)
        watch = TextWatch(link, self._announcer, self._options.obey, obedience.appear, obedience.disappear)
        await watch.run()

    def _make_fleet(self):
        options = self._options
        counts = {CAMERA: options.cameras, STORAGE: options.storage, OTHER: options.other}
        return make_fleet(counts, options.addresses, random.Random(self._seed), options.vendor_domain)

    def _catch_signals(self):
        for number in SIGNALS:
            # What nohup had ignored stays ignored.
            if number != signal.SIGHUP or signal.getsignal(number) != signal.SIG_IGN:
                self._loop.add_signal_handler(number, self._stop.set)

    def _on_nobody_reads(self):
        self._failure = "nobody reads the standard output any more; every device has said goodbye"
        self._loop.call_soon_threadsafe(self._stop.set)


def _open(chosen, is_named):
    try:
        return interfaces.open_link(chosen, is_named)
    except OSError as error:
        names = ", ".join(name for name, _ in chosen)
        raise Failure(f"cannot speak multicast DNS on {names}: {error.strerror or error}; is the interface up, and "
                      "does no other program keep UDP port 5353 to itself?") from None
