// SPDX-License-Identifier: MIT
#ifndef VD_SUPPORT_QTCOMPAT_H
#define VD_SUPPORT_QTCOMPAT_H

// Everything that differs between Qt 4.8, 5.15 and 6.

#include <QtCore/QBasicTimer>
#include <QtCore/QByteArray>
#include <QtCore/QString>
#include <QtCore/QTextStream>
#include <QtCore/QtGlobal>

namespace vd {

/** Text from Avahi or a caller; a null pointer gives a null string. */
inline QString textFromBytes(const char* bytes)
{
    if (!bytes)
        return QString();
#if QT_VERSION < 0x050000
    return QString::fromAscii(bytes);
#else
    return QString::fromUtf8(bytes);
#endif
}

/** The same for bytes that may hold a NUL. */
inline QString textFromBytes(const QByteArray& bytes)
{
#if QT_VERSION < 0x050000
    return QString::fromAscii(bytes.constData(), bytes.size());
#else
    return QString::fromUtf8(bytes.constData(), static_cast<int>(bytes.size()));
#endif
}

/** The inverse of textFromBytes(), for what goes back to Avahi and on the wire. */
inline QByteArray bytesFromText(const QString& text)
{
#if QT_VERSION < 0x050000
    return text.toAscii();
#else
    return text.toUtf8();
#endif
}

/** CRC-16 of @p size bytes. */
inline quint16 checksumOfBytes(const char* data, size_t size)
{
#if QT_VERSION < 0x060000
    return qChecksum(data, static_cast<uint>(size));
#else
    return qChecksum(QByteArrayView(data, static_cast<qsizetype>(size)));
#endif
}

/** Starts a timer that keeps its time to the millisecond, which newer versions of Qt only do on request. */
inline void startPreciseTimer(QBasicTimer& timer, int milliseconds, QObject* receiver)
{
#if QT_VERSION < 0x050000
    timer.start(milliseconds, receiver);
#else
    timer.start(milliseconds, Qt::PreciseTimer, receiver);
#endif
}

/** Ends a line and flushes. */
inline void endLine(QTextStream& stream)
{
#if QT_VERSION < 0x050f00
    stream << ::endl;
#else
    stream << Qt::endl;
#endif
}

} // namespace vd

#endif
