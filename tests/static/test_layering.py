# SPDX-License-Identifier: MIT
"""Which file may know of what."""

import re

import pytest

from sources import ROOT, library_files, name_of, without_comments, without_comments_and_literals

AVAHI = r"#\s*include\s*[<\"]avahi-"
SYSTEMD = r"#\s*include\s*[<\"]systemd/"
QTSERVICE = r"#\s*include\s*[<\"]QtService/"
QT_VERSION = r"\bQT_VERSION\w*"


def example_files():
    """To a host application Avahi is as unknown as to the rest of the library."""
    return sorted(path for path in (ROOT / "examples").rglob("*") if path.suffix in (".h", ".cpp"))


def includes_avahi(text):
    return re.search(AVAHI, without_comments(text)) is not None


def includes_a_service_manager(text):
    return re.search(f"{SYSTEMD}|{QTSERVICE}", without_comments(text)) is not None


def asks_for_the_qt_version(text):
    return re.search(QT_VERSION, without_comments_and_literals(text)) is not None


def files_that(property_of_text, paths):
    return [name_of(path) for path in paths if property_of_text(path.read_text())]


def test_only_the_avahi_folder_and_its_public_header_include_avahi():
    users = files_that(includes_avahi, [*library_files(), *example_files()])

    assert [name for name in users if not name.startswith("src/avahi/")] == ["include/vd/AvahiServiceDiscovery.h"]


def test_the_responder_knows_nothing_of_discovery_and_discovery_nothing_of_it():
    sides = {"responder": ("avahi", "discovery"), "avahi": ("responder",), "discovery": ("responder",)}
    crossings = [(name_of(path), included) for path in library_files() for side, others in sides.items()
                 if name_of(path).startswith(f"src/{side}/")
                 for included in re.findall(r'#\s*include\s*["<](.*)[">]', without_comments(path.read_text()))
                 if included.startswith(tuple(f"{other}/" for other in others))]

    assert crossings == []


def test_only_the_responders_folder_includes_a_service_manager():
    users = files_that(includes_a_service_manager, [*library_files(), *example_files()])

    assert users == ["src/responder/QtServiceController.cpp", "src/responder/SystemBus.h"]


def test_only_the_compatibility_header_asks_for_the_version_of_qt():
    assert files_that(asks_for_the_qt_version, library_files()) == ["src/support/QtCompat.h"]


def test_no_private_header_is_included_by_a_public_one():
    public = [path for path in library_files() if name_of(path).startswith("include/")]
    quoted = [(name_of(path), included) for path in public
              for included in re.findall(r'#\s*include\s*"(.*)"', without_comments(path.read_text()))]

    assert quoted == []


@pytest.mark.parametrize("text, expected", [
    ("#include <avahi-client/client.h>", True),
    ('#  include "avahi-common/watch.h"', True),
    ("// #include <avahi-client/client.h>", False),
    ("#include <vd/AvahiServiceDiscovery.h>", False),
])
def test_an_include_of_avahi_is_recognised(text, expected):
    assert includes_avahi(text) == expected


@pytest.mark.parametrize("text, expected", [
    ("#include <systemd/sd-bus.h>", True),
    ("# include <QtService/qtservice.h>", True),
    ("// #include <systemd/sd-bus.h>", False),
    ('#include "responder/SystemdManager.h"', False),
])
def test_an_include_of_a_service_manager_is_recognised(text, expected):
    assert includes_a_service_manager(text) == expected


@pytest.mark.parametrize("text, expected", [
    ("#if QT_VERSION < 0x060000", True),
    ("#if QT_VERSION_MAJOR == 6", True),
    ("#if QT_VERSION >= QT_VERSION_CHECK(5, 0, 0)", True),
    ("// differs by QT_VERSION", False),
])
def test_a_question_for_the_version_of_qt_is_recognised(text, expected):
    assert asks_for_the_qt_version(text) == expected
