// SPDX-License-Identifier: MIT
#include "DeviceTable.h"
#include "TerminalCells.h"

#include <gtest/gtest.h>

using vd::SServiceInfo;
using vd::discover::deviceTable;

namespace {

const int ONE_LINE_EACH = 0;

SServiceInfo camera(const QString& name, const QStringList& addresses = {QStringLiteral("10.0.0.1")})
{
    SServiceInfo info;
    info.deviceKind = vd::DEVICE_KIND_VANDREL;
    info.serviceName = name;
    info.addresses = addresses;
    info.modelName = QStringLiteral("VX-110");
    info.softwareVersion = QStringLiteral("4.2.1");
    info.serialNumber = 0x00c1ff;
    return info;
}

SServiceInfo store(const QString& name)
{
    SServiceInfo info;
    info.deviceKind = vd::DEVICE_KIND_SNAP_SERVER;
    info.serviceName = name;
    info.addresses = QStringList(QStringLiteral("10.0.0.9"));
    info.port = 8443;
    info.https = true;
    info.modelName = QStringLiteral("Snap Server 210");
    info.softwareVersion = QStringLiteral("7.6");
    info.serialNumber = 0x090206;
    return info;
}

std::string table(const QList<SServiceInfo>& devices, int width)
{
    return deviceTable(devices, width).toStdString();
}

void expectEveryLineFits(const QList<SServiceInfo>& devices, int width)
{
    const QStringList lines = QString::fromUtf8(deviceTable(devices, width)).split(QLatin1Char('\n'));
    for (const QString& line : lines)
        EXPECT_LE(vd::discover::cellsOf(line), width) << line.toStdString();
}

} // namespace

TEST(VdDiscoverDeviceTable, WithoutDevicesThereIsNothingNotEvenAHeading)
{
    EXPECT_EQ(table({}, 80), "");
    EXPECT_EQ(table({}, ONE_LINE_EACH), "");
}

TEST(VdDiscoverDeviceTable, ADeviceIsToldInWords)
{
    EXPECT_EQ(table({camera(QStringLiteral("Gate")), store(QStringLiteral("Store one"))}, ONE_LINE_EACH),
              "NAME       KIND                 ADDRESS   PORT        MODEL            VERSION  SERIAL\n"
              "Gate       Vandrel camera       10.0.0.1  80          VX-110           4.2.1    00c1ff\n"
              "Store one  Snap Server storage  10.0.0.9  8443 https  Snap Server 210  7.6      090206\n");
}

TEST(VdDiscoverDeviceTable, WhatIsNotKnownIsADash)
{
    EXPECT_EQ(table({SServiceInfo()}, ONE_LINE_EACH), "NAME  KIND   ADDRESS  PORT  MODEL  VERSION  SERIAL\n"
                                                      "-     other  -        80    -      -        000000\n");
}

TEST(VdDiscoverDeviceTable, InAPipeADeviceWithSeveralAddressesIsOneLine)
{
    const QStringList addresses = {QStringLiteral("10.0.0.1"), QStringLiteral("fe80::77:3")};
    EXPECT_EQ(table({camera(QStringLiteral("Gate"), addresses)}, ONE_LINE_EACH),
              "NAME  KIND            ADDRESS              PORT  MODEL   VERSION  SERIAL\n"
              "Gate  Vandrel camera  10.0.0.1,fe80::77:3  80    VX-110  4.2.1    00c1ff\n");
}

TEST(VdDiscoverDeviceTable, OnATerminalFurtherAddressesStandBelowTheFirst)
{
    const QStringList addresses = {QStringLiteral("10.0.0.1"), QStringLiteral("10.0.0.2")};
    EXPECT_EQ(table({camera(QStringLiteral("Gate"), addresses)}, 80),
              "NAME  KIND            ADDRESS   PORT  MODEL   VERSION  SERIAL\n"
              "Gate  Vandrel camera  10.0.0.1  80    VX-110  4.2.1    00c1ff\n"
              "                      10.0.0.2\n");
}

TEST(VdDiscoverDeviceTable, InAPipeErrorsHaveAColumn)
{
    SServiceInfo broken = camera(QStringLiteral("Broken"));
    broken.errorText = QStringLiteral("lens dirty");
    EXPECT_EQ(table({broken, camera(QStringLiteral("Gate"))}, ONE_LINE_EACH),
              "NAME    KIND            ADDRESS   PORT  MODEL   VERSION  SERIAL  ERROR\n"
              "Broken  Vandrel camera  10.0.0.1  80    VX-110  4.2.1    00c1ff  lens dirty\n"
              "Gate    Vandrel camera  10.0.0.1  80    VX-110  4.2.1    00c1ff  -\n");
}

