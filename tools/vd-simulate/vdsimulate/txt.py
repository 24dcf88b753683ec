# SPDX-License-Identifier: MIT
"""TXT records: bytes on the wire, the strings in them, and their keys and values.

A record is a sequence of strings, each behind a byte that tells its length. A string is a key, "=" and a value.
"""

import base64

from .requests import RequestError, from_base64

MAX_STRING = 255


def decode_entries(entries):
    """Turns the "txt" of a request into the strings of a TXT record."""
    if not isinstance(entries, list):
        raise RequestError("txt is a list of objects")
    return [_decode_entry(entry) for entry in entries]


def record_of(strings):
    # A record without strings is one empty string, for it must not be of no length.
    return b"".join(bytes([len(string)]) + string for string in strings) or b"\0"


def strings_of(record):
    """The strings of a record, as far as they are there; what a length promises too much is left out."""
    strings, position = [], 0
    while position < len(record):
        end = position + 1 + record[position]
        strings.append(record[position + 1:end])
        position = end
    return strings


def is_whole(record):
    """Whether the lengths in a record are those of its strings."""
    return record_of(strings_of(record)) == record


def key_of(string):
    return string.partition(b"=")[0]


def find(strings, key):
    """The number of the first string with a key, whose case does not matter, or None."""
    wanted = key.encode().lower()
    return next((number for number, string in enumerate(strings) if key_of(string).lower() == wanted), None)


def value_of(string):
    """The bytes behind the "=", or None without one."""
    _, separator, value = string.partition(b"=")
    return value if separator else None


def with_string(strings, key, string):
    """The strings with another one for a key, at its place or, if the key is new, at the end."""
    number = find(strings, key)
    if number is None:
        return [*strings, string]
    return [*strings[:number], string, *strings[number + 1:]]


def pair(key, value):
    return checked_string(key.encode() + b"=" + value)


def checked_string(string):
    if len(string) > MAX_STRING:
        raise RequestError(f"a TXT string has at most {MAX_STRING} bytes, not {len(string)}")
    return string


def described(record):
    """A record as members of a JSON object; its entries are of the forms that requests have."""
    members = {"txt": [_described_string(string) for string in strings_of(record)]}
    if not is_whole(record):
        members["record"] = base64.b64encode(record).decode()
    return members


def _described_string(string):
    key, value = key_of(string), value_of(string)
    if not key or not _is_printable(key):
        return {"raw": base64.b64encode(string).decode()}
    if value is None:
        return {"key": key.decode()}
    if _is_printable(value):
        return {"key": key.decode(), "text": value.decode()}
    return {"key": key.decode(), "value": base64.b64encode(value).decode()}


def _is_printable(data):
    try:
        return data.decode().isprintable()
    except ValueError:
        return False


def _decode_entry(entry):
    if not isinstance(entry, dict) or ("key" in entry) == ("raw" in entry):
        raise RequestError('an entry of txt is {"key", "value"}, {"key", "text"}, {"key"} or {"raw"}')
    if "raw" in entry:
        return checked_string(from_base64(entry["raw"]))
    string = _encoded(entry["key"])
    if "value" in entry:
        string += b"=" + from_base64(entry["value"])
    elif "text" in entry:
        string += b"=" + _encoded(entry["text"])
    return checked_string(string)


def _encoded(text):
    if not isinstance(text, str):
        raise RequestError(f"{text!r} is not text")
    return text.encode()
