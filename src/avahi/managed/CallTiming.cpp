// SPDX-License-Identifier: MIT
#include "avahi/managed/CallTiming.h"

#include <QtCore/QtGlobal>

namespace vd {

namespace {

// A flow of news has ended when there is none for so long.
const int QUIET_MS = 15;
// Fewer in that time are no flow.
const int FLOW = 4;
// With many answers awaited, more of them come after so short a silence. Who still has to ask waits less.
const int BETWEEN_ANSWERS_MS = 100;
const int BETWEEN_QUESTIONS_MS = 60;
// One that goes on and on is no reason to leave the first ones alone.
const int LONGEST_FLOW_MS = 3000;

// With fewer services known, Avahi is done with a question in a moment.
const int MANY_SERVICES = 250;
// Avahi asks at once, and again after 1 s, 2 s, 4 s and so on; it lets each question wait for others to join it.
const int QUESTION_WAITS_MS = 100;
const int QUESTIONS = 6;
const int FIRST_INTERVAL_MS = 1000;
// How much earlier and later than foreseen it may begin.
const int EARLIER_MS = 10;
const int LATER_MS = 20;
// Avahi does not read its cache for longer; what was told later than that was held up on this side.
const int LONGEST_READING_MS = 1000;

} // namespace

CallTiming::CallTiming() : m_flowBegan(0), m_answersBegan(0) {}

void CallTiming::reset()
{
    m_browsers.clear();
    m_news.clear();
}

void CallTiming::browserMade(qint64 now)
{
    const Browser browser = {now, now};
    m_browsers.append(browser);
}

void CallTiming::cacheRead(int browser, qint64 now)
{
    if (browser < 0 || browser >= m_browsers.size())
        return;
    Browser& known = m_browsers[browser];
    known.read = qMin(now, known.made + LONGEST_READING_MS);
}

void CallTiming::newsCame(qint64 now)
{
    if (m_news.isEmpty() || now - m_news.last() >= QUIET_MS)
        m_flowBegan = now;
    if (m_news.isEmpty() || now - m_news.last() >= BETWEEN_ANSWERS_MS)
        m_answersBegan = now;
    m_news.append(now);
    if (m_news.size() > FLOW)
        m_news.removeFirst();
}

int CallTiming::pauseMs(qint64 now, int services) const
{
    return qMax(flowMs(now), questionMs(now, services, EARLIER_MS));
}

int CallTiming::floodPauseMs(qint64 now, int services, bool isAllAsked) const
{
    // Other questions that are sent take one along that still waits.
    const int earlierMs = QUESTION_WAITS_MS + EARLIER_MS;
    const int quietMs = isAllAsked ? BETWEEN_ANSWERS_MS : BETWEEN_QUESTIONS_MS;
    return qMax(qMax(flowMs(now), answersMs(now, quietMs)), questionMs(now, services, earlierMs));
}

int CallTiming::answersMs(qint64 now, int quietMs) const
{
    if (m_news.isEmpty())
        return 0;
    const qint64 end = qMin(m_news.last() + quietMs, m_answersBegan + LONGEST_FLOW_MS);
    return static_cast<int>(qMax<qint64>(0, end - now));
}

int CallTiming::flowMs(qint64 now) const
{
    if (m_news.isEmpty())
        return 0;
    const qint64 latest = m_news.last();
    const bool flows = m_news.size() == FLOW && latest - m_news.first() < QUIET_MS;
    // The first one may be the begin of a flow.
    const qint64 end = qMin((flows ? latest : m_flowBegan) + QUIET_MS, m_flowBegan + LONGEST_FLOW_MS);
    return static_cast<int>(qMax<qint64>(0, end - now));
}

int CallTiming::questionMs(qint64 now, int services, int earlierMs) const
{
    if (services < MANY_SERVICES)
        return 0;
    qint64 end = now;
    for (int browser = 0; browser < m_browsers.size(); ++browser) {
        qint64 earliest = m_browsers.at(browser).made + QUESTION_WAITS_MS - earlierMs;
        qint64 latest = m_browsers.at(browser).read + QUESTION_WAITS_MS + LATER_MS;
        for (int question = 0; question < QUESTIONS; ++question) {
            if (now >= earliest && now < latest)
                end = qMax(end, latest);
            earliest += FIRST_INTERVAL_MS << question;
            latest += FIRST_INTERVAL_MS << question;
        }
    }
    return static_cast<int>(end - now);
}

} // namespace vd
