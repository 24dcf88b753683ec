// SPDX-License-Identifier: MIT
#include "avahi/managed/ManagedServiceDiscoveryPrivate.h"

#include <limits>

namespace vd {

namespace {

const int SHORTEST_RETRY_MS = 250;
const int LONGEST_RETRY_MS = 8000;
// A connection that was lost sooner is not tried again at once.
const int LASTING_MS = 2000;

bool isDaemonThere(AvahiClientState state)
{
    return state == AVAHI_CLIENT_S_REGISTERING || state == AVAHI_CLIENT_S_RUNNING
           || state == AVAHI_CLIENT_S_COLLISION;
}

} // namespace

void ManagedServiceDiscovery::AvahiClientStateChanged(AvahiClient* changed, AvahiClientState changedTo,
                                                      void* userdata)
{
    AvahiServiceDiscovery::AvahiClientStateChanged(changed, changedTo, userdata);
    d->clientChanged(changedTo);
}

// Called by Avahi, inside of which nothing can be made or freed: it is done when the event loop runs again.
void ManagedServiceDiscovery::Private::clientChanged(AvahiClientState changedTo)
{
    clientState = changedTo;
    if (changedTo == AVAHI_CLIENT_FAILURE)
        lostConnection();
    else if (isDaemonThere(changedTo) && !isConnecting)
        connectTimer.start(0);
}

void ManagedServiceDiscovery::Private::lostConnection()
{
    hasFailed = true;
    if (isConnecting)
        return;
    if (hasBegun && clock.elapsed() - begunAt >= LASTING_MS)
        backoffMs = 0;
    connectTimer.start(backoffMs);
    growBackoff();
}

void ManagedServiceDiscovery::Private::connectToDaemon()
{
    if (isConnecting || types.isEmpty())
        return;
    connectTimer.stop();
    busSocketWatch.turnOff();
    attempt.start();
    if (hasFailed)
        dropClient();
    const ManagedSession current(this);
    if (!hasBegun)
        setState(Connecting);
    if (current.ended())
        return;

    const bool isBrowsed = browseWantedTypes();
    if (current.ended())
        return;
    if (isBrowsed && !hasFailed) {
        begin();
        return;
    }
    const bool isDaemonAwaited = q->client && clientState == AVAHI_CLIENT_CONNECTING && !hasFailed;
    if (!isDaemonAwaited)
        retryLater();
    if (!q->client)
        busSocketWatch.turnOn();
    setState(q->client && isDaemonThere(clientState) ? Connecting : Unavailable);
}

bool ManagedServiceDiscovery::Private::browseWantedTypes()
{
    isConnecting = true;
    const ManagedSession current(this);
    bool isBrowsed = true;
    // The browsers are made in the order of the types.
    while (isBrowsed && q->serviceBrowsers.size() < types.size())
        isBrowsed = browse(types.at(q->serviceBrowsers.size()));
    if (current.objectIsGone())
        return false;
    isConnecting = false;
    return isBrowsed;
}

bool ManagedServiceDiscovery::Private::browse(const QByteArray& type)
{
    // The base forgets every service when it cannot make the client.
    const QMap<QString, SServiceInfo> knownServices = q->services;
    const QList<QPair<QString, QString>> knownQueue = q->recordQueue;
    const ManagedSession current(this);
    const bool isBrowsed = q->AvahiServiceDiscovery::BrowseServices(type.constData());
    if (current.ended())
        return false;
    if (!isBrowsed) {
        q->services = knownServices;
        q->recordQueue = knownQueue;
    }
    return isBrowsed;
}

// The bus may be back. Its socket is there a moment before it answers.
void ManagedServiceDiscovery::Private::connectSoon()
{
    if (!connectTimer.isActive())
        return;
    backoffMs = 0;
    connectTimer.start(SHORTEST_RETRY_MS);
}

// The delay counts from the begin of the attempt: one that hung for long enough is repeated soon.
void ManagedServiceDiscovery::Private::retryLater()
{
    growBackoff();
    const int spentMs = static_cast<int>(qMin<qint64>(attempt.elapsed(), LONGEST_RETRY_MS));
    connectTimer.start(qMax(SHORTEST_RETRY_MS, backoffMs - spentMs));
}

void ManagedServiceDiscovery::Private::growBackoff()
{
    backoffMs = qBound(SHORTEST_RETRY_MS, 2 * backoffMs, LONGEST_RETRY_MS);
}

// What was seen of the services stays, but not where.
void ManagedServiceDiscovery::Private::dropClient()
{
    endSession();
    for (TrackedServices::iterator service = tracked.begin(); service != tracked.end(); ++service) {
        service->links.clear();
        service->resolver = nullptr;
        service->addressBrowser = nullptr;
        service->addressLinks.clear();
        service->isWaiting = false;
        service->isKept = false;
    }

    const QMap<QString, SServiceInfo> knownServices = q->services;
    const QList<QPair<QString, QString>> knownQueue = q->recordQueue;
    q->cleanupAvahiMembers();
    q->services = knownServices;
    q->recordQueue = knownQueue;
}

// Nothing of the client is to be used any more.
void ManagedServiceDiscovery::Private::endSession()
{
    ++session;
    hasFailed = false;
    hasBegun = false;
    isPublished = false;
    clientState = AVAHI_CLIENT_CONNECTING;
    pausedUntil = 0;
    daemonLimit = std::numeric_limits<int>::max();
    graceTimer.stop();
    resolveTimer.stop();
    failedTimer.stop();
    resolvers.clear();
    addressBrowsers.clear();
    oldestFirst.clear();
    line.clear();
    parked.clear();
    failed.clear();
}

void ManagedServiceDiscovery::Private::begin()
{
    const ManagedSession current(this);
    publish();
    if (current.ended())
        return;
    if (!hasBegun) {
        hasBegun = true;
        begunAt = clock.elapsed();
        if (!unseenServices().isEmpty())
            graceTimer.start(gracePeriodMs);
        askAgain();
    }
    scheduleResolving(0);
    setState(Running);
}

void ManagedServiceDiscovery::Private::publish()
{
    if (!publishes || isPublished || clientState != AVAHI_CLIENT_S_RUNNING)
        return;
    const ManagedSession current(this);
    const bool isDone = q->AvahiServiceDiscovery::RegisterService(publishedName.constData(),
                                                                  publishedType.constData(), publishedInfo);
    if (current.ended())
        return;
    isPublished = isDone;
    if (isPublished)
        return;
    // Nothing half done may stand in the way of the next attempt.
    q->AvahiServiceDiscovery::TerminateRegistration();
    retryLater();
}

// Those that were browsed before a restart and are not back yet.
QList<ServiceKey> ManagedServiceDiscovery::Private::unseenServices() const
{
    QList<ServiceKey> unseen;
    for (TrackedServices::const_iterator service = tracked.constBegin(); service != tracked.constEnd();
         ++service) {
        if (service->wasSeen && service->links.isEmpty())
            unseen.append(service.key());
    }
    return unseen;
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

void ManagedServiceDiscovery::Private::endGrace()
{
    const QList<ServiceKey> unseen = unseenServices();
    const ManagedSession current(this);
    for (int i = 0; i < unseen.size() && !current.ended(); ++i) {
        // A slot may have brought it back meanwhile.
        const TrackedServices::const_iterator service = tracked.constFind(unseen.at(i));
        if (service != tracked.constEnd() && service->links.isEmpty())
            lose(unseen.at(i));
    }
}

void ManagedServiceDiscovery::Private::setState(State newState)
{
    if (state == newState)
        return;
    state = newState;
    Q_EMIT q->stateChanged(newState);
}

void ManagedServiceDiscovery::Private::reset()
{
    endSession();
    connectTimer.stop();
    busSocketWatch.turnOff();
    types.clear();
    tracked.clear();
    publishes = false;
    backoffMs = 0;
}

} // namespace vd
