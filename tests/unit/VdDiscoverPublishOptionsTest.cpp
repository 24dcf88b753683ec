// SPDX-License-Identifier: MIT
#include "CommandLine.h"

#include <vd/ServiceDiscovery.h>

#include <gtest/gtest.h>

#include <cstring>
#include <variant>

using vd::discover::CommandLine;
using vd::discover::OutputFormat;
using vd::discover::PublishOptions;
using vd::discover::UsageError;

namespace {

const QStringList ORDINARY = {QStringLiteral("--type=_setup._tcp"), QStringLiteral("--zeph=1"),
                              QStringLiteral("--ip=192.168.1.10"), QStringLiteral("--mask=255.255.255.0")};

CommandLine readArguments(const QStringList& arguments)
{
    return vd::discover::readCommandLine(QStringList{QStringLiteral("vd-discover"), QStringLiteral("publish")}
                                         + arguments);
}

/** Options with which nothing is amiss, but for those that @p more has another value for, and all of @p more. */
QStringList ordinaryAnd(const QStringList& more)
{
    QStringList arguments = {QStringLiteral("Setup")};
    for (const QString& ordinary : ORDINARY) {
        const QString name = ordinary.section(QLatin1Char('='), 0, 0) + QLatin1Char('=');
        bool isReplaced = false;
        for (const QString& argument : more)
            isReplaced = isReplaced || argument.startsWith(name);
        if (!isReplaced)
            arguments.append(ordinary);
    }
    return arguments + more;
}

PublishOptions readWith(const QStringList& more = QStringList())
{
    const CommandLine commandLine = readArguments(ordinaryAnd(more));
    const UsageError* error = std::get_if<UsageError>(&commandLine);
    EXPECT_EQ(error ? error->message.toStdString() : "", "");
    const PublishOptions* options = std::get_if<PublishOptions>(&commandLine);
    return options ? *options : PublishOptions();
}

PublishOptions readWith(const char* more)
{
    return readWith(QString::fromUtf8(more).split(QLatin1Char(' ')));
}

/** A NAME, a type and @p more. */
PublishOptions readOnly(std::initializer_list<const char*> more)
{
    QStringList arguments = {QStringLiteral("Setup"), ORDINARY.first()};
    for (const char* argument : more)
        arguments.append(QLatin1String(argument));
    const CommandLine commandLine = readArguments(arguments);
    const PublishOptions* options = std::get_if<PublishOptions>(&commandLine);
    EXPECT_TRUE(options);
    return options ? *options : PublishOptions();
}

/** Each with a line feed. */
std::string warningsOf(const PublishOptions& options)
{
    std::string lines;
    for (const QString& warning : options.warnings)
        lines += warning.toStdString() + '\n';
    return lines;
}

std::string errorOf(const QStringList& arguments)
{
    const CommandLine commandLine = readArguments(arguments);
    const UsageError* error = std::get_if<UsageError>(&commandLine);
    return error ? error->message.toStdString() : "no error";
}

std::string errorWith(const QString& more)
{
    return errorOf(ordinaryAnd(QStringList(more)));
}

std::string errorWith(const char* more)
{
    return errorOf(ordinaryAnd(QString::fromUtf8(more).split(QLatin1Char(' '))));
}

std::string bytesOf(quint32 member)
{
    return std::string(reinterpret_cast<const char*>(&member), sizeof member);
}

std::string quotedText(const std::string& text)
{
    return '"' + text + '"';
}

} // namespace

TEST(VdDiscoverPublishOptions, WhatIsNotGivenIsEmptyZeroOrOff)
{
    const PublishOptions options = readWith();
    EXPECT_EQ(options.info.userName, QString());
    EXPECT_EQ(options.info.password, QString());
    EXPECT_EQ(options.info.deviceKind, 0u);
    EXPECT_FALSE(options.info.save);
    EXPECT_EQ(options.info.dns1 | options.info.dns2 | options.info.dns3, 0u);
    EXPECT_EQ(options.passwordFile, QString());
    EXPECT_EQ(options.timeoutMs, 0);
    EXPECT_FALSE(options.verbose);
    EXPECT_EQ(options.format, OutputFormat::Table);
}

