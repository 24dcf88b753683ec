# SPDX-License-Identifier: MIT
"""The ways in which a lab command fails; each is told in one line."""

EXIT_FAILED = 1
EXIT_USAGE = 2
EXIT_CANNOT_RUN_HERE = 77
EXIT_EXEC_FAILED = 125


class LabError(Exception):
    """The command could not do what it was asked."""

    exit_status = EXIT_FAILED


class UsageError(LabError):
    """The request makes no sense, whatever the state of the lab."""

    exit_status = EXIT_USAGE


class CannotRunHere(LabError):
    """This machine or this user cannot have a lab: a test that needs one is skipped with this reason."""

    exit_status = EXIT_CANNOT_RUN_HERE
