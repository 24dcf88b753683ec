# SPDX-License-Identifier: MIT
"""As much of multicast DNS on the wire as a publisher needs: responses written, queries read."""

import dataclasses
import socket
import struct

TYPE_A = 1
TYPE_PTR = 12
TYPE_TXT = 16
TYPE_SRV = 33
TYPE_ANY = 255

HOST_TTL = 120
OTHER_TTL = 4500

# What an Ethernet frame carries, less the IP and UDP headers.
MAX_MESSAGE = 1472

_HEADER = struct.Struct("!6H")
_QUESTION = struct.Struct("!2H")
_RECORD = struct.Struct("!2HIH")
_FLAG_RESPONSE = 0x8000
_FLAGS_OF_ANSWER = 0x8400
_FLAG_TRUNCATED = 0x0200
_CLASS_IN = 1
_CACHE_FLUSH = 0x8000
_POINTER = 0xC000
_MAX_POINTER = 0x3FFF


@dataclasses.dataclass(frozen=True)
class Record:
    name: tuple      # of labels, each in bytes
    type: int
    ttl: int
    unique: bool     # whether it replaces what is known under its name and type
    data: bytes      # what stands before the target, if there is one
    target: tuple = ()


@dataclasses.dataclass
class Query:
    truncated: bool  # more known answers follow in another message
    questions: list  # of (name key, type)
    known: set       # targets of the known PTR records, as name keys


def labels(*parts):
    """A name of its parts; only the dots of the last one part labels."""
    return tuple(part.encode() for part in (*parts[:-1], *parts[-1].split(".")))


def name_key(name):
    """One value for a name, whatever the case of its letters."""
    return b"".join(bytes([len(label)]) + label for label in name).lower()


def pointer(service_type, instance):
    return Record(service_type, TYPE_PTR, OTHER_TTL, False, b"", instance)


def service(instance, port, host):
    return Record(instance, TYPE_SRV, HOST_TTL, True, struct.pack("!3H", 0, 0, port), host)


def text(instance, strings):
    # A TXT record without any string does not exist: what comes nearest is one empty string.
    return Record(instance, TYPE_TXT, OTHER_TTL, True,
                  b"".join(bytes([len(string)]) + string for string in strings) or b"\0")


def address(host, dotted, unique=True):
    return Record(host, TYPE_A, HOST_TTL, unique, socket.inet_aton(dotted))


def response(answers, additionals=(), ttl=None):
    """The bytes of a response; `ttl` replaces that of every record, 0 makes it a goodbye."""
    message = bytearray(_HEADER.pack(0, _FLAGS_OF_ANSWER, 0, len(answers), 0, len(additionals)))
    offsets = {}
    for record in (*answers, *additionals):
        _append_name(message, record.name, offsets)
        record_class = _CLASS_IN | (_CACHE_FLUSH if record.unique else 0)
        message += _RECORD.pack(record.type, record_class, record.ttl if ttl is None else ttl, 0)
        start = len(message)
        message += record.data
        if record.target:
            _append_name(message, record.target, offsets)
        struct.pack_into("!H", message, start - 2, len(message) - start)
    return bytes(message)


def parse_query(message):
    """Reads a query; None for a response and for what cannot be read."""
    try:
        _, flags, question_count, answer_count, _, _ = _HEADER.unpack_from(message)
        if flags & _FLAG_RESPONSE:
            return None
        query, offset = Query(bool(flags & _FLAG_TRUNCATED), [], set()), _HEADER.size
        for _ in range(question_count):
            key, offset = _read_name(message, offset)
            query.questions.append((key, _QUESTION.unpack_from(message, offset)[0]))
            offset += _QUESTION.size
        for _ in range(answer_count):
            _, offset = _read_name(message, offset)
            record_type, _, _, length = _RECORD.unpack_from(message, offset)
            offset += _RECORD.size
            if record_type == TYPE_PTR:
                query.known.add(_read_name(message, offset)[0])
            offset += length
        return query
    except (struct.error, IndexError, ValueError):
        return None


def _append_name(message, name, offsets):
    for index in range(len(name)):
        rest = name[index:]
        if rest in offsets:
            message += struct.pack("!H", _POINTER | offsets[rest])
            return
        if len(message) <= _MAX_POINTER:
            offsets[rest] = len(message)
        message.append(len(name[index]))
        message += name[index]
    message.append(0)


def _read_name(message, offset):
    """Returns the key of the name at an offset, and where it ends."""
    parts, end, earliest = [], None, offset
    while message[offset]:
        if message[offset] >= 0xC0:
            end = end or offset + 2
            offset = struct.unpack_from("!H", message, offset)[0] & _MAX_POINTER
            if offset >= earliest:
                raise ValueError("a name points forward")
            earliest = offset
        else:
            after = offset + 1 + message[offset]
            parts.append(message[offset:after])
            offset = after
    return b"".join(parts).lower(), end or offset + 1
