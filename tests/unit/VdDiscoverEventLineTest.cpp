// SPDX-License-Identifier: MIT
#include "EventLine.h"
#include "Progress.h"

#include <gtest/gtest.h>

using vd::SServiceInfo;
using vd::discover::DeviceEvent;
using vd::discover::EventKind;
using vd::discover::progressText;

namespace {

const char TIME[] = "12:00:01  ";
const int UNCUT = 0;

SServiceInfo camera()
{
    SServiceInfo info;
    info.deviceKind = vd::DEVICE_KIND_VANDREL;
    info.serviceName = QStringLiteral("Gate");
    info.addresses = QStringList(QStringLiteral("10.0.0.1"));
    info.modelName = QStringLiteral("VX-110");
    info.softwareVersion = QStringLiteral("4.2.1");
    info.serialNumber = 0x00c1ff;
    return info;
}

// Local time, so that the result does not depend on the machine's time zone.
std::string line(EventKind kind, const SServiceInfo& signalled, const SServiceInfo& before,
                 const SServiceInfo& after, int width = UNCUT)
{
    const QDateTime time(QDate(2026, 11, 20), QTime(12, 0, 1));
    return vd::discover::eventLine(DeviceEvent{kind, time.toUTC(), signalled}, before, after, width).toStdString();
}

std::string textLine(const SServiceInfo& before, const SServiceInfo& after)
{
    return line(EventKind::Text, after, before, after);
}

const std::string TEXT_OF_GATE = TIME + std::string("text     Gate                  ");
const std::string ADDRESS_OF_GATE = TIME + std::string("address  Gate                  ");

} // namespace

TEST(VdDiscoverEventLine, AFoundDeviceIsToldWhole)
{
    EXPECT_EQ(line(EventKind::Found, camera(), SServiceInfo(), camera()),
              TIME
                  + std::string("found    Gate                  10.0.0.1 port 80, Vandrel camera VX-110, "
                                "version 4.2.1, serial 00c1ff\n"));
}

TEST(VdDiscoverEventLine, AStorageServerIsToldWithItsCapacity)
{
    SServiceInfo store = camera();
    store.deviceKind = vd::DEVICE_KIND_SNAP_SERVER;
    store.port = 8443;
    store.https = true;
    store.modelName.clear();
    store.softwareVersion.clear();
    store.totalCapacity = QStringLiteral("8 TB");
    store.freeCapacity = QStringLiteral("2 TB");
    EXPECT_EQ(line(EventKind::Found, store, SServiceInfo(), store),
              TIME
                  + std::string("found    Gate                  10.0.0.1 port 8443 https, Snap Server storage, "
                                "serial 00c1ff, 2 TB free of 8 TB\n"));
}

TEST(VdDiscoverEventLine, WhatACameraRemarksOnItselfIsTold)
{
    SServiceInfo device = camera();
    device.errorText = QStringLiteral("lens dirty");
    device.privacyMode = true;
    device.userdataOwner = QStringLiteral("porter");
    EXPECT_EQ(line(EventKind::Found, device, SServiceInfo(), device),
              TIME
                  + std::string("found    Gate                  10.0.0.1 port 80, Vandrel camera VX-110, "
                                "version 4.2.1, serial 00c1ff, error: lens dirty, privacy mode, "
                                "user data of porter\n"));
}

TEST(VdDiscoverEventLine, AnAddedAddressIsToldWithAllThatThereAreNow)
{
    SServiceInfo after = camera();
    after.addresses.append(QStringLiteral("10.0.0.2"));
    EXPECT_EQ(line(EventKind::Address, after, camera(), after),
              ADDRESS_OF_GATE + "10.0.0.2 added; now 10.0.0.1, 10.0.0.2\n");
}

TEST(VdDiscoverEventLine, AnAddressThatIsAddedThoughItNeverLeftIsToldToBeStillThere)
{
    EXPECT_EQ(line(EventKind::Address, camera(), camera(), camera()),
              ADDRESS_OF_GATE + "10.0.0.1 still there; now 10.0.0.1\n");
}

TEST(VdDiscoverEventLine, AnAddressThatIsRemovedTwiceIsToldToBeRemovedAlready)
{
    SServiceInfo signalled = camera();
    signalled.addresses = QStringList(QStringLiteral("10.0.0.2"));
    signalled.addressRemoved = true;
    EXPECT_EQ(line(EventKind::Address, signalled, camera(), camera()),
              ADDRESS_OF_GATE + "10.0.0.2 removed already; now 10.0.0.1\n");
}

TEST(VdDiscoverEventLine, ARemovedAddressIsToldToBeRemoved)
{
    SServiceInfo signalled = camera();
    signalled.addressRemoved = true;
    SServiceInfo after = signalled;
    after.addresses = QStringList(QStringLiteral("10.0.0.2"));
    EXPECT_EQ(line(EventKind::Address, signalled, camera(), after),
              ADDRESS_OF_GATE + "10.0.0.1 removed; now 10.0.0.2\n");
}

