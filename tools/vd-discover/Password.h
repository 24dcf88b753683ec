// SPDX-License-Identifier: MIT
#ifndef VD_DISCOVER_PASSWORD_H
#define VD_DISCOVER_PASSWORD_H

#include <QtCore/QString>

namespace vd::discover {

/**
 * Reads the password from @p file, without the line end behind it. With "-" it is read from standard input;
 * from a terminal without showing it.
 *
 * Throws a UsageError, which never holds any of what was read.
 */
QString readPassword(const QString& file);

} // namespace vd::discover

#endif
