// SPDX-License-Identifier: MIT
#include "CommandLine.h"

#include "HelpText.h"

#include "support/PrintableText.h"

#include <QtCore/QCommandLineParser>
#include <QtCore/QMap>

#include <functional>

namespace vd::discover {

namespace {

struct Command
{
    QString name;
    QList<QCommandLineOption> options;
    QByteArray help;
    /** What the user is to type to see the help. */
    QString helpCall;
    std::function<CommandLine(const QCommandLineParser&, const QStringList& words)> read;
};

// The first is what runs when no command is named.
QList<Command> allCommands()
{
    return {
        {QStringLiteral("browse"), browseOptionList(), browseHelp(), QStringLiteral("vd-discover --help"),
         readBrowseOptions},
        {QStringLiteral("publish"), publishOptionList(), publishHelp(),
         QStringLiteral("vd-discover publish --help"), readPublishOptions},
        {QStringLiteral("responder"), responderOptionList(), responderHelp(),
         QStringLiteral("vd-discover responder --help"), readResponderOptions},
    };
}

bool takes(const Command& command, const QString& option)
{
    for (const QCommandLineOption& taken : command.options) {
        if (taken.names().contains(option))
            return true;
    }
    return false;
}

// With its dashes, as it is typed.
QString typed(const QString& option)
{
    return QLatin1String(option.size() == 1 ? "-" : "--") + option;
}

// Which command is meant is known only once the options that stand before its name, and their values, are told
// from it. So the parser knows the options of all, and one name takes a value everywhere or nowhere.
void addOptions(QCommandLineParser& parser, const QList<Command>& commands)
{
    QMap<QString, bool> takesValue;
    for (const Command& command : commands) {
        for (const QCommandLineOption& option : command.options) {
            const QString name = option.names().last();
            const bool isValued = !option.valueName().isEmpty();
            Q_ASSERT(takesValue.value(name, isValued) == isValued);
            if (!takesValue.contains(name))
                parser.addOption(option);
            takesValue.insert(name, isValued);
        }
    }
    parser.addOption(flag("help", "h"));
    parser.addOption(flag("version"));
}

/** Takes the command's name from the front of @p words if it stands there. */
const Command& takeCommand(const QList<Command>& commands, QStringList& words)
{
    for (const Command& command : commands) {
        if (!words.isEmpty() && words.first() == command.name) {
            words.removeFirst();
            return command;
        }
    }
    return commands.first();
}

void refuseUnknownCommand(const QStringList& wordsTyped)
{
    if (wordsTyped.isEmpty() || wordsTyped.first().startsWith(QLatin1Char('_')))
        return;
    throw UsageError{quoted(wordsTyped.first())
                     + QStringLiteral(" is neither a command nor a service type: the commands are browse, publish "
                                      "and responder, and a type looks like _http._tcp (see vd-discover --help)")};
}

void refuseForeignOptions(const QStringList& given, const Command& command, const QList<Command>& commands)
{
    for (const QString& option : given) {
        if (takes(command, option))
            continue;
        QStringList takers;
        for (const Command& other : commands) {
            if (takes(other, option))
                takers.append(other.name);
        }
        throw UsageError{
            QStringLiteral("%1 is an option of %2, not of %3 (see %4)")
                .arg(typed(option), takers.join(QStringLiteral(" and ")), command.name, command.helpCall)};
    }
}

// The parser's own wording, made to fit behind the program's name and to name the remedy.
QString parserError(const QCommandLineParser& parser, const Command& command)
{
    const QStringList unknown = parser.unknownOptionNames();
    QString problem;
    if (unknown.contains(QStringLiteral("password"))) {
        return QStringLiteral("there is no --password, as every user of this machine can read a command line; use "
                              "--password-file FILE");
    }
    if (unknown.isEmpty()) {
        problem = printableText(parser.errorText());
        problem.replace(0, 1, problem.at(0).toLower());
        while (problem.endsWith(QLatin1Char('.')))
            problem.chop(1);
    } else {
        problem = QStringLiteral("unknown option ") + quoted(typed(unknown.first()));
    }
    return problem + QStringLiteral(" (see %1)").arg(command.helpCall);
}

} // namespace

CommandLine readCommandLine(const QStringList& arguments)
{
    const QList<Command> commands = allCommands();
    QCommandLineParser parser;
    addOptions(parser, commands);
    const bool isParsed = parser.parse(arguments);
    const QStringList wordsTyped = parser.positionalArguments();
    QStringList words = wordsTyped;
    const Command& command = takeCommand(commands, words);

    if (!isParsed)
        return UsageError{parserError(parser, command)};
    if (parser.isSet(QStringLiteral("help")))
        return TextToPrint{command.help};
    if (parser.isSet(QStringLiteral("version")))
        return TextToPrint{versionText()};
    try {
        if (words == wordsTyped)
            refuseUnknownCommand(wordsTyped);
        refuseForeignOptions(parser.optionNames(), command, commands);
        return command.read(parser, words);
    } catch (const UsageError& error) {
        return error;
    }
}

} // namespace vd::discover
