// SPDX-License-Identifier: MIT
#include <vd/LogQt.h>

#include <vd/Mutex.h>

#include <QtCore/QDateTime>

#include <atomic>
#include <cstdio>

namespace vd {

namespace {

std::atomic<int> threshold(4);

// Created at the first use and never destroyed, so that a message may still be written while static
// objects are being destroyed. Guarded by LogQt::mutex().
QTextStream*& currentStream()
{
    static QTextStream* const standardError = new QTextStream(stderr);
    static QTextStream* stream = standardError;
    return stream;
}

} // namespace

Mutex* LogQt::mutex()
{
    static Mutex* mutex = new Mutex;
    return mutex;
}

QTextStream* LogQt::getStream(int)
{
    return currentStream();
}

int LogQt::logLevel()
{
    return threshold.load();
}

void LogQt::pre(int level)
{
    QTextStream* stream = getStream(level);
    if (!stream)
        return;
    *stream << QDateTime::currentDateTimeUtc().toString(QLatin1String("yyyy-MM-ddThh:mm:ss.zzzZ")) << " ["
            << QString::number(level) << "] ";
}

void LogQt::setLogLevel(int level)
{
    threshold.store(level);
}

void LogQt::setStream(QTextStream* stream)
{
    MutexLocker locker(mutex());
    currentStream() = stream;
}

} // namespace vd
