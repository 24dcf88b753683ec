// SPDX-License-Identifier: MIT
#ifndef VD_DISCOVER_BROWSEOPTIONS_H
#define VD_DISCOVER_BROWSEOPTIONS_H

#include <QtCore/QString>
#include <QtCore/QStringList>

namespace vd::discover {

enum class OutputFormat { Table, Json };

/** What `vd-discover browse` was asked to do. */
struct BrowseOptions
{
    QStringList types = {QStringLiteral("_http._tcp"), QStringLiteral("_https._tcp")};
    bool follow = false;
    int timeoutMs = 5000;
    /** 0: however many there are. */
    int count = 0;
    bool requery = false;
    bool longLived = false;
    bool verbose = false;
    OutputFormat format = OutputFormat::Table;
};

/** What a command line amounts to. */
struct CommandLine
{
    enum Action { Browse, ShowHelp, ShowVersion, ReportError };

    Action action = Browse;
    BrowseOptions options;
    /** With ReportError: one printable line that names the remedy. */
    QString error;
};

/** Reads the arguments, the program's name first. */
CommandLine readCommandLine(const QStringList& arguments);

} // namespace vd::discover

#endif
