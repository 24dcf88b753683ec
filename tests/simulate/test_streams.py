# SPDX-License-Identifier: MIT
"""The standard streams: the account that is written, the lines that are read."""

import asyncio
import datetime
import json
import os
import threading
import time

import pytest

from vdsimulate.account import Account
from vdsimulate.input import MAX_LINE, InputLines


@pytest.fixture
def pipe():
    ends = list(os.pipe())
    yield ends
    for end in ends:
        try:
            os.close(end)
        except OSError:
            pass


def read_lines(received):
    """What InputLines makes of a pipe that has these bytes in it, and then ends."""
    reader, writer = os.pipe()
    feeder = threading.Thread(target=write_all, args=(writer, received))
    feeder.start()

    async def read():
        lines = InputLines(reader)
        found = []
        while (line := await lines.next()) is not None:
            found.append(line)
        return found

    try:
        return asyncio.run(asyncio.wait_for(read(), 10))
    finally:
        feeder.join()
        os.close(reader)


def write_all(writer, data):
    while data:
        data = data[os.write(writer, data):]
    os.close(writer)


def test_a_line_is_plain_ascii_and_begins_with_event_and_time(pipe):
    reader, writer = pipe
    broken = []
    account = Account(writer, lambda: broken.append(True))
    account.tell("refused", device="Küche 🧊", reason="\x1B[2J\n\u2028")
    account.close()
    line = os.read(reader, 4096)
    assert broken == []
    assert line.isascii() and line.count(b"\n") == 1 and b"\x1B" not in line
    told = json.loads(line)
    assert list(told) == ["event", "time", "device", "reason"]
    assert (told["device"], told["reason"]) == ("Küche 🧊", "\x1B[2J\n\u2028")
    age = datetime.datetime.now(datetime.timezone.utc) - datetime.datetime.fromisoformat(
        told["time"].replace("Z", "+00:00"))
    assert datetime.timedelta() <= age + datetime.timedelta(milliseconds=1) < datetime.timedelta(seconds=10)
    assert len(told["time"]) == len("2026-11-20T12:00:00.123Z")


def test_a_reader_that_does_not_read_keeps_nobody_waiting(pipe):
    # That it is broken at last is the doing of this test, which then closes the pipe.
    account = Account(pipe[1], lambda: None)
    begin = time.monotonic()
    for _ in range(100):
        account.tell("text", filling="x" * 4096)
    account.close()
    assert time.monotonic() - begin < 3


def test_a_reader_that_goes_is_noticed_without_anything_to_tell(pipe):
    reader, writer = pipe
    broken = threading.Event()
    Account(writer, broken.set)
    assert not broken.wait(0.2)
    os.close(reader)
    assert broken.wait(5)


def test_a_reader_that_is_gone_is_reported_once(pipe):
    reader, writer = pipe
    broken = []
    account = Account(writer, lambda: broken.append(True))
    os.close(reader)
    for _ in range(3):
        account.tell("text")
    account.close()
    assert broken == [True]


@pytest.mark.parametrize("received, lines", [
    (b"", []), (b"a\nb\n", [b"a", b"b"]), (b"a\n\nb", [b"a", b"", b"b"]), (b"\xFF\0\n", [b"\xFF\0"])])
def test_lines_are_read_to_the_end_also_the_last_one_without_a_line_feed(received, lines):
    assert read_lines(received) == lines


def test_a_line_without_end_is_cut_and_the_next_one_is_read():
    lines = read_lines(b"x" * (3 * MAX_LINE) + b"\n{}\n")
    assert [lines[0][:1], lines[1:]] == [b"x", [b"{}"]]
    assert len(lines[0]) <= MAX_LINE + (1 << 16)
