// SPDX-License-Identifier: MIT
#include "BrowseOptions.h"

#include <QtCore/QCommandLineParser>

namespace vd::discover {

namespace {

int readCount(const QString& text)
{
    bool isNumber = false;
    const int count = text.toInt(&isNumber);
    if (!isNumber || count <= 0)
        throw UsageError{QStringLiteral("--count takes a whole number from 1, such as 3, not ") + quoted(text)};
    return count;
}

QStringList readTypes(const QStringList& words)
{
    if (words.isEmpty())
        return BrowseOptions().types;

    QStringList types;
    for (const QString& word : words) {
        const auto type = serviceType(word);
        if (!type) {
            throw UsageError{quoted(word) + QStringLiteral(" is not a service type: give one such as _http._tcp, ")
                             + serviceTypeRule()};
        }
        types.append(*type);
    }
    // A type that is browsed twice delivers every event twice.
    types.removeDuplicates();
    return types;
}

} // namespace

QList<QCommandLineOption> browseOptionList()
{
    return {
        flag("follow", "f"),
        valued("timeout", "SECONDS", "t"),
        valued("count", "N", "n"),
        flag("requery", "q"),
        flag("long-lived", "l"),
        valued("format", "FORMAT"),
        flag("plain"),
        flag("verbose", "v"),
    };
}

BrowseOptions readBrowseOptions(const QCommandLineParser& parser, const QStringList& words)
{
    BrowseOptions options;
    options.types = readTypes(words);
    options.follow = parser.isSet(QStringLiteral("follow"));
    options.requery = parser.isSet(QStringLiteral("requery"));
    options.longLived = parser.isSet(QStringLiteral("long-lived"));
    options.plain = parser.isSet(QStringLiteral("plain"));
    options.verbose = parser.isSet(QStringLiteral("verbose"));
    if (parser.isSet(QStringLiteral("timeout"))) {
        options.timeoutMs = readTimeout(parser.value(QStringLiteral("timeout")));
        if (options.follow) {
            throw UsageError{QStringLiteral("--timeout and --follow exclude each other: --follow runs until it is "
                                            "interrupted; leave one of them out")};
        }
    }
    if (parser.isSet(QStringLiteral("count")))
        options.count = readCount(parser.value(QStringLiteral("count")));
    if (parser.isSet(QStringLiteral("format")))
        options.format = readFormat(parser.value(QStringLiteral("format")));
    return options;
}

} // namespace vd::discover
