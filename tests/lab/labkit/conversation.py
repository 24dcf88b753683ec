# SPDX-License-Identifier: MIT
"""A process that is steered by JSON lines and tells what happens by JSON lines."""

import json
import subprocess

from .lines import DEADLINE_S, Lines


class Conversation:
    def __init__(self, process):
        self._process = process
        self.said = Lines(process.stdout, json.loads)
        is_ready = self.said.wait_for(lambda lines: lines and lines[0]["event"] == "ready")
        assert is_ready, f"{process.args} is not ready"

    @property
    def pid(self):
        return self._process.pid

    def request(self, command, **fields):
        """Sends a command and returns the line that answers it."""
        before = len(self.said.all)
        line = self.post(command, **fields)
        answer = self.said.wait_for(lambda lines: next(filter(self.is_answer, lines[before:]), None))
        assert answer, f"no answer to {line}after {DEADLINE_S} s; what was said last: {self.said.all[-3:]}"
        return answer

    def post(self, command, **fields):
        """Sends a command, and returns the line that was sent."""
        line = json.dumps({"command": command, **fields}) + "\n"
        self._process.stdin.write(line.encode())
        self._process.stdin.flush()
        return line

    def is_answer(self, line):
        raise NotImplementedError

    def close(self):
        """Ends the process by the end of its input; returns its exit status."""
        self._process.stdin.close()
        try:
            return self._process.wait(DEADLINE_S)
        except subprocess.TimeoutExpired:
            self._process.kill()
            return self._process.wait()
        finally:
            self.said.join()
