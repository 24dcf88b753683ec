// SPDX-License-Identifier: MIT
#ifndef VD_DISCOVER_TIMELYEND_H
#define VD_DISCOVER_TIMELYEND_H

#include "Deadline.h"

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>

namespace vd::discover {

/**
 * Sees to it that a run ends soon after it should, even while its thread is blocked in a call to a daemon that
 * hangs.
 */
class TimelyEnd
{
public:
    /**
     * @param signalDescriptor becomes readable when the run is to end; -1 if there is none
     * @param endProcess is called in another thread when the run did not end in time, once for each reason it had
     * to end
     */
    TimelyEnd(int signalDescriptor, Deadline::Action endProcess);

    /** The run is to end after @p time. */
    void expectAfter(std::chrono::milliseconds time);
    /** The run is to end now. */
    void expectNow();

    /**
     * Leaves ending the run to its own thread, which calls this: endProcess is not called any more. If somebody
     * else is ending the process already, this does not return.
     */
    void begin();

    /** Whether ending the run is up to the caller, as nobody else has asked before. Any thread may ask. */
    bool take() { return !m_isTaken.exchange(true); }

    /** Runs @p work at the end, and ends the process by @p endProcess if it takes too long. */
    static void hurry(const std::function<void()>& work, Deadline::Action endProcess);

private:
    const Deadline::Action m_endProcess;
    std::atomic<bool> m_isTaken{false};
    std::unique_ptr<Deadline> m_signalled;
    std::unique_ptr<Deadline> m_foreseen;
    std::unique_ptr<Deadline> m_begun;
};

} // namespace vd::discover

#endif
