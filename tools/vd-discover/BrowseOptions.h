// SPDX-License-Identifier: MIT
#ifndef VD_DISCOVER_BROWSEOPTIONS_H
#define VD_DISCOVER_BROWSEOPTIONS_H

#include "OptionValues.h"

#include <QtCore/QString>
#include <QtCore/QStringList>

class QCommandLineParser;

namespace vd::discover {

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
    /** By AvahiServiceDiscovery itself, instead of ManagedServiceDiscovery. */
    bool plain = false;
    OutputFormat format = OutputFormat::Table;
};

/** The options that the command takes. */
QList<QCommandLineOption> browseOptionList();

/** @param words what stands on the command line beside the options, without the command's name. */
BrowseOptions readBrowseOptions(const QCommandLineParser& parser, const QStringList& words);

} // namespace vd::discover

#endif
