# SPDX-License-Identifier: MIT
"""The library on a host's own logger, locks and hardware addresses."""

import json
import os
import shutil
from pathlib import Path

import pytest

from buildkit import (NO_BUS, WARNINGS, build_and_install_library, configure_library, library_folder,
                      pkg_config_flags, run, succeed)

HERE = Path(__file__).resolve().parent
FOREIGN = HERE / "foreign"
QT_MAJOR = os.environ.get("VD_QT_MAJOR", "6")


@pytest.fixture(scope="module")
def folder(tmp_path_factory):
    return tmp_path_factory.mktemp("support-layer")


@pytest.fixture(scope="module")
def prefix(folder):
    return build_and_install_library(folder, f"-DVD_SUPPORT_DIR={FOREIGN}", f"-DVD_QT_MAJOR={QT_MAJOR}",
                                     "-DCMAKE_EXPORT_COMPILE_COMMANDS=ON")


@pytest.fixture(scope="module")
def host(folder, prefix):
    program = folder / "host"
    sources = sorted((HERE / "host").glob("*.cpp"))
    succeed("g++", "-std=c++17", *WARNINGS, f"-I{FOREIGN}", *sources, "-o", program, *pkg_config_flags(prefix))
    return program


def output_of(host, prefix, threshold):
    environment = {**NO_BUS, "LD_LIBRARY_PATH": str(library_folder(prefix))}
    result = run(host, str(threshold), env=environment, timeout=20)
    assert (result.returncode, result.stderr) == (0, "")
    return result.stdout.splitlines()


def test_the_hosts_logger_gets_the_librarys_messages_at_their_level(host, prefix):
    assert output_of(host, prefix, threshold=1) == [
        "address copied: 1",
        "browsing: 0",
        "prefixes: 5, without the lock: 0",
        "number flags restored: 1",
        "level 0:",
        "level 1:",
        "host: AvahiServiceDiscovery::BrowseServices() -> starting to browse for Bonjour services",
        "host: AvahiServiceDiscovery::BrowseServices() ->  could not create Avahi client",
        "host: AvahiServiceDiscovery::ServiceResolve() -> resolving Vandrel service: Cam type: _http._tcp"
        " domain: local",
        "host: \t\tser_no_vandrel.com ABC",
        "level 2:",
        "level 3:",
        "level 4:",
        "host: AvahiServiceDiscovery::ServiceResolve() -> resolved service without Ip-Address",
    ]


def test_the_hosts_logger_gets_nothing_below_its_threshold(host, prefix):
    assert output_of(host, prefix, threshold=2) == [
        "address copied: 1",
        "browsing: 0",
        "prefixes: 1, without the lock: 0",
        "number flags restored: 1",
        "level 0:",
        "level 1:",
        "level 2:",
        "level 3:",
        "level 4:",
        "host: AvahiServiceDiscovery::ServiceResolve() -> resolved service without Ip-Address",
    ]


def test_the_default_layers_sources_are_not_compiled(folder, prefix):
    commands = json.loads((folder / "build" / "compile_commands.json").read_text())
    support = sorted(Path(entry["file"]).name for entry in commands if "/src/support/" in entry["file"])

    assert support == ["PrintableText.cpp"]


def test_the_library_defines_nothing_of_the_support_layer(prefix):
    symbols = succeed("nm", "-C", library_folder(prefix) / "libvddiscovery.so").splitlines()
    logger = sorted(line.split(maxsplit=1) for line in symbols if "vd::LogQt::" in line)

    assert logger == [
        ["U", "vd::LogQt::getStream(int)"],
        ["U", "vd::LogQt::logLevel()"],
        ["U", "vd::LogQt::mutex()"],
        ["U", "vd::LogQt::pre(int)"],
    ]


def test_the_hosts_headers_are_not_installed(prefix):
    assert sorted(path.name for path in prefix.rglob("*.h")) == [
        "AvahiServiceDiscovery.h", "BonjourResponder.h", "ManagedServiceDiscovery.h",
        "ServiceDiscovery.h"]


@pytest.mark.parametrize("missing", ["LogQt.h", "MACAddress.h", "Mutex.h"])
def test_a_layer_that_lacks_a_header_is_refused_by_name(missing, tmp_path):
    layer = tmp_path / "layer"
    shutil.copytree(FOREIGN, layer)
    (layer / "vd" / missing).unlink()

    result = configure_library(tmp_path / "build", f"-DVD_SUPPORT_DIR={layer}")

    assert result.returncode != 0
    assert f"VD_SUPPORT_DIR needs a vd/{missing}" in result.stderr
