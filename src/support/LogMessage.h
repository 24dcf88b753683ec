// SPDX-License-Identifier: MIT
#ifndef VD_SUPPORT_LOGMESSAGE_H
#define VD_SUPPORT_LOGMESSAGE_H

#include "support/PrintableText.h"
#include "support/QtCompat.h"

#include <vd/LogQt.h>
#include <vd/Mutex.h>

namespace vd {

/** The level of ordinary messages. */
const int LOG_ORDINARY = 1;
/** The level of what an operator should see. */
const int LOG_SERIOUS = 4;

/**
 * Writes one message as one line.
 *
 * @p writePieces is called with the stream, and only when the message will be written, so whatever it
 * formats or looks up costs nothing below the threshold. It runs under the log's lock and must not log.
 * Text that is not the library's own goes through printableText().
 */
template <typename WritePieces>
void logMessage(int level, WritePieces writePieces)
{
    MutexLocker locker(LogQt::mutex());
    QTextStream* stream = LogQt::getStream(level);
    if (!stream || LogQt::logLevel() > level)
        return;
    const QTextStream::NumberFlags flags = stream->numberFlags();
    LogQt::pre(level);
    writePieces(*stream);
    endLine(*stream);
    stream->setNumberFlags(flags);
}

/** Writes one message that is a fixed text. */
inline void logMessage(int level, const char* text)
{
    logMessage(level, [text](QTextStream& out) { out << text; });
}

} // namespace vd

#endif
