# SPDX-License-Identifier: MIT
import os
import signal
import subprocess
import sys
from pathlib import Path

import pytest

sys.path.insert(0, str(Path(__file__).resolve().parents[1]))

from buses import silent_bus_at
from waiting import LONGEST_RUN_S, wait_until


class Tool:
    """Runs vd-discover, by default where there is no system bus."""

    def __init__(self, path, directory):
        self.path = path
        self.bus = directory / "no-bus"
        self._processes = []

    def start(self, *arguments, environment=None, **options):
        variables = dict(os.environ, DBUS_SYSTEM_BUS_ADDRESS=f"unix:path={self.bus}", LC_ALL="C.UTF-8")
        variables.update(environment or {})
        options = {"stdout": subprocess.PIPE, "stderr": subprocess.PIPE, "stdin": subprocess.DEVNULL, **options}
        process = subprocess.Popen([self.path, *arguments], env=variables, **options)
        self._processes.append(process)
        return process

    def run(self, *arguments, **options):
        """Returns the exit status, standard output and standard error, both as bytes."""
        process = self.start(*arguments, **options)
        output, errors = process.communicate(timeout=LONGEST_RUN_S)
        return process.returncode, output, errors

    def end_all(self):
        for process in self._processes:
            if process.poll() is None:
                process.kill()
            process.communicate()


@pytest.fixture(scope="session")
def path():
    if "VD_DISCOVER" not in os.environ:
        pytest.exit("set VD_DISCOVER to the path of the vd-discover program to test", returncode=2)
    return os.path.abspath(os.environ["VD_DISCOVER"])


@pytest.fixture
def tool(path, tmp_path):
    tool = Tool(path, tmp_path)
    yield tool
    tool.end_all()


@pytest.fixture(params=[[], ["--plain"]], ids=["managed", "plain"])
def plain(request):
    """The options that choose the library's managed class, and its plain one."""
    return request.param


@pytest.fixture
def silent_bus(tool):
    with silent_bus_at(tool.bus) as listener:
        yield listener


@pytest.fixture
def bare_bus(tool, tmp_path):
    """A message bus on which there is no Avahi daemon."""
    configuration = tmp_path / "bus.conf"
    configuration.write_text(f"""<!DOCTYPE busconfig PUBLIC "-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN"
 "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig>
  <listen>unix:path={tool.bus}</listen>
  <auth>EXTERNAL</auth>
  <policy context="default">
    <allow user="*"/> <allow own="*"/> <allow send_destination="*"/> <allow receive_sender="*"/>
  </policy>
</busconfig>
""")
    command = ["dbus-daemon", f"--config-file={configuration}", "--nofork", "--nopidfile", "--nosyslog"]
    bus = subprocess.Popen(command, stderr=subprocess.DEVNULL)
    wait_until(tool.bus.exists)
    yield bus
    bus.send_signal(signal.SIGTERM)
    bus.wait()
