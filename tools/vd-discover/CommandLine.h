// SPDX-License-Identifier: MIT
#ifndef VD_DISCOVER_COMMANDLINE_H
#define VD_DISCOVER_COMMANDLINE_H

#include "BrowseOptions.h"
#include "OptionValues.h"
#include "PublishOptions.h"
#include "ResponderOptions.h"

#include <QtCore/QByteArray>
#include <QtCore/QStringList>

#include <variant>

namespace vd::discover {

/** All that is asked for is a text. */
struct TextToPrint
{
    QByteArray text;
};

/** What a command line amounts to: one of the commands, a text, or an error. */
using CommandLine = std::variant<BrowseOptions, PublishOptions, ResponderOptions, TextToPrint, UsageError>;

/** Reads the arguments, the program's name first. */
CommandLine readCommandLine(const QStringList& arguments);

} // namespace vd::discover

#endif