TEST(VdDiscoverPublishOptions, EveryOptionIsRead)
{
    const PublishOptions options
        = readWith("--user admin --password-file - --kind snap --save -t 2.5 -v --format json --type=_SET._udp");
    EXPECT_EQ(options.name, QStringLiteral("Setup"));
    EXPECT_EQ(options.type, QStringLiteral("_set._udp"));
    EXPECT_EQ(options.info.userName, QStringLiteral("admin"));
    EXPECT_EQ(options.info.deviceKind, 1024u);
    EXPECT_TRUE(options.info.save);
    EXPECT_EQ(options.passwordFile, QStringLiteral("-"));
    EXPECT_EQ(options.timeoutMs, 2500);
    EXPECT_TRUE(options.verbose);
    EXPECT_EQ(options.format, OutputFormat::Json);
}

TEST(VdDiscoverPublishOptions, ACameraIsAKind)
{
    EXPECT_EQ(readWith("--kind camera").info.deviceKind, 1u);
}

TEST(VdDiscoverPublishOptions, AddressesLieInMemoryAsTheyAreWritten)
{
    const vd::SReconfigInfo info
        = readWith(
              "--ip=10.20.30.40 --mask=255.255.252.0 --kind snap --dns 1.2.3.4 --dns 5.6.7.8 --dns 223.255.255.9")
              .info;
    EXPECT_EQ(bytesOf(info.newIp), std::string("\x0a\x14\x1e\x28"));
    EXPECT_EQ(bytesOf(info.netMask), std::string("\xff\xff\xfc\x00", 4));
    EXPECT_EQ(bytesOf(info.dns1), std::string("\x01\x02\x03\x04"));
    EXPECT_EQ(bytesOf(info.dns2), std::string("\x05\x06\x07\x08"));
    EXPECT_EQ(bytesOf(info.dns3), std::string("\xdf\xff\xff\x09"));
}

TEST(VdDiscoverPublishOptions, OneNameServerLeavesTheOthersUnset)
{
    const vd::SReconfigInfo info = readWith("--kind snap --dns 1.2.3.4").info;
    EXPECT_EQ(bytesOf(info.dns1), std::string("\x01\x02\x03\x04"));
    EXPECT_EQ(info.dns2, 0u);
    EXPECT_EQ(info.dns3, 0u);
}

TEST(VdDiscoverPublishOptions, TheNumberMayBeDecimalOrHexadecimal)
{
    EXPECT_EQ(readWith("--zeph=0").info.zephValue, 0u);
    EXPECT_EQ(readWith("--zeph=16777215").info.zephValue, 0xffffffu);
    EXPECT_EQ(readWith("--zeph=0x0a0B0c").info.zephValue, 0x0a0b0cu);
    EXPECT_EQ(readWith("--zeph=0XFFFFFF").info.zephValue, 0xffffffu);
}

TEST(VdDiscoverPublishOptions, ANumberThatDoesNotFitOrCouldMeanTwoThingsIsRefused)
{
    for (const char* value : {"16777216", "0x1000000", "-1", "+1", "010203", "0x", "abc", "1.0", "4294967297",
                              "99999999999", "0x100000001", "", "1 "}) {
        EXPECT_EQ(errorWith(QStringLiteral("--zeph=") + QLatin1String(value)),
                  "--zeph takes a whole number from 0 to 16777215, or from 0x0 to 0xffffff, not "
                      + quotedText(value));
    }
}

TEST(VdDiscoverPublishOptions, ATypeIsNeeded)
{
    EXPECT_EQ(errorOf({QStringLiteral("Setup")}),
              "publish needs --type, such as --type _setup._tcp (see vd-discover publish --help)");
}

TEST(VdDiscoverPublishOptions, NothingIsWarnedOfWhereNothingIsAmiss)
{
    EXPECT_EQ(warningsOf(readWith()), "");
    EXPECT_EQ(warningsOf(readWith("--kind snap --dns 1.2.3.4")), "");
}

