// SPDX-License-Identifier: MIT
#ifndef VD_DISCOVER_RESPONDEROPTIONS_H
#define VD_DISCOVER_RESPONDEROPTIONS_H

#include "OptionValues.h"

#include <QtCore/QList>
#include <QtCore/QStringList>

class QCommandLineParser;

namespace vd::discover {

/** What `vd-discover responder` was asked to do. */
struct ResponderOptions
{
    /** Start the service if it is not running. */
    bool start = false;
};

/** The options that the command takes. */
QList<QCommandLineOption> responderOptionList();

/** @param words what stands on the command line beside the options, without the command's name. */
ResponderOptions readResponderOptions(const QCommandLineParser& parser, const QStringList& words);

} // namespace vd::discover

#endif
