// SPDX-License-Identifier: MIT
#pragma once

#include "JsonLines.h"

#include <QtCore/QIODevice>

/** Takes the library's log and reports each line as it is written, so that it stands in order with the signals. */
class LogLines : public QIODevice
{
public:
    LogLines() { open(QIODevice::WriteOnly); }

protected:
    qint64 readData(char*, qint64) override { return -1; }

    qint64 writeData(const char* data, qint64 size) override
    {
        m_pending.append(data, static_cast<int>(size));
        for (auto end = m_pending.indexOf('\n'); end >= 0; end = m_pending.indexOf('\n')) {
            report(QString::fromUtf8(m_pending.left(end)));
            m_pending.remove(0, end + 1);
        }
        return size;
    }

private:
    // A line is "time [level] text".
    static void report(const QString& line)
    {
        const QString stamped = line.section(QLatin1Char(' '), 1);
        writeLine({
            {QStringLiteral("event"), QStringLiteral("log")},
            {QStringLiteral("level"), stamped.section(QLatin1Char(' '), 0, 0)},
            {QStringLiteral("text"), stamped.section(QLatin1Char(' '), 1)},
        });
    }

    QByteArray m_pending;
};
