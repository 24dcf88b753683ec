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

QString readType(const QCommandLineParser& parser)
{
    const QString option = QStringLiteral("type");
    if (!parser.isSet(option)) {
        throw UsageError{
            QStringLiteral("publish needs --type, such as --type _setup._tcp (see vd-discover publish "
                           "--help)")};
    }
    const QString text = valueOf(parser, option);
    const auto type = serviceType(text);
    if (!type) {
        throw UsageError{QStringLiteral("--type takes a service type such as _setup._tcp, ") + serviceTypeRule()
                         + QStringLiteral(", not ") + quoted(text)};
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
    const quint32 hostPart = ~mask.value_or(0);
    if (!mask || (hostPart & (hostPart + 1)) != 0) {
        throw UsageError{QStringLiteral("--mask takes a net mask with its ones in front, such as 255.255.255.0, "
                                        "not ")
                         + quoted(text)};
    }
    return *mask;
}

QString warningOfMask(quint32 mask)
{
    if (mask == 0)
        return QStringLiteral("with --mask 0.0.0.0 the device takes every address for one of its own network");
    if (mask == ~quint32(0))
        return QStringLiteral("with --mask 255.255.255.255 the device is alone in its network");
    return QString();
}

QString warningOfHostPart(const QString& ip, quint32 address, quint32 mask)
{
    const quint32 hostPart = ~mask;
    // A network of two has neither an address of its own nor one for all, let alone one of a single host.
    if (mask == 0 || hostPart <= 1)
        return QString();
    const auto isOf = [&ip](const QString& whose) {
        return QStringLiteral("with this --mask, --ip %1 is the address of %2, not that of a host").arg(ip, whose);
    };
    if ((address & hostPart) == 0)
        return isOf(QStringLiteral("the network"));
    if ((address & hostPart) == hostPart)
        return isOf(QStringLiteral("all the network's hosts"));
    return QString();
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

void readNameServers(const QCommandLineParser& parser, PublishOptions& options)
{
    const QString option = QStringLiteral("dns");
    const QStringList texts = parser.values(option);
    if (texts.size() > MOST_NAME_SERVERS)
        throw UsageError{QStringLiteral("--dns may be given three times, not more; leave some out")};
    SReconfigInfo& info = options.info;
    const bool isTold = info.deviceKind == DEVICE_KIND_SNAP_SERVER;
    if (!texts.isEmpty() && !isTold) {
        options.warnings.append(QStringLiteral("no device but Snap Server storage is told of name servers, so "
                                               "without --kind snap the record holds none"));
    }
    quint32* const servers[] = {&info.dns1, &info.dns2, &info.dns3};
    for (int i = 0; i < texts.size(); ++i) {
        const quint32 address = readAddress(option, texts.at(i));
        *servers[i] = isTold ? qToBigEndian(address) : 0;
    }
}

/** One line on what the record holds zeros for, and what these tell a device. */
QString warningOfZeros(const QCommandLineParser& parser)
{
    const struct
    {
        const char* option;
        const char* meaning;
    } all[] = {
        {"zeph", "is meant for the device with the number 0"},
        {"ip", "tells the device to take 0.0.0.0"},
        {"mask", "tells the device to take the net mask 0.0.0.0"},
    };
    QStringList parts;
    for (const auto& one : all) {
        if (!parser.isSet(QLatin1String(one.option))) {
            parts.append(QStringLiteral("without --%1 the record %2")
                             .arg(QLatin1String(one.option), QLatin1String(one.meaning)));
        }
    }
    return parts.join(QStringLiteral("; "));
}

void readAddresses(const QCommandLineParser& parser, PublishOptions& options)
{
    const QString ip = valueOf(parser, QStringLiteral("ip"));
    const QString mask = valueOf(parser, QStringLiteral("mask"));
    const bool hasIp = parser.isSet(QStringLiteral("ip"));
    const bool hasMask = parser.isSet(QStringLiteral("mask"));
    const quint32 address = hasIp ? readAddress(QStringLiteral("ip"), ip) : 0;
    const quint32 netMask = hasMask ? readMask(mask) : 0;
    // The record holds the bytes as they lie in memory.
    options.info.newIp = qToBigEndian(address);
    options.info.netMask = qToBigEndian(netMask);
    if (hasMask)
        options.warnings.append(warningOfMask(netMask));
    if (hasIp && hasMask)
        options.warnings.append(warningOfHostPart(ip, address, netMask));
}

void readInfo(const QCommandLineParser& parser, PublishOptions& options)
{
    options.warnings.append(warningOfZeros(parser));
    if (parser.isSet(QStringLiteral("zeph")))
        options.info.zephValue = readZeph(valueOf(parser, QStringLiteral("zeph")));
    readAddresses(parser, options);
    options.info.userName = readUser(valueOf(parser, QStringLiteral("user")));
    if (parser.isSet(QStringLiteral("kind")))
        options.info.deviceKind = readKind(valueOf(parser, QStringLiteral("kind")));
    readNameServers(parser, options);
    options.info.save = parser.isSet(QStringLiteral("save"));
    options.warnings.removeAll(QString());
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
    options.type = readType(parser);
    readInfo(parser, options);
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
