// SPDX-License-Identifier: MIT
#ifndef VD_AVAHI_AVAHITEXT_H
#define VD_AVAHI_AVAHITEXT_H

#include "support/QtCompat.h"

namespace vd {

/**
 * Whether Avahi can be given @p text. It ends the process for text that is not UTF-8. A null pointer is
 * fine where Avahi has a default for it.
 */
inline bool isAcceptableToAvahi(const char* text)
{
    if (!text)
        return true;
    // The leading letter keeps the decoder from taking a zero-width no-break space for a byte order mark.
    const QByteArray bytes = QByteArray("x") + text;
    return QString::fromUtf8(bytes.constData(), static_cast<int>(bytes.size())).toUtf8() == bytes;
}

} // namespace vd

#endif
