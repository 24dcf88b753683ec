// SPDX-License-Identifier: MIT
#ifndef VD_AVAHI_MONOTONICDEADLINE_H
#define VD_AVAHI_MONOTONICDEADLINE_H

#include <sys/time.h>

#include <algorithm>
#include <chrono>
#include <cstdint>

namespace vd {

typedef std::chrono::steady_clock MonotonicClock;

/**
 * How far @p wallTime lies after @p wallNow, which counts from the epoch of @p wallTime; negative if it is past.
 *
 * Both parts of @p wallTime are limited to about 30 years from now, so that nothing computed from the result
 * overflows whatever a caller passes.
 */
inline std::chrono::microseconds timeUntil(const timeval& wallTime, std::chrono::microseconds wallNow)
{
    using std::chrono::microseconds;
    using std::chrono::seconds;

    const std::int64_t limit = 1000000000;
    const std::int64_t now = std::chrono::duration_cast<seconds>(wallNow).count();
    const std::int64_t whole
        = std::min(std::max(static_cast<std::int64_t>(wallTime.tv_sec), now - limit), now + limit);
    const std::int64_t part
        = std::min(std::max(static_cast<std::int64_t>(wallTime.tv_usec), -limit * 1000000), limit * 1000000);
    return seconds(whole) + microseconds(part) - wallNow;
}

/** The moment that @p wallTime names by today's reading of the wall clock; later steps of that do not move it. */
inline MonotonicClock::time_point monotonicDeadline(const timeval& wallTime)
{
    // The wall clock is read first: an interruption between the two makes the deadline later, never earlier.
    const std::chrono::microseconds wallNow = std::chrono::duration_cast<std::chrono::microseconds>(
        std::chrono::system_clock::now().time_since_epoch());
    return MonotonicClock::now() + timeUntil(wallTime, wallNow);
}

/**
 * The milliseconds to set a Qt timer to; 0 from the deadline on.
 *
 * Rounded up, as a timer that expires too early has to be set again. At most a day: Qt counts milliseconds
 * in an int, which holds less than 25 days.
 */
inline int timerInterval(MonotonicClock::time_point deadline, MonotonicClock::time_point now)
{
    using std::chrono::milliseconds;

    if (deadline <= now)
        return 0;
    const MonotonicClock::duration left
        = std::min<MonotonicClock::duration>(deadline - now, std::chrono::hours(24));
    milliseconds interval = std::chrono::duration_cast<milliseconds>(left);
    if (interval < left)
        ++interval;
    return static_cast<int>(interval.count());
}

} // namespace vd

#endif
