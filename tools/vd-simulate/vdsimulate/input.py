# SPDX-License-Identifier: MIT
"""Lines of standard input, whatever it is: a terminal, a pipe, a file or nothing."""

import asyncio
import os
import signal
import threading

MAX_LINE = 1 << 20


class InputLines:
    """Reads in a thread of its own, since an event loop cannot wait for a file."""

    def __init__(self, file_number):
        self._file_number = file_number
        self._lines = asyncio.Queue()
        self._loop = asyncio.get_running_loop()
        # Started in the background of a shell, it reads nothing from the terminal instead of being stopped.
        signal.signal(signal.SIGTTIN, signal.SIG_IGN)
        threading.Thread(target=self._read, daemon=True).start()

    async def next(self):
        """The next line, or None at the end."""
        return await self._lines.get()

    def _read(self):
        pending = b""
        while True:
            try:
                received = os.read(self._file_number, 1 << 16)
            except OSError:
                received = b""
            *lines, pending = (pending + received).split(b"\n")
            if not received and pending:
                lines.append(pending)
            # Longer than any command: it is cut, lest it fills the memory, and answered as the bad line it is.
            pending = pending[:MAX_LINE]
            for line in lines:
                self._put(line)
            if not received:
                self._put(None)
                return

    def _put(self, line):
        try:
            self._loop.call_soon_threadsafe(self._lines.put_nowait, line)
        except RuntimeError:
            # The loop has ended, and with it the interest.
            pass
