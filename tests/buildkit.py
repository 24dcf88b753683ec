# SPDX-License-Identifier: MIT
"""Runs compilers and CMake for the tests that build something."""

import os
import re
import shlex
import subprocess
from pathlib import Path

ROOT = Path(__file__).resolve().parents[1]

WARNINGS = ["-Wall", "-Wextra", "-Wpedantic", "-Werror"]

# A bus that nobody answers on, so that no test depends on the daemons of the machine it runs on.
NO_BUS = {"DBUS_SYSTEM_BUS_ADDRESS": "unix:path=/nonexistent/bus"}


def run(*command, env=None, timeout=120):
    """Runs a command to its end, whatever its exit status."""
    return subprocess.run(
        [str(word) for word in command],
        env={**os.environ, "LC_ALL": "C.UTF-8", **(env or {})},
        stdin=subprocess.DEVNULL,
        capture_output=True,
        text=True,
        timeout=timeout,
    )


def succeed(*command, **options):
    """Runs a command that has to succeed; returns its standard output."""
    result = run(*command, **options)
    assert result.returncode == 0, f"{shlex.join(map(str, command))}\n{result.stdout}\n{result.stderr}"
    return result.stdout


def configure(source, build, *options, env=None):
    return run("cmake", "-G", "Ninja", "-S", source, "-B", build, *options, env=env)


def configure_library(build, *options, env=None):
    """Configures the library alone."""
    return configure(ROOT, build, "-DVD_BUILD_TOOLS=OFF", "-DVD_WARNINGS_AS_ERRORS=ON", *options, env=env)


def configure_host(folder, prefix, *cmake_lines, env=None):
    """Configures a project made of these lines beside the installed library."""
    folder.mkdir()
    text = "\n".join(["cmake_minimum_required(VERSION 3.16)", "project(host LANGUAGES CXX)", *cmake_lines, ""])
    (folder / "CMakeLists.txt").write_text(text)
    return configure(folder, folder / "build", f"-DCMAKE_PREFIX_PATH={prefix}", env=env)


def build_and_install_library(folder, *options, env=None):
    """Builds the library alone and returns the prefix it is installed in."""
    build, prefix = folder / "build", folder / "prefix"
    configured = configure_library(build, *options, env=env)
    assert configured.returncode == 0, configured.stderr
    succeed("cmake", "--build", build, "-j2", timeout=300)
    succeed("cmake", "--install", build, "--prefix", prefix)
    return prefix


def cache_value(build, name):
    """The value of a CMake cache variable of a build folder."""
    match = re.search(rf"^{name}:\w+=(.*)$", (build / "CMakeCache.txt").read_text(), re.MULTILINE)
    assert match, f"{build} has no {name}"
    return match.group(1)


def pkg_config_flags(prefix):
    """What a build that uses pkg-config passes to the compiler."""
    folder = next(prefix.rglob("pkgconfig"))
    flags = succeed("pkg-config", "--cflags", "--libs", "vddiscovery", env={"PKG_CONFIG_PATH": str(folder)})
    return shlex.split(flags)


def library_folder(prefix):
    return next(prefix.rglob("libvddiscovery.so")).parent
