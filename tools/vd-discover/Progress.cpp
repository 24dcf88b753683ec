// SPDX-License-Identifier: MIT
#include "Progress.h"

#include "StandardStreams.h"
#include "TerminalCells.h"

#include <unistd.h>

namespace vd::discover {

namespace {

// Nothing shorter than a second shows while there is no end in sight.
const int REDRAW_MS = 200;
const int REDRAW_ENDLESS_MS = 1000;

QString clockText(qint64 elapsedMs)
{
    const qint64 seconds = elapsedMs / 1000;
    return QStringLiteral("%1:%2:%3")
        .arg(seconds / 3600)
        .arg(seconds / 60 % 60, 2, 10, QLatin1Char('0'))
        .arg(seconds % 60, 2, 10, QLatin1Char('0'));
}

} // namespace

QString progressText(int deviceCount, qint64 elapsedMs, int timeoutMs)
{
    QString text = deviceCount == 1 ? QStringLiteral("1 device, ")
                                    : QString::number(deviceCount) + QStringLiteral(" devices, ");
    if (timeoutMs == 0)
        return text + clockText(elapsedMs);
    const double elapsedS = static_cast<double>(qMin(elapsedMs, qint64(timeoutMs))) / 1000;
    return text + QString::number(elapsedS, 'f', 1) + QStringLiteral(" s of ")
           + QString::number(timeoutMs / 1000.0) + QStringLiteral(" s");
}

Progress::Progress(int timeoutMs, Wish wish)
    : m_timeoutMs(timeoutMs), m_isWanted(wish == WhereRedrawable && isRedrawable(STDERR_FILENO))
{
    m_redraw.setInterval(timeoutMs == 0 ? REDRAW_ENDLESS_MS : REDRAW_MS);
    connect(&m_redraw, &QTimer::timeout, this, &Progress::draw);
}

Progress::~Progress()
{
    hide();
}

void Progress::show()
{
    if (!m_isWanted)
        return;
    if (!m_elapsed.isValid())
        m_elapsed.start();
    m_redraw.start();
    draw();
}

void Progress::hide()
{
    m_redraw.stop();
    erase();
}

void Progress::erase()
{
    if (m_isDrawn.exchange(false))
        writeAll(STDERR_FILENO, ERASE_LINE);
}

void Progress::draw()
{
    const QString text = progressText(m_deviceCount, m_elapsed.elapsed(), m_timeoutMs);
    // A line that reaches the edge would wrap and could not be cleared.
    const QString fitted = cutToCells(text, terminalWidth(STDERR_FILENO) - 1);
    writeAll(STDERR_FILENO, ERASE_LINE + fitted.toUtf8());
    m_isDrawn = true;
}

} // namespace vd::discover
