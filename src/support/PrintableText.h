// SPDX-License-Identifier: MIT
#ifndef VD_SUPPORT_PRINTABLETEXT_H
#define VD_SUPPORT_PRINTABLETEXT_H

#include <QtCore/QString>

namespace vd {

/**
 * @p text with everything replaced that could forge a line, steer a terminal or reorder what is shown:
 * control characters, line and paragraph separators, bidirectional and other invisible format
 * characters. They appear as escaped() puts them. Joiners, which scripts and emoji need, stay.
 */
QString printableText(const QString& text);

/** The same for text from Avahi or a caller; empty for a null pointer. */
QString printableText(const char* bytes);

/** The code point as \xHH, \uHHHH or \UHHHHHHHH, whichever is the first to have room for it. */
QString escaped(uint codePoint);

/** Whether printableText() would replace the code point. */
bool isUnprintable(uint codePoint);

} // namespace vd

#endif
