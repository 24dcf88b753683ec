// SPDX-License-Identifier: MIT
#include "EventJson.h"

#include <QtCore/QJsonDocument>

#include <gtest/gtest.h>

using vd::SServiceInfo;
using vd::discover::DeviceEvent;
using vd::discover::EventKind;

namespace {

const quint8 MAC[vd::MACAddress::BYTE_COUNT] = {0x00, 0x1b, 0x44, 0x11, 0x3a, 0xb7};

SServiceInfo fullRecord()
{
    SServiceInfo info;
    info.serviceType = QStringLiteral("_https._tcp");
    info.interfaceIndex = -2;
    info.addressRemoved = true;
    info.longLiveQuery = true;
    info.deviceKind = vd::DEVICE_KIND_SNAP_SERVER;
    info.serviceName = QStringLiteral("Store");
    info.hostName = QStringLiteral("store.local");
    info.recordHostName = QStringLiteral("record.local");
    info.addresses = QStringList{QStringLiteral("10.0.0.1"), QStringLiteral("10.0.0.2")};
    info.port = 65535;
    info.https = true;
    info.macAddress = vd::MACAddress(MAC);
    info.serialNumber = 0xffffff;
    info.softwareVersion = QStringLiteral("7.6");
    info.modelName = QStringLiteral("210");
    info.errorText = QStringLiteral("hot");
    info.userdataOwner = QStringLiteral("me");
    info.privacyMode = true;
    info.totalCapacity = QStringLiteral("8 TB");
    info.freeCapacity = QStringLiteral("2 TB");
    info.txtChecksum = 0xffff;
    return info;
}

QDateTime noon()
{
    return QDateTime(QDate(2026, 11, 20), QTime(12, 0, 0, 123), Qt::UTC);
}

QByteArray lineFor(const SServiceInfo& info, EventKind kind = EventKind::Found)
{
    return vd::discover::jsonLine(DeviceEvent{kind, noon(), info});
}

std::string nameInLine(const QString& name)
{
    SServiceInfo info;
    info.serviceName = name;
    const QByteArray line = lineFor(info);
    const char KEY[] = "\"serviceName\":\"";
    const auto begin = line.indexOf(KEY) + static_cast<int>(sizeof KEY) - 1;
    return line.mid(begin, line.indexOf("\",\"serviceType\"") - begin).toStdString();
}

QString nameReadBack(const QString& name)
{
    SServiceInfo info;
    info.serviceName = name;
    const QJsonObject line = QJsonDocument::fromJson(lineFor(info)).object();
    return line.value(QStringLiteral("service")).toObject().value(QStringLiteral("serviceName")).toString();
}

QString character(uint codePoint)
{
    // Not by a decoder, which would take U+FEFF for a byte order mark.
    if (codePoint < 0x10000)
        return QString(QChar(codePoint));
    return QString(QChar(QChar::highSurrogate(codePoint))) + QChar(QChar::lowSurrogate(codePoint));
}

} // namespace

TEST(VdDiscoverEventJson, ALineHoldsTheEventTheTimeAndEveryMemberOfTheRecord)
{
    EXPECT_EQ(lineFor(fullRecord()).toStdString(),
              R"({"event":"found","time":"2026-11-20T12:00:00.123Z","service":{)"
              R"("addressRemoved":true,"addresses":["10.0.0.1","10.0.0.2"],"deviceKind":1024,"errorText":"hot",)"
              R"("freeCapacity":"2 TB","hostName":"store.local","https":true,"interfaceIndex":-2,)"
              R"("longLiveQuery":true,"macAddress":"00:1b:44:11:3a:b7","modelName":"210","port":65535,)"
              R"("privacyMode":true,"recordHostName":"record.local","serialNumber":16777215,)"
              R"("serviceName":"Store","serviceType":"_https._tcp","softwareVersion":"7.6",)"
              R"("totalCapacity":"8 TB","txtChecksum":65535,"userdataOwner":"me"}})"
              "\n");
}

TEST(VdDiscoverEventJson, AnEmptyRecordStillHasEveryMember)
{
    EXPECT_EQ(lineFor(SServiceInfo()).toStdString(),
              R"({"event":"found","time":"2026-11-20T12:00:00.123Z","service":{)"
              R"("addressRemoved":false,"addresses":[],"deviceKind":0,"errorText":"",)"
              R"("freeCapacity":"","hostName":"","https":false,"interfaceIndex":0,)"
              R"("longLiveQuery":false,"macAddress":"00:00:00:00:00:00","modelName":"","port":80,)"
              R"("privacyMode":false,"recordHostName":"","serialNumber":0,)"
              R"("serviceName":"","serviceType":"","softwareVersion":"",)"
              R"("totalCapacity":"","txtChecksum":0,"userdataOwner":""}})"
              "\n");
}

TEST(VdDiscoverEventJson, ARecordHasTwentyOneMembers)
{
    EXPECT_EQ(vd::discover::jsonOf(fullRecord()).size(), 21);
}

