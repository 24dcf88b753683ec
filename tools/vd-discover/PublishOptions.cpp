// SPDX-License-Identifier: MIT
#include "PublishOptions.h"

#include <vd/AvahiServiceDiscovery.h>

#include <QtCore/QCommandLineParser>
#include <QtCore/QtEndian>

#include <cstring>

namespace vd::discover {

namespace {

const int LONGEST_NAME = 63;
const int LONGEST_TXT_STRING = 255;
const quint32 HIGHEST_ZEPH = 0xffffff;
const int MOST_NAME_SERVERS = 3;

// A slip of the hand must not send a device to an address that nobody meant.
QString valueOf(const QCommandLineParser& parser, const QString& option)
{
    const QStringList values = parser.values(option);
    if (values.size() > 1)
        throw UsageError{QStringLiteral("--%1 is given more than once; give it once").arg(option)};
    return values.isEmpty() ? QString() : values.first();
}

QString neededValueOf(const QCommandLineParser& parser, const QString& option, const char* example)
{
    if (!parser.isSet(option)) {
        throw UsageError{QStringLiteral("publish needs --%1, such as --%1 %2 (see vd-discover publish --help)")
                             .arg(option, QLatin1String(example))};
    }
    return valueOf(parser, option);
}

QString readName(const QStringList& words)
{
    if (words.isEmpty()) {
        throw UsageError{QStringLiteral("publish needs a NAME for the service, as in vd-discover publish Setup "
                                        "(see vd-discover publish --help)")};
    }
    if (words.size() > 1) {
        throw UsageError{QStringLiteral("publish takes one NAME, and here is a second one, %1; put a name with "
                                        "blanks in quotes")
                             .arg(quoted(words.at(1)))};
    }
    const QString& name = words.first();
    const auto size = name.toUtf8().size();
    if (size < 1 || size > LONGEST_NAME || !isPlainText(name)) {
        throw UsageError{QStringLiteral("NAME takes 1 to 63 bytes of UTF-8 text without control characters, not ")
                         + quoted(name)};
    }
    return name;
}

QString readType(const QString& text)
{
    const auto type = serviceType(text);
    if (!type) {
        throw UsageError{QStringLiteral("--type takes a service type such as _setup._tcp, which begins with _ and "
                                        "ends in ._tcp or ._udp, not ")
                         + quoted(text)};
    }
    return *type;
}

QString readUser(const QString& text)
{
    const int room = roomForValue("USER");
    if (text.toUtf8().size() > room || !isPlainText(text)) {
        throw UsageError{
            QStringLiteral("--user takes up to %1 bytes of UTF-8 text without control characters, not ").arg(room)
            + quoted(text)};
    }
    return text;
}

// Neither "this host", loopback, multicast, reserved nor broadcast.
bool isUnicast(quint32 address)
{
    const quint32 network = address >> 24;
    return network != 0 && network != 127 && network < 224;
}

quint32 readAddress(const QString& option, const QString& text)
{
    const auto address = ipv4Address(text);
    if (!address || !isUnicast(*address)) {
        throw UsageError{QStringLiteral("--%1 takes the IPv4 address of a host as four numbers, such as "
                                        "192.168.1.10, not %2")
                             .arg(option, quoted(text))};
    }
    return *address;
}

quint32 readMask(const QString& text)
{
    const auto mask = ipv4Address(text);
    // Ones in front and zeros behind, and at least one of each: else there would be no neighbours.
    const quint32 hostPart = ~mask.value_or(0);
    if (!mask || *mask == 0 || hostPart == 0 || (hostPart & (hostPart + 1)) != 0) {
        throw UsageError{QStringLiteral("--mask takes a net mask from 128.0.0.0 to 255.255.255.254, such as "
                                        "255.255.255.0, not ")
                         + quoted(text)};
    }
    return *mask;
}

void checkHostPart(const QString& text, quint32 address, quint32 mask)
{
    const quint32 hostPart = ~mask;
    // A network of two has neither an address of its own nor one for all.
    if (hostPart == 1)
        return;
    if ((address & hostPart) == 0 || (address & hostPart) == hostPart) {
        throw UsageError{
            QStringLiteral("--ip %1 is not a host's address but, with this --mask, that of the network "
                           "or of all its hosts; give another one")
                .arg(text)};
    }
}

quint32 readZeph(const QString& text)
{
    const auto zeph = wholeNumber(text, HIGHEST_ZEPH);
    if (!zeph) {
        throw UsageError{QStringLiteral("--zeph takes a whole number from 0 to 16777215, or from 0x0 to 0xffffff, "
                                        "not ")
                         + quoted(text)};
    }
    return *zeph;
}

quint32 readKind(const QString& text)
{
    if (text == QLatin1String("camera"))
        return DEVICE_KIND_VANDREL;
    if (text == QLatin1String("snap"))
        return DEVICE_KIND_SNAP_SERVER;
    throw UsageError{QStringLiteral("--kind takes camera or snap, not ") + quoted(text)};
}

void readNameServers(const QCommandLineParser& parser, SReconfigInfo& info)
{
    const QString option = QStringLiteral("dns");
    const QStringList texts = parser.values(option);
    if (texts.size() > MOST_NAME_SERVERS)
        throw UsageError{QStringLiteral("--dns may be given three times, not more; leave some out")};
    if (!texts.isEmpty() && info.deviceKind != DEVICE_KIND_SNAP_SERVER) {
        throw UsageError{
            QStringLiteral("--dns needs --kind snap, as name servers are published for storage servers "
                           "only; give both or leave --dns out")};
    }
    quint32* const servers[] = {&info.dns1, &info.dns2, &info.dns3};
    for (int i = 0; i < texts.size(); ++i)
        *servers[i] = qToBigEndian(readAddress(option, texts.at(i)));
}

SReconfigInfo readInfo(const QCommandLineParser& parser)
{
    const QString zeph = neededValueOf(parser, QStringLiteral("zeph"), "0x0a0b0c");
    const QString ip = neededValueOf(parser, QStringLiteral("ip"), "192.168.1.10");
    const QString mask = neededValueOf(parser, QStringLiteral("mask"), "255.255.255.0");

    SReconfigInfo info = SReconfigInfo();
    info.zephValue = readZeph(zeph);
    const quint32 address = readAddress(QStringLiteral("ip"), ip);
    const quint32 netMask = readMask(mask);
    checkHostPart(ip, address, netMask);
    // The record holds the bytes as they lie in memory.
    info.newIp = qToBigEndian(address);
    info.netMask = qToBigEndian(netMask);
    info.userName = readUser(valueOf(parser, QStringLiteral("user")));
    if (parser.isSet(QStringLiteral("kind")))
        info.deviceKind = readKind(valueOf(parser, QStringLiteral("kind")));
    readNameServers(parser, info);
    info.save = parser.isSet(QStringLiteral("save"));
    return info;
}

QString readPasswordFile(const QCommandLineParser& parser)
{
    const QString file = valueOf(parser, QStringLiteral("password-file"));
    if (file.isEmpty() && parser.isSet(QStringLiteral("password-file"))) {
        throw UsageError{QStringLiteral("--password-file takes the name of a file, or - for standard input, "
                                        "not \"\"")};
    }
    return file;
}

} // namespace

QList<QCommandLineOption> publishOptionList()
{
    return {
        valued("type", "TYPE"),
        valued("zeph", "N"),
        valued("ip", "A.B.C.D"),
        valued("mask", "A.B.C.D"),
        valued("user", "NAME"),
        valued("password-file", "FILE"),
        valued("kind", "KIND"),
        valued("dns", "A.B.C.D"),
        flag("save"),
        valued("timeout", "SECONDS", "t"),
        valued("format", "FORMAT"),
        flag("verbose", "v"),
    };
}

PublishOptions readPublishOptions(const QCommandLineParser& parser, const QStringList& words)
{
    PublishOptions options;
    options.name = readName(words);
    options.type = readType(neededValueOf(parser, QStringLiteral("type"), "_setup._tcp"));
    options.info = readInfo(parser);
    options.passwordFile = readPasswordFile(parser);
    if (parser.isSet(QStringLiteral("timeout")))
        options.timeoutMs = readTimeout(valueOf(parser, QStringLiteral("timeout")));
    if (parser.isSet(QStringLiteral("format")))
        options.format = readFormat(valueOf(parser, QStringLiteral("format")));
    options.verbose = parser.isSet(QStringLiteral("verbose"));
    return options;
}

int roomForValue(const char* label)
{
    // The key is the label, a dot and the domain; an equals sign parts it from the value.
    return LONGEST_TXT_STRING - static_cast<int>(std::strlen(label) + 1 + std::strlen(VENDOR_TXT_DOMAIN) + 1);
}

} // namespace vd::discover
