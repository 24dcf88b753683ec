# SPDX-License-Identifier: MIT
"""What libFuzzer finds in a given time, starting from the inputs kept in corpus/."""

import os
import subprocess
from concurrent.futures import ThreadPoolExecutor

import pytest

from fuzzing import BUILD, FUZZERS, Run

SECONDS = int(os.environ.get("VD_FUZZ_SECONDS", "60"))
# An input takes milliseconds; a program that does less hangs.
FEWEST_RUNS_PER_SECOND = 5


@pytest.fixture(scope="module")
def runs():
    """Fuzzer to its finished run; as many are at work at once as there are processors."""
    with ThreadPoolExecutor(os.cpu_count()) as pool:
        yield {name: pool.submit(Run, name, SECONDS) for name in FUZZERS}
        pool.shutdown(cancel_futures=True)


@pytest.mark.parametrize("name", FUZZERS)
def test_no_input_is_found_that_breaks(name, runs, record_property):
    run = runs[name].result()
    for key, value in run.figures.items():
        record_property(key, value)

    assert run.findings == [], run.output
    assert run.status == 0, run.output
    assert run.figures["executions"] >= SECONDS * FEWEST_RUNS_PER_SECOND, run.output


def test_every_fuzzer_that_was_built_is_run():
    built = {path.name.removeprefix("vd-fuzz-") for path in (BUILD / "tests" / "fuzz").glob("vd-fuzz-*")
             if path.is_file()}

    assert built == set(FUZZERS)


@pytest.mark.parametrize("name", FUZZERS)
def test_no_input_of_the_corpus_breaks(name):
    corpus = sorted(path for path in (Run.CORPUS / name).iterdir())

    outcome = subprocess.run([Run.program(name), *corpus], capture_output=True, text=True, timeout=300)

    assert corpus
    assert outcome.returncode == 0, outcome.stderr[-4000:]
