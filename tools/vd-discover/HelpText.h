// SPDX-License-Identifier: MIT
#ifndef VD_DISCOVER_HELPTEXT_H
#define VD_DISCOVER_HELPTEXT_H

#include <QtCore/QByteArray>

namespace vd::discover {

/** What --help prints. */
QByteArray helpText();

/** What --version prints. */
QByteArray versionText();

} // namespace vd::discover

#endif
