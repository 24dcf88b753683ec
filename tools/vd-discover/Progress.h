// SPDX-License-Identifier: MIT
#ifndef VD_DISCOVER_PROGRESS_H
#define VD_DISCOVER_PROGRESS_H

#include <QtCore/QElapsedTimer>
#include <QtCore/QObject>
#include <QtCore/QString>
#include <QtCore/QTimer>

#include <atomic>

namespace vd::discover {

/** "3 devices, 2.1 s of 5 s", or "3 devices, 0:02:01" when @p timeoutMs is 0. */
QString progressText(int deviceCount, qint64 elapsedMs, int timeoutMs);

/**
 * A line on standard error that tells that work goes on, if that is a terminal; else nothing. It has to be
 * hidden while anything else is written, which may go to the same terminal.
 */
class Progress : public QObject
{
    Q_OBJECT

public:
    enum Wish { WhereRedrawable, Never };

    /** @param timeoutMs when the work will end, 0 if nobody knows. */
    Progress(int timeoutMs, Wish wish);
    ~Progress() override;

    /** Time counts from the first show(). */
    void show();
    void hide();
    /** Removes the line until it is drawn again. Any thread may call this. */
    void erase();
    void setDeviceCount(int count) { m_deviceCount = count; }

private:
    void draw();

    const int m_timeoutMs;
    const bool m_isWanted;
    std::atomic<bool> m_isDrawn{false};
    int m_deviceCount = 0;
    QElapsedTimer m_elapsed;
    QTimer m_redraw;
};

} // namespace vd::discover

#endif