TEST(VdDiscoverEventJson, EveryEventHasItsWord)
{
    EXPECT_TRUE(lineFor(SServiceInfo(), EventKind::Found).startsWith(R"({"event":"found",)"));
    EXPECT_TRUE(lineFor(SServiceInfo(), EventKind::Address).startsWith(R"({"event":"address",)"));
    EXPECT_TRUE(lineFor(SServiceInfo(), EventKind::Text).startsWith(R"({"event":"text",)"));
    EXPECT_TRUE(lineFor(SServiceInfo(), EventKind::Lost).startsWith(R"({"event":"lost",)"));
}

TEST(VdDiscoverEventJson, TheTimeIsUtcWhateverZoneItIsGivenIn)
{
    const DeviceEvent event = {EventKind::Found, noon().toOffsetFromUtc(3600), SServiceInfo()};
    EXPECT_TRUE(vd::discover::jsonLine(event).contains(R"("time":"2026-11-20T12:00:00.123Z")"));
}

TEST(VdDiscoverEventJson, TheLargestKindAndSerialNumberAreExact)
{
    SServiceInfo info;
    info.deviceKind = 0xffffffff;
    info.serialNumber = 0xffffffff;
    const QByteArray line = lineFor(info);
    EXPECT_TRUE(line.contains("\"deviceKind\":4294967295,"));
    EXPECT_TRUE(line.contains("\"serialNumber\":4294967295,"));
}

TEST(VdDiscoverEventJson, TextOfEveryScriptStaysAsItIs)
{
    const QString name = QStringLiteral("Tür 入口 مدخل 😀");
    EXPECT_EQ(nameInLine(name), name.toStdString());
}

TEST(VdDiscoverEventJson, QuotesAndBackslashesAreEscaped)
{
    EXPECT_EQ(nameInLine(QStringLiteral(R"(a"b\c)")), R"(a\"b\\c)");
}

TEST(VdDiscoverEventJson, NothingCanEndTheLine)
{
    EXPECT_EQ(nameInLine(QStringLiteral("a\nb\rc")), R"(a\nb\rc)");
    EXPECT_EQ(lineFor(fullRecord()).count('\n'), 1);
}

TEST(VdDiscoverEventJson, ATerminalSequenceIsEscaped)
{
    EXPECT_EQ(nameInLine(QStringLiteral("\x1b[2J")), R"(\u001b[2J)");
}

TEST(VdDiscoverEventJson, ANulIsEscaped)
{
    EXPECT_EQ(nameInLine(QStringLiteral("a") + QChar(0) + QStringLiteral("b")), R"(a\u0000b)");
}

TEST(VdDiscoverEventJson, DeleteAndTheC1ControlsAreEscaped)
{
    EXPECT_EQ(nameInLine(character(0x7f)), R"(\u007f)");
    EXPECT_EQ(nameInLine(character(0x80) + character(0x9b) + character(0x9f)), R"(\u0080\u009b\u009f)");
    EXPECT_EQ(nameInLine(character(0xa0)), "\xc2\xa0");
}

TEST(VdDiscoverEventJson, LineAndParagraphSeparatorsAreEscaped)
{
    EXPECT_EQ(nameInLine(character(0x2028) + character(0x2029)), R"(\u2028\u2029)");
}

TEST(VdDiscoverEventJson, WhatTurnsTheDirectionOfTextIsEscaped)
{
    EXPECT_EQ(nameInLine(character(0x61c) + character(0x200e) + character(0x200f)), R"(\u061c\u200e\u200f)");
    EXPECT_EQ(nameInLine(character(0x202a) + character(0x202e)), R"(\u202a\u202e)");
    EXPECT_EQ(nameInLine(character(0x2066) + character(0x2069)), R"(\u2066\u2069)");
}

TEST(VdDiscoverEventJson, InvisibleFormatCharactersAreEscaped)
{
    EXPECT_EQ(nameInLine(character(0xad) + character(0x200b) + character(0x200d) + character(0xfeff)),
              R"(\u00ad\u200b\u200d\ufeff)");
}

TEST(VdDiscoverEventJson, AFormatCharacterBeyondTheBasicPlaneIsASurrogatePair)
{
    EXPECT_EQ(nameInLine(character(0xe0041)), R"(\udb40\udc41)");
}

TEST(VdDiscoverEventJson, EveryCharacterIsReadBackAsItWas)
{
    QString all;
    for (uint codePoint = 0; codePoint < 0x3000; ++codePoint)
        all += character(codePoint);
    all += character(0xfeff) + character(0x1f600) + character(0xe0001) + character(0x10ffff);
    EXPECT_EQ(nameReadBack(all), all);
}

TEST(VdDiscoverEventJson, NoCharacterThatSteersATerminalStandsInTheLine)
{
    QString all;
    for (uint codePoint = 0; codePoint < 0xd800; ++codePoint)
        all += character(codePoint);
    SServiceInfo info;
    info.serviceName = info.modelName = info.errorText = info.softwareVersion = all;
    QString line = QString::fromUtf8(lineFor(info));
    line.chop(1);
    for (const QChar unit : line) {
        ASSERT_NE(unit.category(), QChar::Other_Control) << unit.unicode();
        ASSERT_NE(unit.category(), QChar::Other_Format) << unit.unicode();
        ASSERT_NE(unit.category(), QChar::Separator_Line) << unit.unicode();
        ASSERT_NE(unit.category(), QChar::Separator_Paragraph) << unit.unicode();
    }
}
