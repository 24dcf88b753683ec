// SPDX-License-Identifier: MIT
#ifndef VD_LOGQT_H
#define VD_LOGQT_H

#include <QtCore/QTextStream>

namespace vd {

class Mutex;

/**
 * The log that the library writes to. Part of the support layer that a host may replace by its own.
 *
 * Ordinary messages have level 1; the one about a resolved service that has no address has level 4.
 * To see everything on standard error:
 *
 * @code
 * vd::LogQt::setLogLevel(1);
 * @endcode
 *
 * Thread: setLogLevel(), logLevel() and setStream() may be called from any thread. getStream() and
 * pre() are for a caller that holds mutex().
 */
class Q_DECL_EXPORT LogQt
{
public:
    /** The lock to hold while one message is written. Never null, owned by the log, not recursive. */
    static Mutex* mutex();

    /** Where messages of @p level go, owned by whoever set it; null when nothing is to be written. */
    static QTextStream* getStream(int level);

    /** The threshold: messages of a lower level are dropped. */
    static int logLevel();

    /** Writes the prefix of a line, UTC time and @p level, to getStream(@p level) if there is one. */
    static void pre(int level);

    /** Sets the threshold. Initially 4, so that only the most serious messages are written. */
    static void setLogLevel(int level);

    /**
     * Sends messages to @p stream from now on, to nowhere when it is null. Initially they go to
     * standard error. The stream is not owned: it must live until another one is set.
     */
    static void setStream(QTextStream* stream);
};

} // namespace vd

#endif
