# SPDX-License-Identifier: MIT
"""The library on a distribution's Avahi adapter for Qt, instead of its own."""

import os
from pathlib import Path

import pytest

from buildkit import (WARNINGS, build_and_install_library, configure_host, configure_library, library_folder,
                      pkg_config_flags, run, succeed)

PROGRAM = Path(__file__).resolve().parent / "program.cpp"
QT_MAJOR = os.environ.get("VD_QT_MAJOR", "6")
NAME = f"avahi-qt{QT_MAJOR}"


@pytest.fixture(scope="module")
def folder(tmp_path_factory):
    return tmp_path_factory.mktemp("system-adapter")


@pytest.fixture(scope="module")
def distribution(folder):
    """A package such as a distribution ships; Debian has none."""
    include, lib = folder / "distribution" / "include", folder / "distribution" / "lib"
    (include / NAME).mkdir(parents=True)
    lib.mkdir()
    (include / NAME / "qt-watch.h").write_text(
        "#include <avahi-common/watch.h>\n"
        "extern \"C\" const AvahiPoll* avahi_qt_poll_get(void);\n")
    source = folder / "qt-watch.cpp"
    source.write_text(f"#include <{NAME}/qt-watch.h>\n"
                      "const AvahiPoll* avahi_qt_poll_get(void) { return nullptr; }\n")
    succeed("g++", "-shared", "-fPIC", f"-I{include}", source, "-o", lib / f"lib{NAME}.so.1",
            f"-Wl,-soname,lib{NAME}.so.1")
    (lib / f"lib{NAME}.so").symlink_to(f"lib{NAME}.so.1")
    (folder / f"{NAME}.pc").write_text(
        f"Name: {NAME}\nDescription: Avahi on Qt's event loop\nVersion: 0.8\n"
        f"Cflags: -I{include}\nLibs: -L{lib} -l{NAME}\n")
    return lib


@pytest.fixture(scope="module")
def prefix(folder, distribution):
    return build_and_install_library(folder, "-DVD_USE_SYSTEM_AVAHI_QT=ON", f"-DVD_QT_MAJOR={QT_MAJOR}",
                                     env={"PKG_CONFIG_PATH": str(folder)})


def test_the_adapter_is_fetched_once_and_anew_after_any_object_has_ended_browsing(folder, prefix, distribution):
    program = folder / "program"
    succeed("g++", "-std=c++17", *WARNINGS, PROGRAM, "-o", program, f"-Wl,-rpath-link,{distribution}",
            *pkg_config_flags(prefix))

    result = run(program, env={"LD_LIBRARY_PATH": f"{library_folder(prefix)}:{distribution}"}, timeout=20)

    assert (result.returncode, result.stderr) == (0, "")
    assert result.stdout.splitlines() == [
        "made:",
        "first browses: fetch 0 client on 0",
        "first browses again:",
        "second browses: client on 0",
        "first ends and browses: fetch 1 client on 1",
        "first browses again:",
        "second ends, first browses: fetch 2",
        "second browses: client on 2",
    ]


def test_the_library_links_the_distributions_adapter(prefix):
    assert f"[lib{NAME}.so.1]" in succeed("readelf", "-dW", library_folder(prefix) / "libvddiscovery.so")


def test_the_library_takes_the_adapter_from_outside(prefix):
    symbols = succeed("nm", library_folder(prefix) / "libvddiscovery.so").splitlines()

    assert [line.split() for line in symbols if "avahi_qt_poll_get" in line] == [["U", "avahi_qt_poll_get"]]


def test_a_host_of_the_installed_library_need_not_have_the_adapters_package(prefix, tmp_path):
    result = configure_host(tmp_path / "host", prefix,
                            "find_package(VdDiscovery REQUIRED)",
                            "file(WRITE ${CMAKE_CURRENT_BINARY_DIR}/main.cpp \"int main() {}\\n\")",
                            "add_executable(host ${CMAKE_CURRENT_BINARY_DIR}/main.cpp)",
                            "target_link_libraries(host PRIVATE Vd::Discovery)",
                            env={"PKG_CONFIG_PATH": ""})

    assert result.returncode == 0, result.stderr


def test_without_the_package_the_error_names_its_module(tmp_path):
    result = configure_library(tmp_path / "build", "-DVD_USE_SYSTEM_AVAHI_QT=ON", f"-DVD_QT_MAJOR={QT_MAJOR}",
                               env={"PKG_CONFIG_PATH": ""})

    assert result.returncode != 0
    assert f"VD_USE_SYSTEM_AVAHI_QT needs the pkg-config module {NAME}." in result.stderr
