// SPDX-License-Identifier: MIT
#include "avahi/managed/ManagedServiceDiscoveryPrivate.h"

#include <limits>

namespace vd {

namespace {

// A bus that cannot be watched is asked more often, and so is a daemon that was there, to be found within two seconds.
const int SOON_MS = 1500;
// A connection that was lost sooner is not tried again at once.
const int LASTING_MS = 2000;
// What takes so long to fail has waited for a daemon that hangs.
const int LONG_MS = 5000;

bool isDaemonThere(AvahiClientState state)
{
    return state == AVAHI_CLIENT_S_REGISTERING || state == AVAHI_CLIENT_S_RUNNING
           || state == AVAHI_CLIENT_S_COLLISION;
}

} // namespace

/** As long as this lives, browsing is about to begin. It may end by an exception, and with the object. */
class ManagedServiceDiscovery::Private::ConnectingScope
{
public:
    explicit ConnectingScope(Private* discovery) : m_current(discovery), m_isConnecting(discovery->isConnecting)
    {
        m_isConnecting = true;
    }
    ~ConnectingScope()
    {
        if (!objectIsGone())
            m_isConnecting = false;
    }

    bool objectIsGone() const { return m_current.objectIsGone(); }

private:
    Q_DISABLE_COPY(ConnectingScope)

