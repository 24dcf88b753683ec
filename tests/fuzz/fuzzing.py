# SPDX-License-Identifier: MIT
"""Runs the programs that libFuzzer drives."""

import os
import re
import subprocess
from pathlib import Path

HERE = Path(__file__).resolve().parent
BUILD = Path(os.environ.get("VD_FUZZ_BUILD_DIR", HERE.parents[1] / "build" / "fuzz")).resolve()
FUZZERS = ("address-bytes", "command-line-text", "managed-sequences", "publish-record", "sequences", "txt-readers")
# An input takes milliseconds; a busy machine may hold up a program for seconds.
LONGEST_INPUT_S = 60
MOST_MEMORY_MB = 4096


class Run:
    """A program driven for some seconds. What it learns is kept in the build folder, and so is what breaks it."""

    CORPUS = HERE / "corpus"

    @staticmethod
    def program(name):
        path = BUILD / "tests" / "fuzz" / f"vd-fuzz-{name}"
        assert path.exists(), f"{path} is missing. Build it: cmake --preset fuzz && cmake --build --preset fuzz"
        return path

    def __init__(self, name, seconds):
        self._learned = BUILD / "fuzz-corpus" / name
        self._breaking = BUILD / "fuzz-findings" / name
        for folder in (self._learned, self._breaking):
            folder.mkdir(parents=True, exist_ok=True)
        before = set(self._breaking.iterdir())
        outcome = subprocess.run(self._command(name, seconds), stdout=subprocess.DEVNULL, stderr=subprocess.PIPE,
                                 text=True, errors="replace", timeout=2 * seconds + 300)
        self.status = outcome.returncode
        self.output = outcome.stderr[-6000:]
        self.findings = sorted(str(path) for path in set(self._breaking.iterdir()) - before)
        self.figures = self._figures(name, outcome.stderr)

    def _command(self, name, seconds):
        command = [self.program(name), f"-max_total_time={seconds}", f"-timeout={LONGEST_INPUT_S}",
                   f"-report_slow_units={LONGEST_INPUT_S}",
                   f"-rss_limit_mb={MOST_MEMORY_MB}", "-print_final_stats=1", f"-artifact_prefix={self._breaking}/"]
        dictionary = HERE / f"{name}.dict"
        if dictionary.exists():
            command.append(f"-dict={dictionary}")
        return [*command, self._learned, self.CORPUS / name]

    def _figures(self, name, output):
        coverage = re.findall(r"\bcov: (\d+) ft: (\d+)", output) or [(0, 0)]
        executions = re.findall(r"^stat::number_of_executed_units: +(\d+)", output, re.MULTILINE) or [0]
        per_second = re.findall(r"^stat::average_exec_per_sec: +(\d+)", output, re.MULTILINE) or [0]
        return {"fuzzer": name, "executions": int(executions[-1]), "per second": int(per_second[-1]),
                "coverage": int(coverage[-1][0]), "features": int(coverage[-1][1]),
                "findings": len(self.findings)}
