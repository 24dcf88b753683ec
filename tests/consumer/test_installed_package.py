# SPDX-License-Identifier: MIT
"""The installed library as a host application meets it."""

import re

import pytest

from buildkit import (NO_BUS, ROOT, WARNINGS, configure, configure_host, library_folder, pkg_config_flags, run,
                      succeed)

EXAMPLE = ROOT / "examples" / "discover"

HEADERS = [
    "AvahiServiceDiscovery.h",
    "BonjourResponder.h",
    "LogQt.h",
    "MACAddress.h",
    "ManagedServiceDiscovery.h",
    "Mutex.h",
    "ServiceDiscovery.h",
]


@pytest.fixture(params=["where it was installed", "after a move"])
def package(request):
    name = "prefix" if request.param == "where it was installed" else "moved_prefix"
    return request.getfixturevalue(name)


def assert_waits_without_a_bus(program, prefix):
    """And says for what, until it is ended: here after 2 s, by timeout(1), which exits with 124 then."""
    result = run("timeout", "2", program, env={**NO_BUS, "LD_LIBRARY_PATH": str(library_folder(prefix))}, timeout=20)
    assert (result.returncode, result.stdout, result.stderr) == (
        124,
        "",
        "Waiting for the Avahi daemon. Does it run? Try: systemctl start avahi-daemon\n",
    )


def words(text):
    """CMake wraps its messages."""
    return " ".join(text.split())


def test_a_cmake_project_builds_and_runs_the_example(package, tmp_path):
    configured = configure(EXAMPLE, tmp_path, f"-DCMAKE_PREFIX_PATH={package}", "-DCMAKE_CXX_FLAGS=-Wall -Werror")
    assert configured.returncode == 0, configured.stderr
    succeed("cmake", "--build", tmp_path, "-j2")

    assert_waits_without_a_bus(tmp_path / "discover", package)


def test_pkg_config_alone_builds_and_runs_the_example(package, tmp_path):
    program = tmp_path / "discover"
    succeed("g++", "-std=c++17", *WARNINGS, "-DQT_NO_KEYWORDS", EXAMPLE / "main.cpp", "-o", program,
            *pkg_config_flags(package))

    assert_waits_without_a_bus(program, package)


def test_the_installed_command_line_starts_without_being_told_where_the_library_is(package, monkeypatch):
    monkeypatch.delenv("LD_LIBRARY_PATH", raising=False)

    assert succeed(package / "bin" / "vd-discover", "--version").startswith("vd-discover ")


@pytest.mark.parametrize("header", HEADERS)
def test_each_installed_header_compiles_when_included_alone(header, prefix, library_standard, tmp_path):
    source = tmp_path / "alone.cpp"
    source.write_text(f"#include <vd/{header}>\n")

    succeed("g++", library_standard, *WARNINGS, "-DQT_NO_KEYWORDS", "-fsyntax-only", source,
            *pkg_config_flags(prefix))


def test_the_public_headers_are_installed_and_no_others(prefix):
    installed = sorted(str(path.relative_to(prefix / "include")) for path in prefix.glob("include/**/*.h"))

    assert installed == [f"vd/{name}" for name in HEADERS]


def test_no_installed_file_names_the_folders_it_was_built_in(prefix, build_tree, tmp_path):
    binaries = [library_folder(prefix) / "libvddiscovery.so", prefix / "bin" / "vd-discover"]
    # Debugging information holds them by nature, and is stripped by whoever ships the library.
    stripped = [tmp_path / binary.name for binary in binaries]
    for binary, copy in zip(binaries, stripped):
        succeed("strip", "-o", copy, binary)
    installed = [path for path in prefix.rglob("*")
                 if path.is_file() and ".so" not in path.name and path not in binaries]
    build_folders = [str(folder).encode() for folder in (ROOT, build_tree, prefix)]

    named = [path for path in [*installed, *stripped] for folder in build_folders if folder in path.read_bytes()]

    assert len(installed) >= len(HEADERS) + 4
    assert named == []


@pytest.mark.parametrize("version, accepted", [("0.1", True), ("0.0", False), ("0.2", False), ("1.0", False)])
def test_only_a_request_for_the_same_minor_version_finds_the_package(version, accepted, prefix, tmp_path):
    result = configure_host(tmp_path / "host", prefix, f"find_package(VdDiscovery {version} REQUIRED)")

    assert (result.returncode == 0) == accepted, result.stderr


def test_a_project_with_another_qt_is_told_which_one_the_library_was_built_with(prefix, qt_major, tmp_path):
    other = 5 if qt_major == 6 else 6

    result = configure_host(tmp_path / "host", prefix,
                            f"find_package(Qt{other} REQUIRED COMPONENTS Core)",
                            "find_package(VdDiscovery REQUIRED)")

    assert result.returncode != 0
    assert (f"This vddiscovery was built with Qt {qt_major}, but the project uses Qt{other}::Core. "
            f"Use Qt {qt_major} in the project") in words(result.stderr)


def test_what_only_the_library_uses_is_nothing_to_its_hosts(prefix):
    named = [path for path in [*prefix.rglob("*.cmake"), *prefix.rglob("*.pc")]
             if re.search("systemd|system-service", path.read_text())]

    assert named == []


def test_a_missing_avahi_is_named_with_the_package_to_install(prefix, tmp_path):
    result = configure_host(tmp_path / "host", prefix, "find_package(VdDiscovery REQUIRED)",
                            env={"PKG_CONFIG_LIBDIR": "/nonexistent", "PKG_CONFIG_PATH": ""})

    assert result.returncode != 0
    assert "install libavahi-client-dev" in words(result.stderr)
