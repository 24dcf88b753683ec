// SPDX-License-Identifier: MIT
#ifndef FOREIGN_VD_LOGQT_H
#define FOREIGN_VD_LOGQT_H

#include <QtCore/QString>
#include <QtCore/QTextStream>

namespace vd {

class Mutex;

/** A logger that shares nothing with the library's own but what the library calls. */
struct LogQt
{
    enum { LEVEL_COUNT = 5 };

    static Mutex* mutex();
    static QTextStream* getStream(int level);
    static int logLevel();
    static void pre(int level);

    static int threshold;
    /** Calls of pre(). */
    static int prefixCount;
    /** Calls for which the caller did not hold mutex(). */
    static int unlockedCalls;
    /** What was logged, one text for each level. */
    static QString logged[LEVEL_COUNT];
};

} // namespace vd

#endif
