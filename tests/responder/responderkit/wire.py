# SPDX-License-Identifier: MIT
"""Messages of D-Bus as bytes. By hand, so that a test can also make ones that no library would."""

import struct
from typing import NamedTuple

CALL, RETURN, ERROR, SIGNAL = 1, 2, 3, 4

NO_AUTO_START = 0x2
ALLOW_INTERACTIVE_AUTHORIZATION = 0x4

PATH, INTERFACE, MEMBER, ERROR_NAME, REPLY_SERIAL, DESTINATION, SENDER, SIGNATURE = range(1, 9)
_TYPE_OF_FIELD = {PATH: "o", INTERFACE: "s", MEMBER: "s", ERROR_NAME: "s", REPLY_SERIAL: "u", DESTINATION: "s",
                  SENDER: "s", SIGNATURE: "g"}

FIXED_HEADER = 16


class Call(NamedTuple):
    serial: int
    flags: int
    destination: str
    path: str
    interface: str
    member: str
    arguments: list


def _padding(length, alignment):
    return b"\0" * (-length % alignment)


def _append(data, kind, value):
    if kind in "so":
        text = value.encode()
        data += _padding(len(data), 4) + struct.pack("<I", len(text)) + text + b"\0"
    elif kind == "g":
        data += struct.pack("<B", len(value)) + value.encode() + b"\0"
    elif kind == "u":
        data += _padding(len(data), 4) + struct.pack("<I", value)
    elif kind == "v":
        data += struct.pack("<B", len(value[0])) + value[0].encode() + b"\0"
        _append(data, *value)
    else:
        raise ValueError(kind)


def body_of(signature, values):
    data = bytearray()
    for kind, value in zip(signature, values, strict=True):
        _append(data, kind, value)
    return bytes(data)


def message(kind, fields, signature="", values=(), serial=1):
    if signature:
        fields = {**fields, SIGNATURE: signature}
    encoded = bytearray()
    for code, value in fields.items():
        encoded += _padding(len(encoded), 8) + bytes([code]) + b"\x01" + _TYPE_OF_FIELD[code].encode() + b"\0"
        _append(encoded, _TYPE_OF_FIELD[code], value)
    body = body_of(signature, values)
    header = struct.pack("<cBBBIII", b"l", kind, 0, 1, len(body), serial, len(encoded)) + encoded
    return header + _padding(len(header), 8) + body


def length_of(fixed_header):
    """Of the whole message that begins so."""
    body, _, fields = struct.unpack_from("<III", fixed_header, 4)
    return FIXED_HEADER + fields + -fields % 8 + body


def _text_at(data, offset):
    [length] = struct.unpack_from("<I", data, offset)
    return data[offset + 4:offset + 4 + length].decode(), offset + 4 + length + 1


def _fields(data):
    [end] = struct.unpack_from("<I", data, 12)
    offset, end, found = FIXED_HEADER, FIXED_HEADER + end, {}
    while offset < end:
        offset += -offset % 8
        code, kind = data[offset], chr(data[offset + 2])
        offset += 4
        if kind == "g":
            found[code] = data[offset + 1:offset + 1 + data[offset]].decode()
            offset += data[offset] + 2
        elif kind == "u":
            [found[code]] = struct.unpack_from("<I", data, offset)
            offset += 4
        else:
            found[code], offset = _text_at(data, offset)
    return found


def parse_call(data):
    """A method call whose arguments are strings."""
    fields = _fields(data)
    [length] = struct.unpack_from("<I", data, 12)
    offset, arguments = FIXED_HEADER + length + -length % 8, []
    for _ in fields.get(SIGNATURE, ""):
        offset += -offset % 4
        text, offset = _text_at(data, offset)
        arguments.append(text)
    [serial] = struct.unpack_from("<I", data, 8)
    return Call(serial, data[2], fields.get(DESTINATION), fields.get(PATH), fields.get(INTERFACE),
                fields.get(MEMBER), arguments)
