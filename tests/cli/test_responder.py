# SPDX-License-Identifier: MIT
"""What vd-discover responder answers where there is no service manager."""

import os

import pytest

UNKNOWN = b"mdnsd is not known to be installed or running\n"
NO_SYSTEMD = (b"vd-discover: systemd cannot be reached on the system bus; see to it that both run, or start mdnsd by "
              b"this system's own means\n")
NO_ANSWER = (b"vd-discover: systemd or the system bus does not answer; try again, and if that does not help restart "
             b"the machine\n")


@pytest.mark.parametrize("options", [[], ["--start"]])
def test_without_a_bus_it_tells_what_it_does_not_know(tool, options):
    assert tool.run("responder", *options) == (1, UNKNOWN, NO_SYSTEMD)


def test_a_bus_without_systemd_is_told(tool, bare_bus):
    assert tool.run("responder") == (1, UNKNOWN, NO_SYSTEMD)


def test_a_bus_that_hangs_does_not_hang_the_command(tool, silent_bus):
    assert tool.run("responder", "--start") == (1, UNKNOWN, NO_ANSWER)


def test_an_answer_that_does_not_fit_is_told_with_the_remedy_of_the_question(tool):
    with open("/dev/full", "wb") as full:
        status, _, errors = tool.run("responder", stdout=full)
    assert (status, errors) == (1, b"vd-discover: the results cannot be written: No space left on device; write them "
                                   b"elsewhere\n" + NO_SYSTEMD)


def test_an_answer_that_nobody_can_read_is_no_failure(tool):
    reader, writer = os.pipe()
    os.close(reader)
    assert tool.run("responder", stdout=writer)[2] == NO_SYSTEMD
    os.close(writer)
    assert tool.run("responder", stdout=None, preexec_fn=lambda: os.close(1))[2] == NO_SYSTEMD


def test_a_word_is_refused(tool):
    assert tool.run("responder", "start") == (2, b"", b'vd-discover: responder takes nothing but --start, not '
                                                      b'"start"\n')
