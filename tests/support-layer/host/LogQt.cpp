// SPDX-License-Identifier: MIT
#include <vd/LogQt.h>

#include <vd/Mutex.h>

namespace vd {

int LogQt::threshold = 1;
int LogQt::prefixCount = 0;
int LogQt::unlockedCalls = 0;
QString LogQt::logged[LEVEL_COUNT];

namespace {

void noteWhetherLocked()
{
    if (LogQt::mutex()->tryLock()) {
        LogQt::mutex()->unlock();
        ++LogQt::unlockedCalls;
    }
}

} // namespace

Mutex* LogQt::mutex()
{
    static Mutex mutex("log");
    return &mutex;
}

QTextStream* LogQt::getStream(int level)
{
    noteWhetherLocked();
    static QTextStream streams[LEVEL_COUNT];
    if (!streams[level].string())
        streams[level].setString(&logged[level]);
    return &streams[level];
}

int LogQt::logLevel()
{
    return threshold;
}

void LogQt::pre(int level)
{
    noteWhetherLocked();
    ++prefixCount;
    QTextStream* const stream = getStream(level);
    // What the prefix needs is the prefix's own affair.
    stream->setNumberFlags(QTextStream::ForceSign);
    *stream << "host: ";
}

} // namespace vd
