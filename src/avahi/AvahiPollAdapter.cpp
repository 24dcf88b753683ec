// SPDX-License-Identifier: MIT
#include "avahi/AvahiPollAdapter.h"

#include "avahi/MonotonicDeadline.h"
#include "avahi/WatchGroup.h"
#include "support/QtCompat.h"

#include <QtCore/QBasicTimer>
#include <QtCore/QEvent>
#include <QtCore/QObject>
#include <QtCore/QScopedPointer>
#include <QtCore/QSocketNotifier>

#include <sys/epoll.h>
#include <unistd.h>

#include <cstring>
#include <new>

namespace {

/** Whether the callback of the object that owns this is on the stack. */
class CallState
{
public:
    CallState() : m_ownerGone(nullptr) {}
    ~CallState()
    {
        if (m_ownerGone)
            *m_ownerGone = true;
    }

    bool isCalling() const { return m_ownerGone != nullptr; }

    /** Calls @p function and returns false if it destroyed the owner, of which nothing may be touched then. */
    template <typename Function>
    bool call(Function function)
    {
        Running running(this);
        function();
        return !running.ownerGone;
    }

private:
    Q_DISABLE_COPY(CallState)

    /** Ends with the callback, also when that throws. */
    struct Running
    {
        explicit Running(CallState* state) : ownerGone(false), m_state(state) { state->m_ownerGone = &ownerGone; }
        ~Running()
        {
            if (!ownerGone)
                m_state->m_ownerGone = nullptr;
        }

        bool ownerGone;

    private:
        Q_DISABLE_COPY(Running)

        CallState* m_state;
    };

    bool* m_ownerGone;
};

const int KNOWN_EVENTS = AVAHI_WATCH_IN | AVAHI_WATCH_OUT | AVAHI_WATCH_ERR | AVAHI_WATCH_HUP;

static_assert(KNOWN_EVENTS == static_cast<int>(EPOLLIN | EPOLLOUT | EPOLLERR | EPOLLHUP)
                  && AVAHI_WATCH_IN == static_cast<int>(EPOLLIN) && AVAHI_WATCH_OUT == static_cast<int>(EPOLLOUT)
                  && AVAHI_WATCH_ERR == static_cast<int>(EPOLLERR),
              "Avahi's events are handed to epoll as they are");

quint32 knownEvents(AvahiWatchEvent events)
{
    // Copied, as a caller's flags may lie outside the values that the enumeration can hold.
    int bits = 0;
    std::memcpy(&bits, &events, sizeof bits);
    return static_cast<quint32>(bits & KNOWN_EVENTS);
}

} // namespace

/**
 * Waits for an epoll descriptor that holds just the watched one.
 *
 * The detour is for hang-ups and errors. Qt's notifiers know reading, writing and exceptions only; on GLib's
 * loop the latter two keep the thread busy on a hang-up without ever reporting it, and on the plain
 * one there can be only one notifier of a kind for a descriptor. The epoll descriptor becomes readable for
 * exactly what is wanted, whatever runs the loop.
 */
struct AvahiWatch : public vd::WatchGroup::Member
{
public:
    AvahiWatch(int epoll, int descriptor, AvahiWatchCallback callback, void* userdata)
        : m_epoll(epoll)
        , m_descriptor(descriptor)
        , m_wanted(0)
        , m_happened(0)
        , m_callback(callback)
        , m_userdata(userdata)
    {}

    ~AvahiWatch() override
    {
        m_notifier.reset();
        ::close(m_epoll);
    }

    bool update(AvahiWatchEvent events)
    {
        m_wanted = knownEvents(events);
        const bool accepted = requestEvents();
        enableUnlessCalling();
        return accepted;
    }

    AvahiWatchEvent happened() const { return static_cast<AvahiWatchEvent>(m_happened); }

protected:
    bool isCallingBack() const override { return m_state.isCalling(); }
    void pause() override
    {
        if (m_notifier)
            m_notifier->setEnabled(false);
    }
    void resume() override { enableUnlessCalling(); }

private:
    /**
     * Events are taken in event(), not from the notifier's signal: nobody touches the notifier after that
     * returns, so it may be destroyed by the callback.
     */
    struct Notifier : public QSocketNotifier
    {
        explicit Notifier(AvahiWatch* watch)
            : QSocketNotifier(watch->m_epoll, QSocketNotifier::Read), m_watch(watch)
        {}

    protected:
        bool event(QEvent* qtEvent) override
        {
            if (qtEvent->type() != QEvent::SockAct)
                return QSocketNotifier::event(qtEvent);
            if (isEnabled() && !m_watch->isCallingBack())
                m_watch->deliver();
            return true;
        }

    private:
        AvahiWatch* const m_watch;
    };

    bool requestEvents()
    {
        epoll_event request = epoll_event();
        request.events = m_wanted;
        // A descriptor that was closed has left the set; its number may be in use again.
        return ::epoll_ctl(m_epoll, EPOLL_CTL_MOD, m_descriptor, &request) == 0
               || ::epoll_ctl(m_epoll, EPOLL_CTL_ADD, m_descriptor, &request) == 0;
    }

