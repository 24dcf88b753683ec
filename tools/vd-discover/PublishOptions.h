// SPDX-License-Identifier: MIT
#ifndef VD_DISCOVER_PUBLISHOPTIONS_H
#define VD_DISCOVER_PUBLISHOPTIONS_H

#include "OptionValues.h"

#include <vd/ServiceDiscovery.h>

#include <QtCore/QString>
#include <QtCore/QStringList>

class QCommandLineParser;

namespace vd::discover {

/** What `vd-discover publish` was asked to do. */
struct PublishOptions
{
    QString name;
    QString type;
    /** What is to be published. The password is not read yet. */
    SReconfigInfo info = SReconfigInfo();
    /** Where the password stands, "-" for standard input; empty if there is none. */
    QString passwordFile;
    /** What the user may not have meant, a line each. */
    QStringList warnings;
    /** 0: until it is interrupted. */
    int timeoutMs = 0;
    bool verbose = false;
    OutputFormat format = OutputFormat::Table;
};

/** The options that the command takes. */
QList<QCommandLineOption> publishOptionList();

/** @param words what stands on the command line beside the options, without the command's name. */
PublishOptions readPublishOptions(const QCommandLineParser& parser, const QStringList& words);

/** How many bytes of a value fit into the record under the key that begins with @p label, such as "USER". */
int roomForValue(const char* label);

} // namespace vd::discover

#endif
