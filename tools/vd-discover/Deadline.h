// SPDX-License-Identifier: MIT
#ifndef VD_DISCOVER_DEADLINE_H
#define VD_DISCOVER_DEADLINE_H

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <thread>

namespace vd::discover {

/**
 * Watches over a call that may block for long, such as one to a daemon that hangs: if the object lives
 * longer than the given time, the action runs once, in a thread of its own.
 */
class Deadline
{
public:
    Deadline(std::chrono::milliseconds time, std::function<void()> whenMissed);
    /** Waits for the action to end if it has begun. */
    ~Deadline();

    Deadline(const Deadline&) = delete;
    Deadline& operator=(const Deadline&) = delete;

private:
    void watch(std::chrono::milliseconds time);

    std::function<void()> m_whenMissed;
    std::mutex m_mutex;
    std::condition_variable m_metSignal;
    bool m_isMet = false;
    std::thread m_watcher;
};

} // namespace vd::discover

#endif