TEST(VdDiscoverPublishOptions, WhatTheRecordHoldsZerosForIsWarnedOfInOneLine)
{
    const std::string zeph = "without --zeph the record is meant for the device with the number 0";
    const std::string ip = "without --ip the record tells the device to take 0.0.0.0";
    const std::string mask = "without --mask the record tells the device to take the net mask 0.0.0.0";
    const PublishOptions options = readOnly({});
    EXPECT_EQ(options.info.zephValue | options.info.newIp | options.info.netMask, 0u);
    EXPECT_EQ(warningsOf(options), zeph + "; " + ip + "; " + mask + '\n');
    EXPECT_EQ(warningsOf(readOnly({"--ip=10.0.0.1", "--mask=255.0.0.0"})), zeph + '\n');
    EXPECT_EQ(warningsOf(readOnly({"--zeph=0", "--mask=255.0.0.0"})), ip + '\n');
    EXPECT_EQ(warningsOf(readOnly({"--zeph=0", "--ip=10.0.0.0"})), mask + '\n');
}

TEST(VdDiscoverPublishOptions, ANameIsNeeded)
{
    EXPECT_EQ(errorOf(ORDINARY), "publish needs a NAME for the service, as in vd-discover publish Setup "
                                 "(see vd-discover publish --help)");
}

TEST(VdDiscoverPublishOptions, OneNameIsEnough)
{
    EXPECT_EQ(errorOf({QStringLiteral("Dock"), QStringLiteral("setup")}),
              "publish takes one NAME, and here is a second one, \"setup\"; put a name with blanks in quotes");
}

TEST(VdDiscoverPublishOptions, ANameMayBeThatOfACommandAndBeginWithADash)
{
    EXPECT_EQ(std::get<PublishOptions>(readArguments(QStringList(QStringLiteral("publish")) + ORDINARY)).name,
              QStringLiteral("publish"));
    EXPECT_EQ(std::get<PublishOptions>(
                  readArguments(ORDINARY + QStringList{QStringLiteral("--"), QStringLiteral("-x")}))
                  .name,
              QStringLiteral("-x"));
}

TEST(VdDiscoverPublishOptions, ANameIsMeasuredInBytes)
{
    const QString longest = QString(31, QChar(0xfc)) + QLatin1Char('a');
    EXPECT_EQ(std::get<PublishOptions>(readArguments(QStringList(longest) + ORDINARY)).name, longest);
    const QString tooLong = QString(32, QChar(0xfc));
    EXPECT_EQ(errorOf(QStringList(tooLong) + ORDINARY),
              "NAME takes 1 to 63 bytes of UTF-8 text without control characters, not "
                  + quotedText(tooLong.toStdString()));
}

TEST(VdDiscoverPublishOptions, ANameThatIsEmptyOrCannotBeShownIsRefused)
{
    const std::string rule = "NAME takes 1 to 63 bytes of UTF-8 text without control characters, not ";
    EXPECT_EQ(errorOf(QStringList(QString()) + ORDINARY), rule + "\"\"");
    EXPECT_EQ(errorOf(QStringList(QStringLiteral("a\nb")) + ORDINARY), rule + "\"a\\x0ab\"");
    EXPECT_EQ(errorOf(QStringList(QString(QChar(0x202e))) + ORDINARY), rule + "\"\\u202e\"");
    EXPECT_EQ(errorOf(QStringList(QString(QChar(0xfffd))) + ORDINARY), rule + "\"\xef\xbf\xbd\"");
}

TEST(VdDiscoverPublishOptions, ATypeThatIsNoneIsRefused)
{
    for (const char* type :
         {"_http", "http._tcp", "_setup._tcp.", "_setup._sctp", "", "_a._tcp", "_a._sub._setup._tcp"}) {
        EXPECT_EQ(errorWith(QStringLiteral("--type=") + QLatin1String(type)),
                  "--type takes a service type such as _setup._tcp, which begins with _ and at least two "
                  "characters behind it, and ends in ._tcp or ._udp, not "
                      + quotedText(type));
    }
}

