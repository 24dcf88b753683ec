// SPDX-License-Identifier: MIT
#ifndef VD_AVAHI_MANAGED_BACKOFF_H
#define VD_AVAHI_MANAGED_BACKOFF_H

#include <QtCore/QtGlobal>

namespace vd {

const int SHORTEST_RETRY_MS = 250;
const int LONGEST_RETRY_MS = 8000;

/** @p firstMs, doubled so many times, but no longer than @p longestMs. */
inline int doubledMs(int firstMs, int times, int longestMs)
{
    return qMin(firstMs << qMin(times, 16), longestMs);
}

/** How long to wait before the next attempt: twice as long after each that failed. */
class Backoff
{
public:
    Backoff() : m_milliseconds(0) {}

    /** Nothing before the first failure. */
    int milliseconds() const { return m_milliseconds; }
    void grow() { m_milliseconds = qBound(SHORTEST_RETRY_MS, 2 * m_milliseconds, LONGEST_RETRY_MS); }
    void reset() { m_milliseconds = 0; }

private:
    int m_milliseconds;
};

} // namespace vd

#endif
