# SPDX-License-Identifier: MIT
"""The library on another service manager than systemd, and on none."""

import json
from pathlib import Path

import pytest

from buildkit import configure_library, succeed

# As much of it as the library uses. It does what the variable FAKE_QTSERVICE says.
QTSERVICE_HEADER = """#pragma once
#include <QtCore/QString>
class QtServiceController
{
public:
    explicit QtServiceController(const QString& name);
    virtual ~QtServiceController();
    bool isInstalled() const;
    bool isRunning() const;
    bool start();
private:
    QString name;
};
"""
QTSERVICE_SOURCE = """#include <QtService/qtservice.h>
static bool says(const char* word) { return qgetenv("FAKE_QTSERVICE").contains(word); }
QtServiceController::QtServiceController(const QString& name) : name(name) {}
QtServiceController::~QtServiceController() {}
bool QtServiceController::isInstalled() const { return name == QLatin1String("mdnsd") && says("installed"); }
bool QtServiceController::isRunning() const { return says("running"); }
bool QtServiceController::start() { return says("startable"); }
"""
PROBE = Path("tests", "responder", "probe", "vd-responder-probe")


@pytest.fixture(scope="module")
def modules_but_systemd(tmp_path_factory):
    """A folder with pkg-config's modules of this machine, without libsystemd's."""
    folder = tmp_path_factory.mktemp("modules")
    for known in succeed("pkg-config", "--variable=pc_path", "pkg-config").strip().split(":"):
        for module in Path(known).glob("*.pc"):
            link = folder / module.name
            if module.name != "libsystemd.pc" and not link.exists():
                link.symlink_to(module)
    return folder


@pytest.fixture(scope="module")
def qtservice(tmp_path_factory):
    """A package such as a distribution ships, for pkg-config; Debian has none."""
    folder = tmp_path_factory.mktemp("qtservice")
    (folder / "QtService").mkdir()
    (folder / "QtService" / "qtservice.h").write_text(QTSERVICE_HEADER)
    source = folder / "qtservice.cpp"
    source.write_text(QTSERVICE_SOURCE)
    flags = succeed("pkg-config", "--cflags", "--libs", "Qt6Core").split()
    succeed("g++", "-std=c++17", "-shared", "-fPIC", f"-I{folder}", source, "-o",
            folder / "libQtService.so", *flags)
    (folder / "QtService.pc").write_text(
        "Name: QtService\nDescription: Services\nVersion: 2.6\n"
        f"Cflags: -I{folder}\nLibs: -L{folder} -lQtService\n")
    return folder


def results_of(output):
    return [json.loads(line)["result"] for line in output.splitlines()]


def build_probe(build, *options, env):
    configured = configure_library(build, "-DVD_BUILD_TESTS=ON", *options, env=env)
    assert configured.returncode == 0, configured.stderr
    succeed("cmake", "--build", build, "-j2", "--target", "vd-responder-probe", timeout=300)
    return configured


@pytest.fixture(scope="module")
def probe_on_qtservice(qtservice, tmp_path_factory):
    build = tmp_path_factory.mktemp("build-on-qtservice")
    build_probe(build, "-DVD_USE_QTSERVICE=ON", env={"PKG_CONFIG_PATH": str(qtservice)})
    return build / PROBE


@pytest.mark.parametrize("machine, results", [
    ("", ["NotInstalled", False, False, False, "NotInstalled", False]),
    ("running startable", ["NotInstalled", False, False, False, "NotInstalled", False]),
    ("installed", ["Stopped", True, False, False, "StartFailed", False]),
    ("installed startable", ["Stopped", True, False, False, "Running", True]),
    ("installed running", ["Running", True, True, True, "Running", True]),
])
def test_qtservice_is_asked_in_the_place_of_systemd(machine, results, probe_on_qtservice, qtservice):
    environment = {"FAKE_QTSERVICE": machine, "LD_LIBRARY_PATH": str(qtservice)}

    output = succeed(probe_on_qtservice, "status", "isInstalled", "isRunning", "isServiceRunning", "tryStart",
                     "startResponderService", env=environment)

    assert results_of(output) == results


def test_a_library_on_qtservice_does_without_systemd(probe_on_qtservice):
    library = probe_on_qtservice.parents[3] / "src" / "libvddiscovery.so"
    dynamic_section = succeed("readelf", "-dW", library)

    assert "libQtService.so" in dynamic_section
    assert "libsystemd" not in dynamic_section


@pytest.mark.parametrize("target", ["QtService", "QtService::QtService"])
def test_qtservice_is_found_as_a_package_of_cmake(target, modules_but_systemd, tmp_path):
    package = tmp_path / "package"
    package.mkdir()
    (package / "QtServiceConfig.cmake").write_text(f"add_library({target} INTERFACE IMPORTED)\n")

    configured = configure_library(tmp_path / "build", "-DVD_USE_QTSERVICE=ON", f"-DQtService_DIR={package}",
                                   env={"PKG_CONFIG_LIBDIR": str(modules_but_systemd), "PKG_CONFIG_PATH": ""})

    assert configured.returncode == 0, configured.stderr
    assert "The responder service is looked up through QtService" in configured.stdout


def test_a_missing_qtservice_is_named_with_what_to_do(tmp_path):
    configured = configure_library(tmp_path / "build", "-DVD_USE_QTSERVICE=ON", env={"PKG_CONFIG_PATH": ""})

    assert configured.returncode != 0
    assert ("VD_USE_QTSERVICE needs the CMake package or the pkg-config module QtService. Install it and name its "
            "folder in CMAKE_PREFIX_PATH or PKG_CONFIG_PATH, or leave the option off."
            ) in " ".join(configured.stderr.split())


def test_without_libsystemd_the_build_says_so_and_no_service_is_installed(modules_but_systemd, tmp_path):
    configured = build_probe(tmp_path, env={"PKG_CONFIG_LIBDIR": str(modules_but_systemd), "PKG_CONFIG_PATH": ""})

    assert ("Without libsystemd 237 or newer the responder service counts as not installed. Install "
            "libsystemd-dev") in " ".join(configured.stderr.split())
    output = succeed(tmp_path / PROBE, "status", "isInstalled", "isRunning", "start", "tryStart", "startResponder",
                     "threadName")
    assert results_of(output) == [
        "Unsupported", False, False, False, "Unsupported", True, "BonjourResponderThread"]
