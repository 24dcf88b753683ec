// SPDX-License-Identifier: MIT
#ifndef VD_AVAHI_MANAGED_CALLTHREAD_H
#define VD_AVAHI_MANAGED_CALLTHREAD_H

#include <QtCore/QObject>

#include <condition_variable>
#include <functional>
#include <mutex>
#include <thread>

namespace vd {

/**
 * Makes calls that may take long, one at a time, in a thread of its own, which starts with the first call and costs
 * nothing while there is none. All is to be used in one thread, whose memory the call sees as it was when it began.
 */
class CallThread : public QObject
{
    Q_OBJECT
    Q_PROPERTY(bool busy READ isBusy)

public:
    explicit CallThread(QObject* parent);
    /** Waits for the call. */
    ~CallThread() override;

    /**
     * Begins @p call, which must not throw; returned() follows. The one before must have been waited for.
     * @return false when there is no thread to be had; nothing is called then.
     */
    bool begin(const std::function<void()>& call);
    /** A call was begun and not waited for yet. The call may ask this too. */
    bool isBusy() const { return m_isBusy; }
    /** It has returned, so that wait() does not wait. */
    bool hasReturned() const;
    /** Waits until the call has returned, and lets the next one begin. */
    void wait();
    /** Waits as well, and ends the thread until the next call begins. */
    void end();

Q_SIGNALS:
    /** Emitted by the thread that makes the calls, so connect it as a queued one. The call may be waited for since. */
    void returned();

private:
    Q_DISABLE_COPY(CallThread)

    bool start();
    void run();

    bool m_isBusy;
    std::thread m_thread;

    mutable std::mutex m_mutex;
    std::condition_variable m_changed;
    // Of both threads.
    std::function<void()> m_call;
    bool m_isCalling;
    bool m_isToEnd;
};

} // namespace vd

#endif
