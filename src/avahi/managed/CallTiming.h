// SPDX-License-Identifier: MIT
#ifndef VD_AVAHI_MANAGED_CALLTIMING_H
#define VD_AVAHI_MANAGED_CALLTIMING_H

#include <QtCore/QList>

namespace vd {

/**
 * Foresees when the daemon is at work for long, so that a call made then would wait for it.
 *
 * That is while it reads what a whole network answers, when there is news straight after news; and when it
 * repeats the question for a type together with all the answers that it has, a second, three, seven and so on
 * after it was asked to browse. Times are in milliseconds of any one clock.
 */
class CallTiming
{
public:
    CallTiming();

    void reset();
    void browserMade(qint64 now);
    /** The browser that was made as the @p browser th one, from 0, has told what the daemon knew already. */
    void cacheRead(int browser, qint64 now);
    /** The daemon told what it had just read from the network: a service, or what it is. */
    void newsCame(qint64 now);

    /** For how long calls had better wait, with so many services known; 0 when there is nothing to wait for. */
    int pauseMs(qint64 now, int services) const;
    /**
     * The same while so many answers are awaited that more may come at any time. When @p isAllAsked, nothing is
     * late because of a longer wait.
     */
    int floodPauseMs(qint64 now, int services, bool isAllAsked) const;

private:
    int flowMs(qint64 now) const;
    int answersMs(qint64 now, int quietMs) const;
    int questionMs(qint64 now, int services, int earlierMs) const;

    /** When a browser was made, and when it had told what the daemon knew; in between the question is posed. */
    struct Browser
    {
        qint64 made;
        qint64 read;
    };

    QList<Browser> m_browsers;
    /** The latest at the end. */
    QList<qint64> m_news;
    qint64 m_flowBegan;
    qint64 m_answersBegan;
};

} // namespace vd

#endif
