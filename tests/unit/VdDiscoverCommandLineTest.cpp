// SPDX-License-Identifier: MIT
#include "CommandLine.h"
#include "HelpText.h"

#include <QtCore/QCommandLineOption>
#include <QtCore/QMap>

#include <gtest/gtest.h>

using vd::discover::BrowseOptions;
using vd::discover::CommandLine;
using vd::discover::OutputFormat;
using vd::discover::ResponderOptions;
using vd::discover::TextToPrint;
using vd::discover::UsageError;

namespace {

CommandLine read(const QStringList& arguments)
{
    return vd::discover::readCommandLine(QStringList(QStringLiteral("vd-discover")) + arguments);
}

CommandLine read(const char* arguments)
{
    return read(QString::fromUtf8(arguments).split(QLatin1Char(' '), Qt::SkipEmptyParts));
}

template <class Arguments>
BrowseOptions readBrowse(const Arguments& arguments)
{
    const CommandLine commandLine = read(arguments);
    EXPECT_TRUE(std::holds_alternative<BrowseOptions>(commandLine));
    const BrowseOptions* options = std::get_if<BrowseOptions>(&commandLine);
    return options ? *options : BrowseOptions();
}

template <class Arguments>
std::string errorOf(const Arguments& arguments)
{
    const CommandLine commandLine = read(arguments);
    const UsageError* error = std::get_if<UsageError>(&commandLine);
    return error ? error->message.toStdString() : "no error";
}

std::string textOf(const char* arguments)
{
    const CommandLine commandLine = read(arguments);
    const TextToPrint* wanted = std::get_if<TextToPrint>(&commandLine);
    return wanted ? wanted->text.toStdString() : "no text";
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
           + "\" is not a service type: give one such as _http._tcp, which begins with _ and at least two "
             "characters behind it, and ends in ._tcp or ._udp";
}

} // namespace

TEST(VdDiscoverCommandLine, WithoutArgumentsBrowsesBothWebTypesForFiveSeconds)
{
    const BrowseOptions options = readBrowse("");
    EXPECT_EQ(options.types, WEB_TYPES);
    EXPECT_EQ(options.timeoutMs, 5000);
}

TEST(VdDiscoverCommandLine, WithoutArgumentsEveryOptionIsOff)
{
    const BrowseOptions options = readBrowse("");
    EXPECT_FALSE(options.follow);
    EXPECT_EQ(options.count, 0);
    EXPECT_FALSE(options.requery);
    EXPECT_FALSE(options.longLived);
    EXPECT_FALSE(options.plain);
    EXPECT_FALSE(options.verbose);
    EXPECT_EQ(options.format, OutputFormat::Table);
}

TEST(VdDiscoverCommandLine, TheCommandsNameMayBeGiven)
{
    EXPECT_EQ(readBrowse("browse").types, WEB_TYPES);
    EXPECT_EQ(readBrowse("browse _https._tcp").types, QStringList(QStringLiteral("_https._tcp")));
}

TEST(VdDiscoverCommandLine, OptionsMayStandBeforeTheCommandsName)
{
    EXPECT_TRUE(readBrowse("--follow browse _http._tcp").follow);
    EXPECT_TRUE(std::holds_alternative<ResponderOptions>(read("--start responder")));
}

TEST(VdDiscoverCommandLine, EveryShortOptionIsRead)
{
    const BrowseOptions options = readBrowse("-t 2.5 -n 3 -q -l -v");
    EXPECT_EQ(options.timeoutMs, 2500);
    EXPECT_EQ(options.count, 3);
    EXPECT_TRUE(options.requery);
    EXPECT_TRUE(options.longLived);
    EXPECT_TRUE(options.verbose);
    EXPECT_FALSE(options.follow);
}

TEST(VdDiscoverCommandLine, EveryLongOptionIsRead)
{
    const BrowseOptions options
        = readBrowse("--follow --count=3 --requery --long-lived --format json --plain --verbose");
    EXPECT_TRUE(options.follow);
    EXPECT_EQ(options.count, 3);
    EXPECT_TRUE(options.requery);
    EXPECT_TRUE(options.longLived);
    EXPECT_TRUE(options.plain);
    EXPECT_TRUE(options.verbose);
    EXPECT_EQ(options.format, OutputFormat::Json);
}

TEST(VdDiscoverCommandLine, ShortOptionsMayStandTogether)
{
    const BrowseOptions options = readBrowse("-fqln7");
    EXPECT_TRUE(options.follow && options.requery && options.longLived);
    EXPECT_EQ(options.count, 7);
}

TEST(VdDiscoverCommandLine, TheFormatMayBeSaidToBeATable)
{
    EXPECT_EQ(readBrowse("--format table").format, OutputFormat::Table);
}

TEST(VdDiscoverCommandLine, AShortTimeoutIsRoundedUpToAMillisecond)
{
    EXPECT_EQ(readBrowse("--timeout 0.0001").timeoutMs, 1);
}

