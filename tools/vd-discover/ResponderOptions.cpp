// SPDX-License-Identifier: MIT
#include "ResponderOptions.h"

#include <QtCore/QCommandLineParser>

namespace vd::discover {

QList<QCommandLineOption> responderOptionList()
{
    return {flag("start")};
}

ResponderOptions readResponderOptions(const QCommandLineParser& parser, const QStringList& words)
{
    if (!words.isEmpty()) {
        throw UsageError{QStringLiteral("responder takes nothing but --start, not ") + quoted(words.first())};
    }
    ResponderOptions options;
    options.start = parser.isSet(QStringLiteral("start"));
    return options;
}

} // namespace vd::discover
