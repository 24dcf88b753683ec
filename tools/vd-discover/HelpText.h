// SPDX-License-Identifier: MIT
#ifndef VD_DISCOVER_HELPTEXT_H
#define VD_DISCOVER_HELPTEXT_H

#include <QtCore/QByteArray>

namespace vd::discover {

// What --help prints for each command. That of browse tells of the others, as browse is what runs without a name.
QByteArray browseHelp();
QByteArray publishHelp();
QByteArray responderHelp();

/** What --version prints. */
QByteArray versionText();

} // namespace vd::discover

#endif
