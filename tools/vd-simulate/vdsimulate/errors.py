# SPDX-License-Identifier: MIT
"""What ends the program with one line on standard error."""


class UsageError(Exception):
    """Started in a way that cannot be; exit status 2."""


class Failure(Exception):
    """Something failed that was started well; exit status 1."""