TEST(VdDiscoverDeviceTable, OnATerminalAnErrorStandsBelowItsDevice)
{
    SServiceInfo broken = camera(QStringLiteral("Broken"));
    broken.errorText = QStringLiteral("lens dirty");
    EXPECT_EQ(table({broken}, 80), "NAME    KIND            ADDRESS   PORT  MODEL   VERSION  SERIAL\n"
                                   "Broken  Vandrel camera  10.0.0.1  80    VX-110  4.2.1    00c1ff\n"
                                   "  error: lens dirty\n");
}

TEST(VdDiscoverDeviceTable, ColumnsLineUpBehindWideAndCombiningCharacters)
{
    EXPECT_EQ(table({camera(QStringLiteral("入口")), camera(QStringLiteral("Tu\u0308r"))}, ONE_LINE_EACH),
              "NAME  KIND            ADDRESS   PORT  MODEL   VERSION  SERIAL\n"
              "入口  Vandrel camera  10.0.0.1  80    VX-110  4.2.1    00c1ff\n"
              "Tu\u0308r   Vandrel camera  10.0.0.1  80    VX-110  4.2.1    00c1ff\n");
}

TEST(VdDiscoverDeviceTable, TextFromTheNetworkCannotForgeARowOrSteerTheTerminal)
{
    SServiceInfo hostile = camera(QStringLiteral("x\ny\x1b[2J"));
    hostile.modelName = QStringLiteral("a\u009b1mb");
    hostile.softwareVersion = QStringLiteral("1\u202e2");
    hostile.errorText = QStringLiteral("e\r\nGate") + QChar(0);
    hostile.addresses = QStringList(QStringLiteral("10.0.0.1\u2028"));
    EXPECT_EQ(table({hostile}, ONE_LINE_EACH),
              "NAME           KIND            ADDRESS         PORT  MODEL     VERSION   SERIAL  ERROR\n"
              "x\\x0ay\\x1b[2J  Vandrel camera  10.0.0.1\\u2028  80    a\\x9b1mb  1\\u202e2  00c1ff  "
              "e\\x0d\\x0aGate\\x00\n");
}

TEST(VdDiscoverDeviceTable, BlanksFromTheNetworkCannotForgeAColumn)
{
    SServiceInfo hostile = camera(QStringLiteral("Gate  other"));
    hostile.modelName = QStringLiteral("\u3164");
    EXPECT_EQ(table({hostile}, ONE_LINE_EACH),
              "NAME            KIND            ADDRESS   PORT  MODEL   VERSION  SERIAL\n"
              "Gate \\x20other  Vandrel camera  10.0.0.1  80    \\u3164  4.2.1    00c1ff\n");
}

TEST(VdDiscoverDeviceTable, LongTextIsCutToTheTerminal)
{
    SServiceInfo device = camera(QStringLiteral("A camera with a long name at the northern gate"));
    device.modelName = QStringLiteral("VX-220 Weatherproof Outdoor");
    EXPECT_EQ(table({device}, 80),
              "NAME              KIND            ADDRESS   PORT  MODEL          VERSION  SERIAL\n"
              "A camera with a…  Vandrel camera  10.0.0.1  80    VX-220 Weath…  4.2.1    00c1ff\n");
    expectEveryLineFits({device}, 80);
}

TEST(VdDiscoverDeviceTable, WhereThereIsNoRoomTheKindIsOneWord)
{
    SServiceInfo device = store(QStringLiteral("A storage server with a long name"));
    device.addresses = QStringList(QStringLiteral("192.168.100.109"));
    EXPECT_EQ(table({device}, 78),
              "NAME        KIND     ADDRESS          PORT        MODEL        VERSION  SERIAL\n"
              "A storage…  storage  192.168.100.109  8443 https  Snap Serve…  7.6      090206\n");
    expectEveryLineFits({device}, 78);
}

TEST(VdDiscoverDeviceTable, AddressesAndSerialNumbersStayWholeWhileAnythingElseCanBeCut)
{
    SServiceInfo device = camera(QStringLiteral("A camera with a long name"));
    device.addresses = QStringList(QStringLiteral("192.168.100.109"));
    const std::string cut = table({device}, 66);
    EXPECT_NE(cut.find("192.168.100.109"), std::string::npos);
    EXPECT_NE(cut.find("00c1ff"), std::string::npos);
    expectEveryLineFits({device}, 66);
}

TEST(VdDiscoverDeviceTable, NoLineIsLongerThanTheTerminalHoweverNarrow)
{
    SServiceInfo device = store(QStringLiteral("入口のカメラ（東側）入口のカメラ"));
    device.errorText = QStringLiteral("something went very wrong here");
    for (int width = 1; width <= 130; ++width)
        expectEveryLineFits({device, camera(QStringLiteral("Gate"))}, width);
}

TEST(VdDiscoverDeviceTable, InAPipeNothingIsCut)
{
    const QString name(200, QLatin1Char('n'));
    EXPECT_NE(table({camera(name)}, ONE_LINE_EACH).find(name.toStdString()), std::string::npos);
}
