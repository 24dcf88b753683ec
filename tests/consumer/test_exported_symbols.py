# SPDX-License-Identifier: MIT
"""What the shared library shows of itself to the dynamic linker."""

import re

import pytest

from buildkit import library_folder, succeed

EXPORTED_CLASSES = [
    "AvahiServiceDiscovery",
    "BonjourResponder",
    "LogQt",
    "MACAddress",
    "ManagedServiceDiscovery",
    "Mutex",
    "MutexLocker",
    "SReconfigInfo",
    "SResolverInfo",
    "SServiceInfo",
    "ServiceDiscovery",
]

# A member of an exported class, or what the compiler makes for its virtual functions.
ALLOWED = re.compile(
    rf"vd::({'|'.join(EXPORTED_CLASSES)})::.+"
    rf"|(typeinfo|typeinfo name|vtable) for vd::({'|'.join(EXPORTED_CLASSES)})"
    r"|vd::VENDOR_TXT_DOMAIN"
)


def exported_symbols(library):
    return [line.split(" ", 2)[2] for line in succeed("nm", "-DC", "--defined-only", library).splitlines()]


@pytest.fixture(scope="session")
def library(prefix):
    return library_folder(prefix) / "libvddiscovery.so"


@pytest.fixture(scope="session")
def dynamic_section(library):
    return succeed("readelf", "-dW", library)


def test_only_exported_classes_and_the_vendor_domain_are_visible(library):
    assert [symbol for symbol in exported_symbols(library) if not ALLOWED.fullmatch(symbol)] == []


@pytest.mark.parametrize("symbol", [
    "vd::AvahiServiceDiscovery::AvahiServiceDiscovery()",
    "vd::BonjourResponder::BONJOUR_RESPONDER_NAME",
    "vd::BonjourResponder::instance",
    "vd::BonjourResponder::startResponder()",
    "vd::LogQt::setStream(QTextStream*)",
    "vd::MACAddress::toString() const",
    "vd::ManagedServiceDiscovery::ManagedServiceDiscovery()",
    "vd::ManagedServiceDiscovery::staticMetaObject",
    "vd::SServiceInfo::SServiceInfo()",
    "vd::ServiceDiscovery::staticMetaObject",
    "vd::VENDOR_TXT_DOMAIN",
    "typeinfo for vd::ServiceDiscovery",
    "vtable for vd::AvahiServiceDiscovery",
    "vtable for vd::BonjourResponder",
])
def test_what_hosts_link_against_is_visible(symbol, library):
    assert symbol in exported_symbols(library)


def test_the_soname_has_the_abi_number_and_not_the_version(dynamic_section):
    assert re.findall(r"\(SONAME\).*\[(.*)\]", dynamic_section) == ["libvddiscovery.so.0"]


def test_the_library_needs_qt_core_and_network_avahi_dbus_and_systemd_and_nothing_else(dynamic_section, qt_major):
    # The loader is part of the C library, and hands out what each thread has of its own.
    toolchain = ("ld-linux", "ld64.", "libc.", "libgcc_s.", "libm.", "libstdc++.")
    needed = [name for name in re.findall(r"\(NEEDED\).*\[(.*)\]", dynamic_section)
              if not name.startswith(toolchain)]

    assert sorted(needed) == [
        f"libQt{qt_major}Core.so.{qt_major}",
        f"libQt{qt_major}Network.so.{qt_major}",
        "libavahi-client.so.3",
        "libavahi-common.so.3",
        "libdbus-1.so.3",
        "libsystemd.so.0",
    ]


def test_the_library_carries_no_search_path(dynamic_section):
    assert re.findall(r"\((?:RPATH|RUNPATH)\)", dynamic_section) == []
