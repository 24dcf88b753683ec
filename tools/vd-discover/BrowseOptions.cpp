// SPDX-License-Identifier: MIT
#include "BrowseOptions.h"

#include "support/PrintableText.h"

#include <QtCore/QCommandLineOption>
#include <QtCore/QCommandLineParser>
#include <QtCore/QRegularExpression>

#include <avahi-common/domain.h>

#include <cmath>
#include <utility>

namespace vd::discover {

namespace {

// As many milliseconds as a timer takes, rounded down to a number that reads well.
const double LONGEST_TIMEOUT_S = 2000000;

struct UsageError
{
    QString message;
};

struct Options
{
    QCommandLineOption follow{{QStringLiteral("f"), QStringLiteral("follow")}};
    QCommandLineOption timeout{{QStringLiteral("t"), QStringLiteral("timeout")},
                               QString(),
                               QStringLiteral("SECONDS")};
    QCommandLineOption count{{QStringLiteral("n"), QStringLiteral("count")}, QString(), QStringLiteral("N")};
    QCommandLineOption requery{{QStringLiteral("q"), QStringLiteral("requery")}};
    QCommandLineOption longLived{{QStringLiteral("l"), QStringLiteral("long-lived")}};
    QCommandLineOption format{QStringLiteral("format"), QString(), QStringLiteral("FORMAT")};
    QCommandLineOption verbose{{QStringLiteral("v"), QStringLiteral("verbose")}};
    QCommandLineOption help{{QStringLiteral("h"), QStringLiteral("help")}};
    QCommandLineOption version{QStringLiteral("version")};

    QList<QCommandLineOption> all() const
    {
        return {follow, timeout, count, requery, longLived, format, verbose, help, version};
    }
};

QString quoted(const QString& text)
{
    return QLatin1Char('"') + printableText(text) + QLatin1Char('"');
}

int readTimeout(const QString& text)
{
    bool isNumber = false;
    const double seconds = text.toDouble(&isNumber);
    if (!isNumber || !std::isfinite(seconds) || seconds <= 0 || seconds > LONGEST_TIMEOUT_S) {
        throw UsageError{QStringLiteral("--timeout takes a number of seconds above 0 and up to 2000000, "
                                        "such as 5 or 0.5, not ")
                         + quoted(text)};
    }
    return static_cast<int>(std::ceil(seconds * 1000));
}

int readCount(const QString& text)
{
    bool isNumber = false;
    const int count = text.toInt(&isNumber);
    if (!isNumber || count <= 0)
        throw UsageError{QStringLiteral("--count takes a whole number from 1, such as 3, not ") + quoted(text)};
    return count;
}

OutputFormat readFormat(const QString& text)
{
    if (text == QLatin1String("table"))
        return OutputFormat::Table;
    if (text == QLatin1String("json"))
        return OutputFormat::Json;
    throw UsageError{QStringLiteral("--format takes table or json, not ") + quoted(text)};
}

// Stricter than Avahi, which takes a trailing dot, blanks and control characters too.
bool isServiceType(const QString& text)
{
    static const QRegularExpression form(QStringLiteral("\\A_[a-z0-9_-]+\\._(tcp|udp)\\z"),
                                         QRegularExpression::CaseInsensitiveOption);
    return form.match(text).hasMatch() && avahi_is_valid_service_type_strict(text.toUtf8().constData());
}

QString readType(const QString& text)
{
    if (!isServiceType(text)) {
        throw UsageError{
            quoted(text)
            + QStringLiteral(" is not a service type: give one such as _http._tcp, which begins with _ "
                             "and ends in ._tcp or ._udp")};
    }
    // DNS ignores case, but what is reported for a type is compared with care for it.
    return text.toLower();
}

QStringList readTypes(QStringList words)
{
    if (!words.isEmpty() && words.first() == QLatin1String("browse"))
        words.removeFirst();
    else if (!words.isEmpty() && !words.first().startsWith(QLatin1Char('_'))) {
        throw UsageError{quoted(words.first())
                         + QStringLiteral(" is neither a command nor a service type: the command is browse, "
                                          "and a type looks like _http._tcp (see vd-discover --help)")};
    }
    if (words.isEmpty())
        return BrowseOptions().types;

    QStringList types;
    for (const QString& word : std::as_const(words))
        types.append(readType(word));
    // A type that is browsed twice delivers every event twice.
    types.removeDuplicates();
    return types;
}

BrowseOptions readBrowseOptions(const QCommandLineParser& parser, const Options& known)
{
    BrowseOptions options;
    options.types = readTypes(parser.positionalArguments());
    options.follow = parser.isSet(known.follow);
    options.requery = parser.isSet(known.requery);
    options.longLived = parser.isSet(known.longLived);
    options.verbose = parser.isSet(known.verbose);
    if (parser.isSet(known.timeout)) {
        options.timeoutMs = readTimeout(parser.value(known.timeout));
        if (options.follow) {
            throw UsageError{QStringLiteral("--timeout and --follow exclude each other: --follow runs until it is "
                                            "interrupted; leave one of them out")};
        }
    }
    if (parser.isSet(known.count))
        options.count = readCount(parser.value(known.count));
    if (parser.isSet(known.format))
        options.format = readFormat(parser.value(known.format));
    return options;
}

// The parser's own wording, made to fit behind the program's name and to name the remedy.
QString parserError(const QCommandLineParser& parser)
{
    const QStringList unknown = parser.unknownOptionNames();
    QString problem;
    if (unknown.isEmpty()) {
        problem = printableText(parser.errorText());
        problem.replace(0, 1, problem.at(0).toLower());
        while (problem.endsWith(QLatin1Char('.')))
            problem.chop(1);
    } else {
        const QLatin1String dashes(unknown.first().size() == 1 ? "-" : "--");
        problem = QStringLiteral("unknown option ") + quoted(dashes + unknown.first());
    }
    return problem + QStringLiteral(" (see vd-discover --help)");
}

} // namespace

CommandLine readCommandLine(const QStringList& arguments)
{
    const Options known;
    QCommandLineParser parser;
    parser.addOptions(known.all());

    CommandLine commandLine;
    const bool isParsed = parser.parse(arguments);
    if (isParsed && parser.isSet(known.help)) {
        commandLine.action = CommandLine::ShowHelp;
    } else if (isParsed && parser.isSet(known.version)) {
        commandLine.action = CommandLine::ShowVersion;
    } else if (!isParsed) {
        commandLine.action = CommandLine::ReportError;
        commandLine.error = parserError(parser);
    } else {
        try {
            commandLine.options = readBrowseOptions(parser, known);
        } catch (const UsageError& error) {
            commandLine.action = CommandLine::ReportError;
            commandLine.error = error.message;
        }
    }
    return commandLine;
}

} // namespace vd::discover
