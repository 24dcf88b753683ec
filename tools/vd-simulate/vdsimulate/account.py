# SPDX-License-Identifier: MIT
"""Tells what happens, as JSON lines on standard output."""

import datetime
import json
import os
import queue
import select
import threading

SECONDS_FOR_THE_REST = 1.0


class Account:
    """Writes lines from a thread of its own: a reader that is slow must not keep devices from answering.

    Should nobody read any more, it calls `on_broken` there, once.
    """

    def __init__(self, file_number, on_broken):
        self._file_number = file_number
        self._on_broken = on_broken
        self._lock = threading.Lock()
        self._lines = queue.SimpleQueue()
        self._writer = threading.Thread(target=self._write, daemon=True)
        self._writer.start()
        threading.Thread(target=self._watch, daemon=True).start()

    def tell(self, event, **members):
        # Whatever stands in it, from the network too, JSON escapes down to plain ASCII.
        self._lines.put(json.dumps({"event": event, "time": _now(), **members}) + "\n")

    def tell_of(self, event, device, **members):
        """Tells of what happened to a device, with all that is to be known of it since."""
        self.tell(event, device=device.name, **members, state=device.account())

    def close(self):
        """Waits for what is not written yet, but not for a reader that has stopped to read."""
        self._lines.put(None)
        self._writer.join(SECONDS_FOR_THE_REST)

    def _write(self):
        try:
            for line in iter(self._lines.get, None):
                rest = line.encode()
                while rest:
                    rest = rest[os.write(self._file_number, rest):]
        except OSError:
            self._report_broken()

    def _watch(self):
        """Notices that the reader has gone also while there is nothing to tell."""
        poll = select.poll()
        poll.register(self._file_number, 0)
        poll.poll()
        self._report_broken()

    def _report_broken(self):
        with self._lock:
            on_broken, self._on_broken = self._on_broken, lambda: None
        on_broken()


def _now():
    now = datetime.datetime.now(datetime.timezone.utc)
    return now.isoformat(timespec="milliseconds").replace("+00:00", "Z")