    /** Off during the callback, or a nested event loop would be woken over and over by what it can't deliver. */
    void enableUnlessCalling()
    {
        // Another thread may be at work on it, whose notifiers would not be of this one's event loop.
        if (isPaused())
            return;
        if (!m_notifier)
            m_notifier.reset(new Notifier(this));
        m_notifier->setEnabled(m_wanted != 0 && !m_state.isCalling());
    }

    /** Another callback of the same turn may have read the data, or changed what is wanted. */
    quint32 pendingEvents() const
    {
        epoll_event pending = epoll_event();
        if (::epoll_wait(m_epoll, &pending, 1, 0) != 1)
            return 0;
        return pending.events;
    }

    void deliver()
    {
        m_happened = pendingEvents();
        if (m_happened == 0)
            return;
        m_notifier->setEnabled(false);
        if (!m_state.call([this] { m_callback(this, m_descriptor, happened(), m_userdata); }))
            return;
        m_happened = 0;
        enableUnlessCalling();
    }

    const int m_epoll;
    const int m_descriptor;
    quint32 m_wanted;
    quint32 m_happened;
    const AvahiWatchCallback m_callback;
    void* const m_userdata;
    CallState m_state;
    QScopedPointer<Notifier> m_notifier;
};

struct AvahiTimeout : public vd::WatchGroup::Member
{
public:
    AvahiTimeout(AvahiTimeoutCallback callback, void* userdata)
        : m_armed(false), m_callback(callback), m_userdata(userdata)
    {}

    void update(const timeval* wallTime)
    {
        m_armed = wallTime != nullptr;
        if (wallTime)
            m_deadline = vd::monotonicDeadline(*wallTime);
        startUnlessCalling();
    }

protected:
    bool isCallingBack() const override { return m_state.isCalling(); }
    void pause() override
    {
        if (m_timer)
            m_timer->stop();
    }
    void resume() override { startUnlessCalling(); }

private:
    class Timer : public QObject
    {
    public:
        explicit Timer(AvahiTimeout* timeout) : m_timeout(timeout) {}

        void start(int milliseconds) { vd::startPreciseTimer(m_timer, milliseconds, this); }
        void stop() { m_timer.stop(); }

    protected:
        void timerEvent(QTimerEvent*) override
        {
            m_timer.stop();
            m_timeout->timePassed();
        }

    private:
        AvahiTimeout* const m_timeout;
        QBasicTimer m_timer;
    };

    /** Off during the callback, or a nested event loop would be woken over and over by what it can't deliver. */
    void startUnlessCalling()
    {
        // Another thread may be at work on it, whose timers would not be of this one's event loop.
        if (isPaused())
            return;
        if (!m_armed || m_state.isCalling()) {
            pause();
            return;
        }
        if (!m_timer)
            m_timer.reset(new Timer(this));
        m_timer->start(vd::timerInterval(m_deadline, vd::MonotonicClock::now()));
    }

    void timePassed()
    {
        if (!m_armed)
            return;
        if (vd::MonotonicClock::now() < m_deadline)
            startUnlessCalling();
        else
            deliver();
    }

    void deliver()
    {
        m_armed = false;
        if (m_state.call([this] { m_callback(this, m_userdata); }))
            startUnlessCalling();
    }

    bool m_armed;
    vd::MonotonicClock::time_point m_deadline;
    const AvahiTimeoutCallback m_callback;
    void* const m_userdata;
    CallState m_state;
    QScopedPointer<Timer> m_timer;
};

namespace {

AvahiWatch* newWatch(const AvahiPoll*, int descriptor, AvahiWatchEvent events, AvahiWatchCallback callback,
                     void* userdata)
{
    const int epoll = ::epoll_create1(EPOLL_CLOEXEC);
    if (epoll < 0)
        return nullptr;
    // Without memory for it Avahi's libraries do without; in a thread that has the client nobody could catch anything.
    AvahiWatch* watch = new (std::nothrow) AvahiWatch(epoll, descriptor, callback, userdata);
    if (watch && watch->update(events))
        return watch;
    if (watch)
        watch->release();
    else
        ::close(epoll);
    return nullptr;
}

void updateWatch(AvahiWatch* watch, AvahiWatchEvent events)
{
    watch->update(events);
}

AvahiWatchEvent eventsOfWatch(AvahiWatch* watch)
{
    return watch->happened();
}

void freeWatch(AvahiWatch* watch)
{
    watch->release();
}

AvahiTimeout* newTimeout(const AvahiPoll*, const timeval* wallTime, AvahiTimeoutCallback callback, void* userdata)
{
    AvahiTimeout* timeout = new (std::nothrow) AvahiTimeout(callback, userdata);
    if (timeout)
        timeout->update(wallTime);
    return timeout;
}

void updateTimeout(AvahiTimeout* timeout, const timeval* wallTime)
{
    timeout->update(wallTime);
}

void freeTimeout(AvahiTimeout* timeout)
{
    timeout->release();
}

} // namespace

const AvahiPoll* avahi_qt_poll_get()
{
    static const AvahiPoll poll
        = {nullptr, newWatch, updateWatch, eventsOfWatch, freeWatch, newTimeout, updateTimeout, freeTimeout};
    return &poll;
}