TEST(VdDiscoverEventLine, TheRemovalOfTheLastAddressLeavesNone)
{
    SServiceInfo signalled = camera();
    signalled.addressRemoved = true;
    SServiceInfo after = signalled;
    after.addresses.clear();
    EXPECT_EQ(line(EventKind::Address, signalled, camera(), after),
              ADDRESS_OF_GATE + "10.0.0.1 removed; none is left\n");
}

TEST(VdDiscoverEventLine, AChangedTextIsToldByWhatChanged)
{
    SServiceInfo after = camera();
    after.softwareVersion = QStringLiteral("4.3");
    after.modelName = QStringLiteral("VX-111");
    after.serialNumber = 1;
    EXPECT_EQ(textLine(camera(), after),
              TEXT_OF_GATE + "model VX-110 -> VX-111, version 4.2.1 -> 4.3, serial 00c1ff -> 000001\n");
}

TEST(VdDiscoverEventLine, ARemarkThatComesOrGoesIsTold)
{
    SServiceInfo broken = camera();
    broken.errorText = QStringLiteral("lens dirty");
    EXPECT_EQ(textLine(camera(), broken), TEXT_OF_GATE + "error: lens dirty\n");
    EXPECT_EQ(textLine(broken, camera()), TEXT_OF_GATE + "nothing to remark any more\n");
}

TEST(VdDiscoverEventLine, AChangeThatNoMemberShowsIsToldAsSuch)
{
    EXPECT_EQ(textLine(camera(), camera()), TEXT_OF_GATE + "TXT record changed\n");
}

TEST(VdDiscoverEventLine, ALostDeviceIsToldWithWhereItWas)
{
    EXPECT_EQ(line(EventKind::Lost, camera(), camera(), SServiceInfo()),
              TIME + std::string("lost     Gate                  was at 10.0.0.1\n"));
}

TEST(VdDiscoverEventLine, TextFromTheNetworkCannotForgeALineOrSteerTheTerminal)
{
    SServiceInfo hostile = camera();
    hostile.serviceName = QStringLiteral("x\n12:00:01  lost\x1b[2J") + QChar(0);
    hostile.modelName = QStringLiteral("a\u009b1mb\u2029");
    hostile.softwareVersion = QStringLiteral("1\u202e2");
    hostile.errorText = QStringLiteral("e\r\n");
    hostile.addresses = QStringList(QStringLiteral("10.0.0.1\u0085"));
    EXPECT_EQ(line(EventKind::Found, hostile, SServiceInfo(), hostile),
              TIME
                  + std::string("found    x\\x0a12:00:01 \\x20lost\\x1b[2J\\x00  10.0.0.1\\x85 port 80, "
                                "Vandrel camera a\\x9b1mb\\u2029, version 1\\u202e2, serial 00c1ff, "
                                "error: e\\x0d\\x0a\n"));
}

TEST(VdDiscoverEventLine, ALineThatWouldWrapIsCutToTheTerminal)
{
    SServiceInfo device = camera();
    device.serviceName = QStringLiteral("入口") + QString(50, QLatin1Char('x')) + QStringLiteral(" lost Gate");
    EXPECT_EQ(line(EventKind::Lost, device, device, SServiceInfo(), 40),
              TIME + std::string("lost     入口xxxxxxxxxxxxxxxx…\n"));
}

TEST(VdDiscoverEventLine, ALineThatFitsTheTerminalIsNotCut)
{
    const std::string whole = line(EventKind::Lost, camera(), camera(), SServiceInfo());
    const int cells = static_cast<int>(whole.size()) - 1;
    EXPECT_EQ(line(EventKind::Lost, camera(), camera(), SServiceInfo(), cells), whole);
}

TEST(VdDiscoverProgress, CountsTimeAgainstTheTimeout)
{
    EXPECT_EQ(progressText(0, 0, 5000), QStringLiteral("0 devices, 0.0 s of 5 s"));
    EXPECT_EQ(progressText(3, 2149, 2500), QStringLiteral("3 devices, 2.1 s of 2.5 s"));
}

TEST(VdDiscoverProgress, OneDeviceIsInTheSingular)
{
    EXPECT_EQ(progressText(1, 1000, 5000), QStringLiteral("1 device, 1.0 s of 5 s"));
}

TEST(VdDiscoverProgress, DoesNotGoBeyondTheTimeout)
{
    EXPECT_EQ(progressText(2, 5100, 5000), QStringLiteral("2 devices, 5.0 s of 5 s"));
}

TEST(VdDiscoverProgress, WithoutATimeoutTimeRunsAsOnAClock)
{
    EXPECT_EQ(progressText(2, 3723999, 0), QStringLiteral("2 devices, 1:02:03"));
    EXPECT_EQ(progressText(2, 90000000, 0), QStringLiteral("2 devices, 25:00:00"));
}
