// SPDX-License-Identifier: MIT
#include "BrowseOptions.h"
#include "HelpText.h"

#include <gtest/gtest.h>

using vd::discover::CommandLine;
using vd::discover::OutputFormat;

namespace {

CommandLine read(const QStringList& arguments)
{
    return vd::discover::readCommandLine(QStringList(QStringLiteral("vd-discover")) + arguments);
}

CommandLine read(const char* arguments)
{
    return read(QString::fromUtf8(arguments).split(QLatin1Char(' '), Qt::SkipEmptyParts));
}

std::string errorOf(const char* arguments)
{
    const CommandLine commandLine = read(arguments);
    EXPECT_EQ(commandLine.action, CommandLine::ReportError);
    return commandLine.error.toStdString();
}

const QStringList WEB_TYPES = {QStringLiteral("_http._tcp"), QStringLiteral("_https._tcp")};

std::string timeoutError(const std::string& value)
{
    return "--timeout takes a number of seconds above 0 and up to 2000000, such as 5 or 0.5, not \"" + value
           + "\"";
}

std::string countError(const std::string& value)
{
    return "--count takes a whole number from 1, such as 3, not \"" + value + "\"";
}

std::string typeError(const std::string& value)
{
    return "\"" + value
           + "\" is not a service type: give one such as _http._tcp, which begins with _ and ends in ._tcp or "
             "._udp";
}

} // namespace

TEST(VdDiscoverCommandLine, WithoutArgumentsBrowsesBothWebTypesForFiveSeconds)
{
    const CommandLine commandLine = read("");
    EXPECT_EQ(commandLine.action, CommandLine::Browse);
    EXPECT_EQ(commandLine.options.types, WEB_TYPES);
    EXPECT_EQ(commandLine.options.timeoutMs, 5000);
}

TEST(VdDiscoverCommandLine, WithoutArgumentsEveryOptionIsOff)
{
    const vd::discover::BrowseOptions options = read("").options;
    EXPECT_FALSE(options.follow);
    EXPECT_EQ(options.count, 0);
    EXPECT_FALSE(options.requery);
    EXPECT_FALSE(options.longLived);
    EXPECT_FALSE(options.verbose);
    EXPECT_EQ(options.format, OutputFormat::Table);
}

TEST(VdDiscoverCommandLine, TheCommandsNameMayBeGiven)
{
    EXPECT_EQ(read("browse").options.types, WEB_TYPES);
    EXPECT_EQ(read("browse _https._tcp").options.types, QStringList(QStringLiteral("_https._tcp")));
}

TEST(VdDiscoverCommandLine, OptionsMayStandBeforeTheCommandsName)
{
    const CommandLine commandLine = read("--follow browse _http._tcp");
    EXPECT_EQ(commandLine.action, CommandLine::Browse);
    EXPECT_TRUE(commandLine.options.follow);
}

TEST(VdDiscoverCommandLine, EveryShortOptionIsRead)
{
    const vd::discover::BrowseOptions options = read("-t 2.5 -n 3 -q -l -v").options;
    EXPECT_EQ(options.timeoutMs, 2500);
    EXPECT_EQ(options.count, 3);
    EXPECT_TRUE(options.requery);
    EXPECT_TRUE(options.longLived);
    EXPECT_TRUE(options.verbose);
    EXPECT_FALSE(options.follow);
}

TEST(VdDiscoverCommandLine, EveryLongOptionIsRead)
{
    const vd::discover::BrowseOptions options
        = read("--follow --count=3 --requery --long-lived --format json --verbose").options;
    EXPECT_TRUE(options.follow);
    EXPECT_EQ(options.count, 3);
    EXPECT_TRUE(options.requery);
    EXPECT_TRUE(options.longLived);
    EXPECT_TRUE(options.verbose);
    EXPECT_EQ(options.format, OutputFormat::Json);
}

TEST(VdDiscoverCommandLine, ShortOptionsMayStandTogether)
{
    const vd::discover::BrowseOptions options = read("-fqln7").options;
    EXPECT_TRUE(options.follow && options.requery && options.longLived);
    EXPECT_EQ(options.count, 7);
}

TEST(VdDiscoverCommandLine, TheFormatMayBeSaidToBeATable)
{
    EXPECT_EQ(read("--format table").options.format, OutputFormat::Table);
}

TEST(VdDiscoverCommandLine, AShortTimeoutIsRoundedUpToAMillisecond)
{
    EXPECT_EQ(read("--timeout 0.0001").options.timeoutMs, 1);
}

TEST(VdDiscoverCommandLine, TheLongestTimeoutIsTaken)
{
    EXPECT_EQ(read("--timeout 2000000").options.timeoutMs, 2000000000);
}

TEST(VdDiscoverCommandLine, ATimeoutThatIsNoPositiveNumberIsRefused)
{
    for (const char* value : {"0", "-1", "abc", "nan", "inf", "5s", "2000000.1", "1e400"})
        EXPECT_EQ(errorOf((std::string("--timeout=") + value).c_str()), timeoutError(value));
    EXPECT_EQ(errorOf("--timeout="), timeoutError(""));
}

