# SPDX-License-Identifier: MIT
def pytest_terminal_summary(terminalreporter):
    """One line a fuzzer, of what it did."""
    for outcome in ("passed", "failed"):
        for report in terminalreporter.getreports(outcome):
            figures = dict(report.user_properties)
            if "fuzzer" in figures:
                terminalreporter.write_line(", ".join(f"{key}: {value}" for key, value in figures.items()))
