# SPDX-License-Identifier: MIT
import time

# Longer than anything here may take, so that a hang fails instead of blocking the run.
LONGEST_RUN_S = 20


def wait_until(condition):
    deadline = time.monotonic() + LONGEST_RUN_S
    while not condition():
        assert time.monotonic() < deadline, "waited in vain"
        time.sleep(0.01)