TEST(VdDiscoverCommandLine, ACountThatIsNoPositiveNumberIsRefused)
{
    for (const char* value : {"0", "-1", "abc", "1.5", "99999999999"})
        EXPECT_EQ(errorOf((std::string("--count=") + value).c_str()), countError(value));
    EXPECT_EQ(errorOf("-n x"), countError("x"));
}

TEST(VdDiscoverCommandLine, AnUnknownFormatIsRefused)
{
    EXPECT_EQ(errorOf("--format xml"), "--format takes table or json, not \"xml\"");
}

TEST(VdDiscoverCommandLine, ATimeoutAndFollowExcludeEachOther)
{
    EXPECT_EQ(errorOf("--follow -t 3"),
              "--timeout and --follow exclude each other: --follow runs until it is interrupted; "
              "leave one of them out");
}

TEST(VdDiscoverCommandLine, AnUnknownOptionIsNamed)
{
    EXPECT_EQ(errorOf("--nonsense"), "unknown option \"--nonsense\" (see vd-discover --help)");
    EXPECT_EQ(errorOf("-x"), "unknown option \"-x\" (see vd-discover --help)");
}

TEST(VdDiscoverCommandLine, AnOptionWithoutItsValueIsNamed)
{
    EXPECT_EQ(errorOf("--count"), "missing value after '--count' (see vd-discover --help)");
}

TEST(VdDiscoverCommandLine, AWordThatIsNoCommandAndNoTypeIsRefused)
{
    for (const char* word : {"publish", "responder", "http._tcp", "help"}) {
        EXPECT_EQ(errorOf(word),
                  std::string("\"") + word
                      + "\" is neither a command nor a service type: the command is browse, and a type looks like "
                        "_http._tcp (see vd-discover --help)");
    }
}

TEST(VdDiscoverCommandLine, AWordThatIsNoServiceTypeIsRefused)
{
    for (const char* word :
         {"_http", "_http._tcp.", "_http._sctp", "_._tcp", "_a._http._tcp", "_http_tcp", "_t\u00fcr._tcp"})
        EXPECT_EQ(errorOf(word), typeError(word));
}

TEST(VdDiscoverCommandLine, ATypeWithABlankIsRefused)
{
    EXPECT_EQ(read(QStringList(QStringLiteral("_a b._tcp"))).error.toStdString(), typeError("_a b._tcp"));
}

TEST(VdDiscoverCommandLine, ATypeAfterAValidOneIsCheckedToo)
{
    EXPECT_EQ(errorOf("_http._tcp browse"), typeError("browse"));
}

TEST(VdDiscoverCommandLine, ATypesLabelMayBeAsLongAsDnsAllows)
{
    const QString longest = QLatin1Char('_') + QString(62, QLatin1Char('a')) + QStringLiteral("._udp");
    EXPECT_EQ(read(QStringList(longest)).options.types, QStringList(longest));
    const QString tooLong = QLatin1Char('_') + QString(63, QLatin1Char('a')) + QStringLiteral("._udp");
    EXPECT_EQ(read(QStringList(tooLong)).action, CommandLine::ReportError);
}

TEST(VdDiscoverCommandLine, TypesAreReadWithoutRegardToCaseAndOnceOnly)
{
    EXPECT_EQ(read("_HTTP._tcp _ipp._tcp _http._TCP").options.types,
              (QStringList{QStringLiteral("_http._tcp"), QStringLiteral("_ipp._tcp")}));
}

TEST(VdDiscoverCommandLine, AnErrorIsOnePrintableLineWhateverWasTyped)
{
    EXPECT_EQ(errorOf("--count=\x1b[31m\n"), countError("\\x1b[31m\\x0a"));
    EXPECT_EQ(errorOf("_\x1b]0;x._tcp"), typeError("_\\x1b]0;x._tcp"));
    EXPECT_EQ(errorOf("--a\nb"), "unknown option \"--a\\x0ab\" (see vd-discover --help)");
}

TEST(VdDiscoverCommandLine, HelpAndVersionAreAnsweredWhateverElseIsThere)
{
    EXPECT_EQ(read("--help").action, CommandLine::ShowHelp);
    EXPECT_EQ(read("publish -h --count 0").action, CommandLine::ShowHelp);
    EXPECT_EQ(read("browse --version").action, CommandLine::ShowVersion);
}

TEST(VdDiscoverCommandLine, TheHelpTellsOfEveryOption)
{
    const QByteArray help = vd::discover::helpText();
    for (const char* option :
         {"-f, --follow", "-t, --timeout SECONDS", "-n, --count N", "-q, --requery", "-l, --long-lived",
          "--format FORMAT", "-v, --verbose", "-h, --help", "--version", "[TYPE...]"})
        EXPECT_TRUE(help.contains(option)) << option;
}

TEST(VdDiscoverCommandLine, TheHelpFitsAnOrdinaryTerminal)
{
    const auto lines = vd::discover::helpText().split('\n');
    for (const QByteArray& line : lines)
        EXPECT_LE(line.size(), 80) << line.constData();
}
