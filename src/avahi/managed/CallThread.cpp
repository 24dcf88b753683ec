// SPDX-License-Identifier: MIT
#include "avahi/managed/CallThread.h"

#include <exception>

#include <signal.h>

namespace vd {

namespace {

/**
 * Signals are for the threads of the application: one that is started meanwhile gets none, but for those that its own
 * faults cause.
 */
class SignalsBlocked
{
public:
    SignalsBlocked()
    {
        sigset_t all;
        sigfillset(&all);
        for (const int fault : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGABRT, SIGTRAP})
            sigdelset(&all, fault);
        pthread_sigmask(SIG_SETMASK, &all, &m_before);
    }
    ~SignalsBlocked() { pthread_sigmask(SIG_SETMASK, &m_before, nullptr); }

private:
    Q_DISABLE_COPY(SignalsBlocked)

    sigset_t m_before;
};

} // namespace

CallThread::CallThread(QObject* parent) : QObject(parent), m_isBusy(false), m_isCalling(false), m_isToEnd(false) {}

CallThread::~CallThread()
{
    end();
}

void CallThread::end()
{
    if (!m_thread.joinable())
        return;
    {
        const std::lock_guard<std::mutex> locker(m_mutex);
        m_isToEnd = true;
    }
    m_changed.notify_all();
    m_thread.join();
    m_isToEnd = false;
    m_isBusy = false;
}

bool CallThread::begin(const std::function<void()>& call)
{
    if (!m_thread.joinable() && !start())
        return false;
    {
        const std::lock_guard<std::mutex> locker(m_mutex);
        m_call = call;
        m_isCalling = true;
        m_isBusy = true;
    }
    m_changed.notify_all();
    return true;
}

bool CallThread::start()
{
    const SignalsBlocked blocked;
    try {
        m_thread = std::thread(&CallThread::run, this);
    } catch (const std::exception&) {
        return false;
    }
    return true;
}

bool CallThread::hasReturned() const
{
    const std::lock_guard<std::mutex> locker(m_mutex);
    return !m_isCalling;
}

void CallThread::wait()
{
    std::unique_lock<std::mutex> locker(m_mutex);
    m_changed.wait(locker, [this] { return !m_isCalling; });
    m_isBusy = false;
}

void CallThread::run()
{
    std::unique_lock<std::mutex> locker(m_mutex);
    for (;;) {
        m_changed.wait(locker, [this] { return m_isCalling || m_isToEnd; });
        if (!m_isCalling)
            return;
        locker.unlock();
        m_call();
        locker.lock();
        m_isCalling = false;
        m_changed.notify_all();
        // The object lives as long as this thread.
        locker.unlock();
        Q_EMIT returned();
        locker.lock();
    }
}

} // namespace vd
