// SPDX-License-Identifier: MIT
#include "BrowseCommand.h"
#include "BrowseOptions.h"
#include "ExitStatus.h"
#include "HelpText.h"
#include "SignalWatcher.h"
#include "StandardStreams.h"

#include <QtCore/QCoreApplication>

#include <clocale>
#include <csignal>
#include <cstdlib>
#include <cstring>

#include <langinfo.h>
#include <unistd.h>

namespace {

using namespace vd::discover;

// What is printed is UTF-8 always; Qt would complain about any other locale, and misread the arguments.
void useUtf8()
{
    std::setlocale(LC_ALL, "");
    if (std::strcmp(nl_langinfo(CODESET), "UTF-8") != 0)
        setenv("LC_ALL", "C.UTF-8", 1);
}

int printAndEnd(const QByteArray& text)
{
    return writeAll(STDOUT_FILENO, text) == 0 ? EXIT_SUCCESS : EXIT_FAILURE;
}

int browse(const BrowseOptions& options)
{
    SignalWatcher signalWatcher;
    BrowseCommand command(options, signalWatcher.descriptor());
    QObject::connect(&signalWatcher, &SignalWatcher::interrupted, &command, &BrowseCommand::end);
    QObject::connect(&command, &BrowseCommand::finished, qApp, &QCoreApplication::exit, Qt::QueuedConnection);
    command.start();
    return QCoreApplication::exec();
}

} // namespace

int main(int argc, char** argv)
{
    occupyStandardDescriptors();
    std::signal(SIGPIPE, SIG_IGN);
    useUtf8();
    QCoreApplication application(argc, argv);

    const CommandLine commandLine = readCommandLine(QCoreApplication::arguments());
    switch (commandLine.action) {
    case CommandLine::ShowHelp:
        return printAndEnd(helpText());
    case CommandLine::ShowVersion:
        return printAndEnd(versionText());
    case CommandLine::ReportError:
        reportError(commandLine.error);
        return EXIT_USAGE;
    case CommandLine::Browse:
        break;
    }
    return browse(commandLine.options);
}
