# SPDX-License-Identifier: MIT
"""What a process writes, line by line as it comes."""

import threading
import time

# Longer than anything here takes even on a busy machine; a test that has to wait so long has failed.
DEADLINE_S = 15


def wait_until(condition, seconds=DEADLINE_S):
    """Asks until `condition()` holds; returns its value, or its last one when the time is over."""
    deadline = time.monotonic() + seconds
    while True:
        value = condition()
        if value or time.monotonic() > deadline:
            return value
        time.sleep(0.05)


class Lines:
    """Reads a stream to its end in a thread. `all` holds the lines so far, `times` when each of them came."""

    def __init__(self, stream, decode=bytes):
        self.all = []
        self.times = []
        self._stream = stream
        self._decode = decode
        self._grown = threading.Condition()
        self._reader = threading.Thread(target=self._read, daemon=True)
        self._reader.start()

    def wait_for(self, condition, seconds=DEADLINE_S):
        """Waits until `condition(lines)` holds; returns its value, or its last one when the time is over."""
        deadline = time.monotonic() + seconds
        with self._grown:
            while True:
                value = condition(self.all)
                left = deadline - time.monotonic()
                if value or left <= 0:
                    return value
                self._grown.wait(left)

    def join(self):
        """Waits for the end of the stream, which the end of its process brings."""
        self._reader.join()

    def _read(self):
        for line in self._stream:
            with self._grown:
                self.all.append(self._decode(line))
                self.times.append(time.monotonic())
                self._grown.notify_all()
