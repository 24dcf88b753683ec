# SPDX-License-Identifier: MIT
"""Members of JSON requests, checked and decoded."""

import base64
import binascii
import ipaddress
import re

SERVICE_TYPE = re.compile(r"_[A-Za-z0-9-]{1,15}\._(tcp|udp)")


class RequestError(Exception):
    """A request that cannot be carried out; everything stays as it was."""


def text_member(request, key):
    value = request.get(key) if isinstance(request, dict) else None
    if not isinstance(value, str):
        raise RequestError(f"'{key}' is missing, or is not text")
    return value


def bytes_member(request):
    """The bytes that a request gives as one of "value" (Base64), "hex" and "text"."""
    given = [key for key in ("value", "hex", "text") if key in request]
    if len(given) != 1:
        raise RequestError('give one of "value" (Base64), "hex" and "text"')
    if "hex" in request:
        return _from_hex(request["hex"])
    return from_base64(request["value"]) if "value" in request else text_member(request, "text").encode()


def checked_address(text):
    try:
        if isinstance(text, str):
            return str(ipaddress.IPv4Address(text))
    except ValueError:
        pass
    raise RequestError(f"'{text}' is not an IPv4 address") from None


def checked_type(text):
    if not SERVICE_TYPE.fullmatch(text):
        raise RequestError(f"'{text}' is not a service type such as _http._tcp")
    return text


def from_base64(text):
    try:
        return base64.b64decode(text, validate=True)
    except (binascii.Error, TypeError, ValueError):
        raise RequestError(f"{text!r} is not base64") from None


def _from_hex(text):
    try:
        return bytes.fromhex(text)
    except (TypeError, ValueError):
        raise RequestError(f"{text!r} is not hexadecimal") from None
