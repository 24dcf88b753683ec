// SPDX-License-Identifier: MIT
#ifndef VD_DISCOVER_STANDARDSTREAMS_H
#define VD_DISCOVER_STANDARDSTREAMS_H

#include <QtCore/QByteArray>
#include <QtCore/QString>

namespace vd::discover {

/**
 * Occupies what is closed of descriptors 0 to 2, so that no socket gets their numbers and is written to as
 * if it were standard output. Writing to an occupied one fails.
 */
void occupyStandardDescriptors();

/** Writes all of @p bytes, waiting if need be. Returns 0, or what errno was. */
int writeAll(int descriptor, const QByteArray& bytes);

/** Writes "vd-discover: ", @p message and a line feed to standard error. */
void reportError(const QString& message);

/** Has the library write its whole log to standard error. */
void writeWholeLog();

/** The cells of a line if @p descriptor is a terminal, else 0. */
int terminalWidth(int descriptor);

/** Whether lines on @p descriptor can be drawn again: it is a terminal, and one that takes commands. */
bool isRedrawable(int descriptor);

/** Goes to the beginning of the line and erases it, where lines can be drawn again. */
inline constexpr char ERASE_LINE[] = "\r\033[K";

} // namespace vd::discover

#endif
