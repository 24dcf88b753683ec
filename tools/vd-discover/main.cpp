// SPDX-License-Identifier: MIT
#include "BrowseCommand.h"
#include "CommandLine.h"
#include "ExitStatus.h"
#include "Password.h"
#include "PublishCommand.h"
#include "ResponderCommand.h"
#include "SignalWatcher.h"
#include "StandardStreams.h"

#include <QtCore/QCoreApplication>

#include <clocale>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <variant>

#include <langinfo.h>
#include <unistd.h>

namespace {

using namespace vd::discover;

// What is printed is UTF-8 always; Qt would complain about any other locale, and misread the arguments.
void useUtf8()
{
    // NOLINTBEGIN(concurrency-mt-unsafe): no other thread runs yet.
    static_cast<void>(std::setlocale(LC_ALL, ""));
    if (std::strcmp(nl_langinfo(CODESET), "UTF-8") != 0)
        setenv("LC_ALL", "C.UTF-8", 1);
    // NOLINTEND(concurrency-mt-unsafe)
}

int printAndEnd(const QByteArray& text)
{
    return writeAll(STDOUT_FILENO, text) == 0 ? EXIT_SUCCESS : EXIT_FAILURE;
}

int refuse(const UsageError& error)
{
    reportError(error.message);
    return EXIT_USAGE;
}

template <class Command, class Options>
int runUntilFinished(const Options& options)
{
    SignalWatcher signalWatcher;
    Command command(options, signalWatcher.descriptor());
    QObject::connect(&signalWatcher, &SignalWatcher::interrupted, &command, &Command::end);
    QObject::connect(&command, &Command::finished, qApp, &QCoreApplication::exit, Qt::QueuedConnection);
    command.start();
    return QCoreApplication::exec();
}

/** Runs what the command line asks for; returns the exit status. */
struct Runner
{
    int operator()(const BrowseOptions& options) const { return runUntilFinished<BrowseCommand>(options); }

    int operator()(PublishOptions options) const
    {
        try {
            if (!options.passwordFile.isEmpty())
                options.info.password = readPassword(options.passwordFile);
        } catch (const UsageError& error) {
            return refuse(error);
        }
        return runUntilFinished<PublishCommand>(options);
    }

    int operator()(const ResponderOptions& options) const
    {
        return runResponder(options, systemResponderService());
    }

    int operator()(const TextToPrint& wanted) const { return printAndEnd(wanted.text); }

    int operator()(const UsageError& error) const { return refuse(error); }
};

} // namespace

// NOLINTNEXTLINE(bugprone-exception-escape): what escapes is a lack of memory, with which nothing can be told.
int main(int argc, char** argv)
{
    occupyStandardDescriptors();
    static_cast<void>(std::signal(SIGPIPE, SIG_IGN));
    useUtf8();
    QCoreApplication application(argc, argv);

    return std::visit(Runner(), readCommandLine(QCoreApplication::arguments()));
}