TEST(VdDiscoverPublishOptions, AnAddressHasFourDecimalNumbersAndNothingElse)
{
    for (const char* address :
         {"",          "1",         "10.0.0",     "10.0.0.1.",   ".10.0.0.1",   "10..0.1",        "10.0.0.1.1",
          "010.0.0.1", "10.0.0.01", "10.0.0.256", "10.0.0.1000", " 10.0.0.1",   "10.0.0.1 ",      "10.0.0.0x1",
          "10.0.0.-1", "+10.0.0.1", "fe80::1",    "host",        "10.0.0.1/24", "\xd9\xa1.0.0.1", "10.0.0.1\n"}) {
        const QString text = QString::fromUtf8(address);
        const std::string shown = std::strcmp(address, "10.0.0.1\n") == 0 ? "10.0.0.1\\x0a" : address;
        EXPECT_EQ(errorWith(QStringLiteral("--ip=") + text),
                  "--ip takes the IPv4 address of a host as four numbers, such as 192.168.1.10, not "
                      + quotedText(shown));
    }
}

TEST(VdDiscoverPublishOptions, AnAddressThatNoHostCanHaveIsRefused)
{
    for (const char* address :
         {"0.0.0.0", "0.1.2.3", "127.0.0.1", "224.0.0.251", "240.0.0.1", "255.255.255.255"}) {
        EXPECT_EQ(errorWith(QStringLiteral("--ip=") + QLatin1String(address)),
                  "--ip takes the IPv4 address of a host as four numbers, such as 192.168.1.10, not "
                      + quotedText(address));
        EXPECT_EQ(errorWith((std::string("--kind snap --dns ") + address).c_str()),
                  "--dns takes the IPv4 address of a host as four numbers, such as 192.168.1.10, not "
                      + quotedText(address));
    }
    EXPECT_EQ(bytesOf(readWith("--ip=1.0.0.1").info.newIp), std::string("\x01\0\0\x01", 4));
}

TEST(VdDiscoverPublishOptions, AnAddressOfTheNetworkOrOfAllItsHostsIsWarnedOf)
{
    const auto warning = [](const std::string& address, const std::string& whose) {
        return "with this --mask, --ip " + address + " is the address of " + whose + ", not that of a host\n";
    };
    EXPECT_EQ(warningsOf(readWith("--ip=192.168.1.0")), warning("192.168.1.0", "the network"));
    EXPECT_EQ(warningsOf(readWith("--ip=192.168.1.255")), warning("192.168.1.255", "all the network's hosts"));
    EXPECT_EQ(warningsOf(readWith("--ip=10.0.3.255 --mask=255.255.252.0")),
              warning("10.0.3.255", "all the network's hosts"));
    EXPECT_EQ(warningsOf(readWith("--ip=10.0.1.255 --mask=255.255.252.0")), "");
    EXPECT_EQ(warningsOf(readWith("--ip=10.0.0.0 --mask=255.255.255.254")), "");
    EXPECT_EQ(bytesOf(readWith("--ip=192.168.1.255").info.newIp), std::string("\xc0\xa8\x01\xff"));
}

TEST(VdDiscoverPublishOptions, AMaskHasItsOnesInFront)
{
    for (const char* mask : {"255.0.255.0", "0.0.0.255", "254.255.255.0", "24", "", "255.255.255.00", "/24"}) {
        EXPECT_EQ(errorWith(QStringLiteral("--mask=") + QLatin1String(mask)),
                  "--mask takes a net mask with its ones in front, such as 255.255.255.0, not "
                      + quotedText(mask));
    }
    EXPECT_EQ(bytesOf(readWith("--mask=128.0.0.0").info.netMask), std::string("\x80\0\0\0", 4));
}

TEST(VdDiscoverPublishOptions, AMaskOfZerosOrOfOnesAloneIsWarnedOf)
{
    EXPECT_EQ(warningsOf(readWith("--mask=0.0.0.0")),
              "with --mask 0.0.0.0 the device takes every address for one of its own network\n");
    EXPECT_EQ(warningsOf(readWith("--mask=255.255.255.255")),
              "with --mask 255.255.255.255 the device is alone in its network\n");
    EXPECT_EQ(bytesOf(readWith("--mask=255.255.255.255").info.netMask), std::string("\xff\xff\xff\xff"));
}

