// SPDX-License-Identifier: MIT
#ifndef VD_DISCOVER_DEADLINE_H
#define VD_DISCOVER_DEADLINE_H

#include <chrono>
#include <functional>
#include <thread>

namespace vd::discover {

/**
 * Watches over work that may block for long, such as a call to a daemon that hangs: if the object lives
 * longer than the given time, the action runs once, in a thread of its own.
 */
class Deadline
{
public:
    using Action = std::function<void()>;

    Deadline(std::chrono::milliseconds time, Action whenMissed);
    /** Time counts from when @p startDescriptor becomes readable; there is no deadline if it is -1. */
    Deadline(int startDescriptor, std::chrono::milliseconds time, Action whenMissed);
    /** Waits for the action to end if it has begun. */
    ~Deadline();

    Deadline(const Deadline&) = delete;
    Deadline& operator=(const Deadline&) = delete;

private:
    void watch(std::chrono::milliseconds time) const;
    bool isMetBeforeReadable(int descriptor) const;
    bool isMetWithin(std::chrono::milliseconds time) const;

    const Action m_whenMissed;
    /** Readable once the deadline is met. A descriptor, as a signal handler can tell of its signal by one only. */
    const int m_met;
    std::thread m_watcher;
};

} // namespace vd::discover

#endif
