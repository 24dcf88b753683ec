// SPDX-License-Identifier: MIT
#ifndef VD_AVAHI_AVAHITEXT_H
#define VD_AVAHI_AVAHITEXT_H

#include "support/PrintableText.h"
#include "support/QtCompat.h"

#include <avahi-client/client.h>
#include <avahi-common/error.h>

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

/** As textFromBytes(), but with the zero-width no-break space that a decoder takes for a byte order mark. */
inline QString wholeTextFromBytes(const char* bytes)
{
    return bytes ? textFromBytes(QByteArray("x") + bytes).mid(1) : QString();
}

/** What went wrong with @p client last, in Avahi's words; null stands for no client. */
inline const char* errorText(AvahiClient* client)
{
    return avahi_strerror(client ? avahi_client_errno(client) : AVAHI_ERR_BAD_STATE);
}

/** Writes a service as messages name it, "NAME type: TYPE domain: DOMAIN". */
inline void writeService(QTextStream& out, const QString& name, const char* type, const char* domain)
{
    out << printableText(name) << " type: " << printableText(type) << " domain: " << printableText(domain);
}

} // namespace vd

#endif