TEST(VdDiscoverCommandLine, TheLongestTimeoutIsTaken)
{
    EXPECT_EQ(readBrowse("--timeout 2000000").timeoutMs, 2000000000);
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
    for (const char* word : {"publisher", "Browse", "http._tcp", "help"}) {
        EXPECT_EQ(errorOf(word),
                  std::string("\"") + word
                      + "\" is neither a command nor a service type: the commands are browse, publish and "
                        "responder, and a type looks like _http._tcp (see vd-discover --help)");
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
    EXPECT_EQ(errorOf(QStringList(QStringLiteral("_a b._tcp"))), typeError("_a b._tcp"));
}

TEST(VdDiscoverCommandLine, ATypeAfterAValidOneIsCheckedToo)
{
    EXPECT_EQ(errorOf("_http._tcp browse"), typeError("browse"));
}

TEST(VdDiscoverCommandLine, ATypesLabelMayBeAsLongAsDnsAllows)
{
    const QString longest = QLatin1Char('_') + QString(62, QLatin1Char('a')) + QStringLiteral("._udp");
    EXPECT_EQ(readBrowse(QStringList(longest)).types, QStringList(longest));
    const QString tooLong = QLatin1Char('_') + QString(63, QLatin1Char('a')) + QStringLiteral("._udp");
    EXPECT_EQ(errorOf(QStringList(tooLong)), typeError(tooLong.toStdString()));
}

TEST(VdDiscoverCommandLine, TypesAreReadWithoutRegardToCaseAndOnceOnly)
{
    EXPECT_EQ(readBrowse("_HTTP._tcp _ipp._tcp _http._TCP").types,
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
    const std::string browseHelp = vd::discover::browseHelp().toStdString();
    EXPECT_EQ(textOf("--help"), browseHelp);
    EXPECT_EQ(textOf("browse -h --count 0"), browseHelp);
    EXPECT_EQ(textOf("nonsense -h"), browseHelp);
    EXPECT_EQ(textOf("browse --version"), vd::discover::versionText().toStdString());
}

TEST(VdDiscoverCommandLine, EachCommandHasAHelpOfItsOwn)
{
    EXPECT_EQ(textOf("publish -h --count 0"), vd::discover::publishHelp().toStdString());
    EXPECT_EQ(textOf("--help responder"), vd::discover::responderHelp().toStdString());
}

TEST(VdDiscoverCommandLine, AnOptionOfTwoCommandsIsTheSameForBoth)
{
    QMap<QString, QCommandLineOption> known;
    const auto all = vd::discover::browseOptionList() + vd::discover::publishOptionList()
                     + vd::discover::responderOptionList();
    for (const QCommandLineOption& option : all) {
        const QString name = option.names().last();
        const QCommandLineOption first = known.value(name, option);
        EXPECT_EQ(option.names(), first.names());
        EXPECT_EQ(option.valueName(), first.valueName());
        known.insert(name, first);
    }
}

TEST(VdDiscoverCommandLine, AnOptionOfAnotherCommandIsRefused)
{
    EXPECT_EQ(errorOf("--zeph 1"), "--zeph is an option of publish, not of browse (see vd-discover --help)");
    EXPECT_EQ(errorOf("publish Setup -f"),
              "-f is an option of browse, not of publish (see vd-discover publish --help)");
    EXPECT_EQ(errorOf("publish --start Setup"),
              "--start is an option of responder, not of publish (see vd-discover publish --help)");
    EXPECT_EQ(errorOf("responder --format json"),
              "--format is an option of browse and publish, not of responder (see vd-discover responder --help)");
}

TEST(VdDiscoverCommandLine, AnErrorOfTheParserNamesTheHelpOfTheCommand)
{
    EXPECT_EQ(errorOf("publish Setup --nonsense"),
              "unknown option \"--nonsense\" (see vd-discover publish --help)");
    EXPECT_EQ(errorOf("publish --zeph"), "missing value after '--zeph' (see vd-discover publish --help)");
}

TEST(VdDiscoverCommandLine, AnUnknownWordIsToldBeforeTheOptionsThatBelongElsewhere)
{
    EXPECT_EQ(errorOf("pubish Setup --zeph 1"), errorOf("pubish Setup"));
    EXPECT_NE(errorOf("pubish Setup"), "no error");
}

TEST(VdDiscoverCommandLine, TheResponderIsStartedOnlyWhenAsked)
{
    EXPECT_FALSE(std::get<ResponderOptions>(read("responder")).start);
    EXPECT_TRUE(std::get<ResponderOptions>(read("responder --start")).start);
}

TEST(VdDiscoverCommandLine, TheResponderTakesNoWords)
{
    EXPECT_EQ(errorOf("responder start"), "responder takes nothing but --start, not \"start\"");
}

TEST(VdDiscoverCommandLine, TheHelpTellsOfEveryOption)
{
    const QByteArray help = vd::discover::browseHelp();
    for (const char* option :
         {"-f, --follow", "-t, --timeout SECONDS", "-n, --count N", "-q, --requery", "-l, --long-lived",
          "--format FORMAT", "--plain", "-v, --verbose", "-h, --help", "--version", "[TYPE...]"})
        EXPECT_TRUE(help.contains(option)) << option;
}

TEST(VdDiscoverCommandLine, TheHelpOfACommandTellsOfEveryOptionThatItTakes)
{
    const auto tellsOfAll = [](const QByteArray& help, const QList<QCommandLineOption>& options) {
        for (const QCommandLineOption& option : options) {
            const QByteArray line = "--" + option.names().last().toUtf8() + ' ';
            EXPECT_TRUE(help.contains(line)) << line.constData();
        }
    };
    tellsOfAll(vd::discover::browseHelp(), vd::discover::browseOptionList());
    tellsOfAll(vd::discover::publishHelp(), vd::discover::publishOptionList());
    tellsOfAll(vd::discover::responderHelp(), vd::discover::responderOptionList());
}

TEST(VdDiscoverCommandLine, TheHelpTellsOfEveryCommand)
{
    const QByteArray help = vd::discover::browseHelp();
    for (const char* command : {"\n  browse ", "\n  publish ", "\n  responder "})
        EXPECT_TRUE(help.contains(command)) << command;
}

TEST(VdDiscoverCommandLine, TheHelpFitsAnOrdinaryTerminal)
{
    const QByteArray all
        = vd::discover::browseHelp() + vd::discover::publishHelp() + vd::discover::responderHelp();
    const auto lines = all.split('\n');
    for (const QByteArray& line : lines)
        EXPECT_LE(line.size(), 80) << line.constData();
}