    ManagedSession m_current;
    bool& m_isConnecting;
};

void ManagedServiceDiscovery::AvahiClientStateChanged(AvahiClient* changed, AvahiClientState changedTo,
                                                      void* userdata)
{
    AvahiServiceDiscovery::AvahiClientStateChanged(changed, changedTo, userdata);
    d->clientChanged(changed, changedTo);
}

// Called by Avahi, inside of which nothing can be made or freed: it is done when the event loop runs again.
void ManagedServiceDiscovery::Private::clientChanged(const AvahiClient* changed, AvahiClientState changedTo)
{
    // One that is being freed has nothing to tell. One that is being made is not known yet.
    if (changed != q->client && !isConnecting)
        return;
    clientState = changedTo;
    if (changedTo == AVAHI_CLIENT_FAILURE)
        lostConnection();
    if (!isDaemonThere(changedTo))
        return;
    if (!isConnecting)
        connectTimer.start(0);
    hostChanged(changedTo);
}

void ManagedServiceDiscovery::Private::lostConnection()
{
    if (hasFailed)
        return;
    hasFailed = true;
    if (hasBegun && clock.elapsed() - begunAt >= LASTING_MS)
        backoff.reset();
    if (isConnecting)
        return;
    pauseMs = qMin(backoff.milliseconds(), SOON_MS);
    backoff.grow();
    connectTimer.start(0);
}

void ManagedServiceDiscovery::Private::connectToDaemon()
{
    if (types.isEmpty())
        return;
    connectTimer.stop();
    if (isConnecting) {
        // A handler has begun anew while Avahi made the client.
        connectTimer.start(0);
        return;
    }
    attempt.start();
    if (mayHang && asksBeforeConnecting()) {
        setState(Unavailable);
        return;
    }
    mayHang = false;
    if (hasFailed && !leaveClient())
        return;

    attempt.start();
    busSocketWatch.turnOff();
    busSocketWatch.noteSocket();
    const ManagedSession current(this);
    const bool isBrowsed = browseWantedTypes();
    if (current.ended())
        return;
    if (isBrowsed && !hasFailed)
        begin();
    else
        attemptFailed();
}

// All that follows waits for the daemon, which is taken up when it answers.
bool ManagedServiceDiscovery::Private::asksBeforeConnecting()
{
    if (!ping.isOpen())
        ping.open();
    if (ping.isAsked() || askDaemon())
        return true;
    // Without a bus that is known at once.
    const bool isBusHanging = attempt.elapsed() >= LONG_MS;
    if (isBusHanging)
        retryLater(LONGEST_RETRY_MS);
    return isBusHanging;
}

// The state is told before the next attempt, which may hang.
bool ManagedServiceDiscovery::Private::leaveClient()
{
    const int waitMs = pauseMs;
    dropClient();
    if (waitMs > 0)
        connectTimer.start(waitMs);
    return setState(Unavailable) && waitMs == 0;
}

void ManagedServiceDiscovery::Private::attemptFailed()
{
    // A client that the daemon did not answer waits for another one.
    hasFailed = hasFailed || (mayHang && q->client);
    const bool isDaemonAwaited = q->client && !hasFailed && clientState == AVAHI_CLIENT_CONNECTING;
    const bool isBusWatched = q->client || busSocketWatch.turnOn();
    if (!isDaemonAwaited)
        retryLater(isBusWatched && !hasFailed ? LONGEST_RETRY_MS : SOON_MS);
    if (!q->client)
        busSocketWatch.look();
    setState(q->client && !hasFailed && isDaemonThere(clientState) ? Connecting : Unavailable);
}

bool ManagedServiceDiscovery::Private::browseWantedTypes()
{
    const ConnectingScope connecting(this);
    bool isBrowsed = true;
    // The browsers are made in the order of the types.
    while (isBrowsed && q->serviceBrowsers.size() < types.size())
        isBrowsed = browseNextType();
    return isBrowsed && !connecting.objectIsGone();
}

bool ManagedServiceDiscovery::Private::browseNextType()
{
    if (!finishCalls())
        return false;
    // A slot may change the list meanwhile.
    const QByteArray type = types.at(q->serviceBrowsers.size());
    // The base forgets every service when it cannot make the client.
    const QMap<QString, SServiceInfo> knownServices = q->services;
    const QList<QPair<QString, QString>> knownQueue = q->recordQueue;
    const ManagedSession current(this);
    const WatchGroup::Scope scope(&ownCalls.watchGroup);
    QElapsedTimer waited;
    waited.start();
    const bool isBrowsed = q->AvahiServiceDiscovery::BrowseServices(type.constData());
    if (current.ended())
        return false;
    if (isBrowsed)
        return true;
    q->services = knownServices;
    q->recordQueue = knownQueue;
    if (!noteRefusal() && waited.elapsed() >= LONG_MS)
        noteHang();
    return false;
}

// An answer to what was asked before would tell nothing.
void ManagedServiceDiscovery::Private::noteHang()
{
    mayHang = true;
    ping.close();
}

// Its socket is there a moment before the bus answers.
void ManagedServiceDiscovery::Private::connectSoon()
{
    backoff.reset();
    if (connectTimer.isActive() && connectTimer.interval() > SHORTEST_RETRY_MS)
        connectTimer.start(SHORTEST_RETRY_MS);
}

// The delay counts from the begin of the attempt: one that hung for long enough is repeated soon.
void ManagedServiceDiscovery::Private::retryLater(int longestMs)
{
    backoff.grow();
    const int spentMs = static_cast<int>(qMin<qint64>(attempt.elapsed(), LONGEST_RETRY_MS));
    connectTimer.start(qMax(SHORTEST_RETRY_MS, qMin(backoff.milliseconds(), longestMs) - spentMs));
}

// What was seen of the services stays, but not where.
void ManagedServiceDiscovery::Private::dropClient()
{
    endSession();
    const QMap<QString, SServiceInfo> knownServices = q->services;
    const QList<QPair<QString, QString>> knownQueue = q->recordQueue;
    q->cleanupAvahiMembers();
    q->entryGroup = nullptr;
    q->services = knownServices;
    q->recordQueue = knownQueue;
}

// Nothing of the client is to be used any more.
void ManagedServiceDiscovery::Private::endSession()
{
    ++session;
    leaveCalls();
    // They go with the client, which closes its connection first. Each of them would have the daemon called, and waited
    // for, as long as the client has not read that it is gone.
    q->serviceBrowsers.clear();
    hasFailed = false;
    hasBegun = false;
    pauseMs = 0;
    endPublication();
    clientState = AVAHI_CLIENT_CONNECTING;
    graceTimer.stop();
    isGraceOver = false;
    forgetCalls();
}

void ManagedServiceDiscovery::Private::begin()
{
    if (!hasBegun && (!setState(Connecting) || hasFailed))
        return;
    // A slot that ran an event loop may have let it begin.
    if (!hasBegun) {
        hasBegun = true;
        begunAt = clock.elapsed();
        ping.open();
        startGrace();
        askAgain();
    }
    scheduleCalls(0);
    setState(Running);
}

// What hosts asked for is not browsed, so nothing but this resolves it.
void ManagedServiceDiscovery::Private::askAgain()
{
    QList<ServiceKey> asked;
    for (TrackedServices::const_iterator service = tracked.constBegin(); service != tracked.constEnd();
         ++service) {
        if (!service->wasSeen)
            asked.append(service.key());
    }
    for (int i = 0; i < asked.size(); ++i)
        enqueue(asked.at(i));
}

bool ManagedServiceDiscovery::Private::setState(State newState)
{
    if (state == newState)
        return true;
    const ManagedSession current(this);
    state = newState;
    Q_EMIT q->stateChanged(newState);
    return !current.ended();
}

void ManagedServiceDiscovery::Private::reset()
{
    endSession();
    connectTimer.stop();
    busSocketWatch.turnOff();
    types.clear();
    tracked.clear();
    publishes = false;
    mayHang = false;
    backoff.reset();
}

} // namespace vd
