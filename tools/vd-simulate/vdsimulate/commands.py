# SPDX-License-Identifier: MIT
"""Commands as JSON lines: each is answered by one line, whatever is in it."""

import asyncio
import json

from . import txt
from .churn import MAX_CHURN_RATE
from .device import ALIVE
from .requests import RequestError, bytes_member, checked_address, text_member

CAUSE = "command"
RESTART_SECONDS = 2.0
MAX_WAIT_SECONDS = 86400


class Commands:
    """Carries out one line after the other; `end()` is called when one asks for it."""

    def __init__(self, fleet, actions, account, churn, end):
        self._fleet = fleet
        self._actions = actions
        self._account = account
        self._churn = churn
        self._end = end
        self._handlers = {
            "text": self._text,
            "record": self._record,
            "serial": self._serial,
            "address": self._change_address(actions.set_address),
            "add-address": self._change_address(actions.add_address),
            "remove-address": self._change_address(actions.remove_address),
            "goodbye": self._goodbye,
            "silence": self._silence,
            "return": self._return,
            "restart": self._restart,
            "churn": self._set_churn,
            "state": self._state,
            "quit": self._quit,
        }

    async def handle(self, line, source, number):
        """Carries out line `number` of a `source`, the name of what it was read from."""
        place, command = {"source": source, "line": number}, None
        try:
            request = _parsed(line)
            command = "wait" if "wait" in request else request.get("command")
            if command == "wait":
                await asyncio.sleep(_seconds(request, "wait", None))
            else:
                await self._handler(command)(request)
            self._account.tell("done", command=command, **place)
        except RequestError as error:
            self._account.tell("error", command=command, **place, message=str(error))

    def _handler(self, command):
        if not isinstance(command, str) or command not in self._handlers:
            raise RequestError(f"no such command; there are {', '.join([*self._handlers, 'wait'])}")
        return self._handlers[command]

    async def _text(self, request):
        device = self._device(request)
        if "txt" in request:
            strings = txt.decode_entries(request["txt"])
        else:
            strings = _with_entry(txt.strings_of(device.record), request)
        await self._actions.set_record(device, txt.record_of(strings), CAUSE)

    async def _record(self, request):
        await self._actions.set_record(self._device(request), bytes_member(request), CAUSE, "record")

    async def _serial(self, request):
        await self._actions.set_serial(self._device(request), bytes_member(request), CAUSE)

    def _change_address(self, change):
        async def handler(request):
            await change(self._device(request), checked_address(request.get("address")), CAUSE)
        return handler

    async def _goodbye(self, request):
        await self._actions.goodbye(self._devices(request, is_alive), CAUSE)

    async def _silence(self, request):
        await self._actions.silence(self._devices(request, is_alive), CAUSE)

    async def _return(self, request):
        await self._actions.come_back(self._devices(request, is_away), CAUSE)

    async def _restart(self, request):
        devices, seconds = self._devices(request, is_alive), _seconds(request, "seconds", RESTART_SECONDS)
        await self._actions.goodbye(devices, CAUSE)
        await asyncio.sleep(seconds)
        # Churn, or another source of commands, may have brought one back meanwhile.
        await self._actions.come_back(list(filter(is_away, devices)), CAUSE)

    async def _state(self, request):
        self._account.tell("state", devices=[device.account() for device in self._devices(request, lambda _: True)])

    async def _set_churn(self, request):
        self._churn.set_rate(_number(request, "rate", None, MAX_CHURN_RATE, "of changes a second"))

    async def _quit(self, _):
        self._end()

    def _device(self, request):
        return self._fleet.find(text_member(request, "device"))

    def _devices(self, request, is_meant):
        """The device that a request names, or all that may be meant."""
        return [self._device(request)] if "device" in request else list(filter(is_meant, self._fleet))


def is_alive(device):
    return device.presence == ALIVE


def is_away(device):
    return not is_alive(device)


def _with_entry(strings, request):
    key = text_member(request, "key")
    if not key or "=" in key:
        raise RequestError("a key is not empty, and without \"=\"")
    has_value = any(member in request for member in ("value", "hex", "text"))
    string = txt.pair(key, bytes_member(request)) if has_value else txt.checked_string(key.encode())
    return txt.with_string(strings, key, string)


def _parsed(line):
    try:
        request = json.loads(line)
    except (ValueError, RecursionError) as error:
        raise RequestError(f"not a JSON object in UTF-8: {error}") from None
    if not isinstance(request, dict):
        raise RequestError('not a JSON object such as {"command": "state"}')
    _require_characters(request)
    return request


def _require_characters(request):
    """Half a surrogate pair is no character, though JSON can write it."""
    try:
        json.dumps(request, ensure_ascii=False).encode()
    except UnicodeEncodeError:
        raise RequestError("not a JSON object in UTF-8: it has half a surrogate pair") from None


def _seconds(request, key, default):
    return _number(request, key, default, MAX_WAIT_SECONDS, "of seconds")


def _number(request, key, default, highest, what):
    number = request.get(key, default)
    # True is a number in Python, and NaN is neither more nor less than anything.
    if isinstance(number, bool) or not isinstance(number, (int, float)) or not 0 <= number <= highest:
        raise RequestError(f"'{key}' is a number {what}, from 0 to {highest}")
    return number
