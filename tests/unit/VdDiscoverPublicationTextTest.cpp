// SPDX-License-Identifier: MIT
#include "PublicationText.h"

#include <QtCore/QtEndian>

#include <gtest/gtest.h>

using vd::discover::PublicationEvent;
using vd::discover::PublishOptions;

namespace {

PublishOptions dockSetup()
{
    PublishOptions options;
    options.name = QStringLiteral("Dock setup");
    options.type = QStringLiteral("_setup._tcp");
    options.info.zephValue = 0x0a0b0c;
    options.info.newIp = qToBigEndian<quint32>(0xc0a8010a);
    options.info.netMask = qToBigEndian<quint32>(0xffffff00);
    options.info.userName = QStringLiteral("admin");
    options.info.password = QStringLiteral("secret");
    return options;
}

const QDateTime NOON(QDate(2026, 11, 20), QTime(12, 0, 0, 123), Qt::UTC);

std::string lineOf(PublicationEvent event, const PublishOptions& options)
{
    // The time of day depends on where the test runs.
    return vd::discover::publicationLine(event, NOON, options).mid(8).toStdString();
}

std::string jsonOf(PublicationEvent event)
{
    return vd::discover::publicationJson(event, NOON, dockSetup()).toStdString();
}

std::string jsonWith(const std::string& word)
{
    return "{\"event\":\"" + word
           + "\",\"time\":\"2026-11-20T12:00:00.123Z\",\"service\":{\"serviceName\":\"Dock setup\","
             "\"serviceType\":\"_setup._tcp\"}}\n";
}

} // namespace

TEST(VdDiscoverPublicationText, ALineTellsWhatTheRecordTellsADevice)
{
    EXPECT_EQ(lineOf(PublicationEvent::Established, dockSetup()),
              "  published  Dock setup (_setup._tcp)  zeph 0x0a0b0c: 192.168.1.10/24, not saved\n");
}

TEST(VdDiscoverPublicationText, ALineTellsOfNameServersAndOfSaving)
{
    PublishOptions options = dockSetup();
    options.info.dns1 = qToBigEndian<quint32>(0x01020304);
    options.info.dns3 = qToBigEndian<quint32>(0x05060708);
    options.info.save = true;
    EXPECT_EQ(lineOf(PublicationEvent::Established, options),
              "  published  Dock setup (_setup._tcp)  zeph 0x0a0b0c: 192.168.1.10/24, name servers 1.2.3.4 "
              "5.6.7.8, saved\n");
}

TEST(VdDiscoverPublicationText, AWithdrawalIsALine)
{
    EXPECT_EQ(lineOf(PublicationEvent::Withdrawn, dockSetup()), "  withdrawn  Dock setup (_setup._tcp)\n");
}

TEST(VdDiscoverPublicationText, WhatStandardErrorTellsOfIsNoLine)
{
    EXPECT_EQ(vd::discover::publicationLine(PublicationEvent::Collision, NOON, dockSetup()), QByteArray());
    EXPECT_EQ(vd::discover::publicationLine(PublicationEvent::Failure, NOON, dockSetup()), QByteArray());
    EXPECT_EQ(vd::discover::publicationLine(PublicationEvent::Lost, NOON, dockSetup()), QByteArray());
}

TEST(VdDiscoverPublicationText, ALineBeginsWithTheLocalTime)
{
    const QByteArray line = vd::discover::publicationLine(PublicationEvent::Withdrawn, NOON, dockSetup());
    EXPECT_EQ(line.left(8), NOON.toLocalTime().toString(QStringLiteral("HH:mm:ss")).toUtf8());
}

TEST(VdDiscoverPublicationText, ANameIsSafeToPrint)
{
    PublishOptions options = dockSetup();
    options.name = QStringLiteral("a  b");
    EXPECT_EQ(lineOf(PublicationEvent::Withdrawn, options), "  withdrawn  a \\x20b (_setup._tcp)\n");
}

TEST(VdDiscoverPublicationText, JsonHasAWordForEveryEvent)
{
    EXPECT_EQ(jsonOf(PublicationEvent::Established), jsonWith("established"));
    EXPECT_EQ(jsonOf(PublicationEvent::Collision), jsonWith("collision"));
    EXPECT_EQ(jsonOf(PublicationEvent::Failure), jsonWith("failure"));
    EXPECT_EQ(jsonOf(PublicationEvent::Lost), jsonWith("lost"));
    EXPECT_EQ(jsonOf(PublicationEvent::Withdrawn), jsonWith("withdrawn"));
}