TEST(VdDiscoverPublishOptions, MoreThanThreeNameServersAreRefused)
{
    EXPECT_EQ(errorWith("--kind snap --dns 1.1.1.1 --dns 1.1.1.2 --dns 1.1.1.3 --dns 1.1.1.4"),
              "--dns may be given three times, not more; leave some out");
}

TEST(VdDiscoverPublishOptions, NameServersThatAreNotPublishedAreWarnedOfAndLeftOut)
{
    for (const char* kind : {"", "--kind camera "}) {
        const PublishOptions options = readWith((std::string(kind) + "--dns 1.1.1.1 --dns 1.1.1.2").c_str());
        EXPECT_EQ(warningsOf(options), "no device but Snap Server storage is told of name servers, so without "
                                       "--kind snap the record holds none\n");
        EXPECT_EQ(options.info.dns1 | options.info.dns2, 0u);
    }
    EXPECT_NE(errorWith("--dns 127.0.0.1"), "no error");
}

TEST(VdDiscoverPublishOptions, AnUnknownKindIsRefused)
{
    for (const char* kind : {"", "Camera", "1024"}) {
        EXPECT_EQ(errorWith(QStringLiteral("--kind=") + QLatin1String(kind)),
                  "--kind takes camera or snap, not " + quotedText(kind));
    }
}

TEST(VdDiscoverPublishOptions, AUserNameFitsItsPlaceInTheRecord)
{
    // A string of 255 bytes holds "USER.vandrel.com=" too.
    const QString longest(238, QLatin1Char('u'));
    EXPECT_EQ(readWith(QStringList(QStringLiteral("--user=") + longest)).info.userName, longest);
    const QString tooLong(239, QLatin1Char('u'));
    EXPECT_EQ(errorWith(QStringLiteral("--user=") + tooLong),
              "--user takes up to 238 bytes of UTF-8 text without control characters, not "
                  + quotedText(tooLong.toStdString()));
    EXPECT_NE(errorWith(QStringLiteral("--user=") + QString(120, QChar(0xfc))), "no error");
}

TEST(VdDiscoverPublishOptions, AUserNameThatCannotBeShownIsRefused)
{
    EXPECT_EQ(errorWith(QStringLiteral("--user=a\tb")),
              "--user takes up to 238 bytes of UTF-8 text without control characters, not \"a\\x09b\"");
}

TEST(VdDiscoverPublishOptions, AnOptionThatIsGivenTwiceIsRefused)
{
    for (const char* option :
         {"type", "zeph", "ip", "mask", "user", "password-file", "kind", "timeout", "format"}) {
        const QString argument = QStringLiteral("--%1=").arg(QLatin1String(option));
        QStringList arguments = ordinaryAnd({});
        QString value = QStringLiteral("x");
        for (const QString& ordinary : ORDINARY) {
            if (ordinary.startsWith(argument))
                value = ordinary.mid(argument.size());
        }
        arguments.removeAll(argument + value);
        arguments += QStringList{argument + value, argument + value};
        EXPECT_EQ(errorOf(arguments), std::string("--") + option + " is given more than once; give it once");
    }
}

TEST(VdDiscoverPublishOptions, AnEmptyNameOfAFileIsRefused)
{
    EXPECT_EQ(errorWith("--password-file="),
              "--password-file takes the name of a file, or - for standard input, not \"\"");
}

TEST(VdDiscoverPublishOptions, APasswordOnTheCommandLineIsRefusedAndNotRepeated)
{
    const std::string error = "there is no --password, as every user of this machine can read a command line; use "
                              "--password-file FILE";
    EXPECT_EQ(errorWith("--password=secret"), error);
    EXPECT_EQ(errorWith("--password secret"), error);
}

TEST(VdDiscoverPublishOptions, ATimeoutIsCheckedAsThatOfBrowse)
{
    EXPECT_EQ(errorWith("--timeout=0"),
              "--timeout takes a number of seconds above 0 and up to 2000000, such as 5 or 0.5, not \"0\"");
}

TEST(VdDiscoverPublishOptions, AnUnknownFormatIsRefused)
{
    EXPECT_EQ(errorWith("--format=xml"), "--format takes table or json, not \"xml\"");
}
