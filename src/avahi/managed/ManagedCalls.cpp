// SPDX-License-Identifier: MIT
#include "avahi/AvahiText.h"
#include "avahi/managed/ManagedServiceDiscoveryPrivate.h"
#include "support/LogMessage.h"

#include <avahi-common/defs.h>

#include <limits>

namespace vd {

namespace {

// How long one turn of the event loop may be spent on calls.
const int TURN_MS = 4;
// So many resolvers that wait for the network are a flood to come.
const int FLOOD = 64;
// What the daemon can answer from its cache it answers soon, and many at a time slow it down. So no more than
// these are made before it had the time to answer. Those that wait for the network cost it little, and hold up
// nobody.
const int MOST_UNSETTLED = 16;
// The time it has when it cannot be asked.
const int TIME_TO_ANSWER_MS = 20;
// When there is no room, a resolver that waits longer than this gives way to the next in line; after each time
// that it did so in vain, for twice as long.
const int PATIENCE_MS = 1000;
const int LONGEST_PATIENCE_MS = 60000;
// A daemon that answered so lately need not be asked.
const int RECENT_MS = 10;
const int LOOK_FOR_ROOM_MS = 100;
const int COOL_DOWN_MS = 1000;
const int LIMITED_MS = 60000;
// A resolver and an address browser: with less room nothing would ever be found.
const int OBJECTS_A_SERVICE = 2;

bool isOfService(int error)
{
    switch (error) {
    case AVAHI_ERR_INVALID_SERVICE_NAME:
    case AVAHI_ERR_INVALID_SERVICE_TYPE:
    case AVAHI_ERR_INVALID_DOMAIN_NAME:
    case AVAHI_ERR_INVALID_ARGUMENT:
        return true;
    default:
        return false;
    }
}

bool isOfConnection(int error)
{
    switch (error) {
    case AVAHI_ERR_DBUS_ERROR:
    case AVAHI_ERR_DISCONNECTED:
    case AVAHI_ERR_NO_DAEMON:
    case AVAHI_ERR_TIMEOUT:
        return true;
    default:
        return false;
    }
}

int patienceMs(int timesGivenWay)
{
    return doubledMs(PATIENCE_MS, timesGivenWay, LONGEST_PATIENCE_MS);
}

} // namespace

void ManagedServiceDiscovery::Private::scheduleCalls(int milliseconds)
{
    if (!callTimer.isActive() || callTimer.interval() > milliseconds)
        callTimer.start(milliseconds);
}

bool ManagedServiceDiscovery::Private::hasCallsToMake() const
{
    return !closedResolvers.isEmpty() || !closedAddressBrowsers.isEmpty() || !toFollow.isEmpty()
           || !line.isEmpty();
}

// A call waits for the daemon. So that it does not wait for long, the daemon is asked first whether it is ready.
void ManagedServiceDiscovery::Private::makeCalls()
{
    if (!hasBegun || hasFailed || !q->client)
        return;
    balanceKept();
    const qint64 now = clock.elapsed();
    if (!hasCallsToMake()) {
        if (!parked.isEmpty() && now < limitedUntil)
            scheduleCalls(static_cast<int>(limitedUntil - now));
        return;
    }
    if (ping.isAsked())
        return;
    const bool isFlooded = isFloodAwaited();
    const int services = static_cast<int>(tracked.size());
    const int waitMs
        = isFlooded ? timing.floodPauseMs(now, services, line.isEmpty()) : timing.pauseMs(now, services);
    const bool isReady = !isFlooded && now - lastAnswerAt < RECENT_MS;
    if (waitMs > 0)
        scheduleCalls(waitMs);
    else if (isReady || !askDaemon())
        makeSomeCalls();
}

// So many answers may come at any time that the daemon is at work on them for long. Then calls are made one at a
// time, each after a question.
bool ManagedServiceDiscovery::Private::isFloodAwaited() const
{
    int settled = 0;
    for (QMap<qint64, ServiceKey>::const_iterator next = unanswered.constBegin();
         next != unanswered.constEnd() && next.key() <= settledResolver && settled < FLOOD; ++next)
        ++settled;
    return settled >= FLOOD;
}

// The daemon is reading it, and perhaps more, just now.
void ManagedServiceDiscovery::Private::newsFromNetwork()
{
    const qint64 now = clock.elapsed();
    timing.newsCame(now);
    lastAnswerAt = now - RECENT_MS;
}

bool ManagedServiceDiscovery::Private::askDaemon()
{
    if (ping.isOpen())
        ping.ask();
    return ping.isAsked();
}

void ManagedServiceDiscovery::Private::daemonAnswered()
{
    settledResolver = lastResolver;
    lastAnswerAt = clock.elapsed();
    const ManagedSession current(this);
    if (isGraceOver)
        finishGrace();
    if (!current.ended())
        makeSomeCalls();
}

void ManagedServiceDiscovery::Private::makeSomeCalls()
{
    if (!hasBegun || !q->client)
        return;
    const bool isFlooded = isFloodAwaited();
    QElapsedTimer turn;
    turn.start();
    const ManagedSession current(this);
    while (!hasFailed && makeNextCall()) {
        if (current.ended())
            return;
        lastAnswerAt = clock.elapsed();
        if (isFlooded || turn.elapsed() >= TURN_MS) {
            scheduleCalls(0);
            return;
        }
    }
}

bool ManagedServiceDiscovery::Private::makeNextCall()
{
    if (!closedResolvers.isEmpty())
        avahi_service_resolver_free(closedResolvers.takeFirst());
    else if (!closedAddressBrowsers.isEmpty())
        avahi_record_browser_free(closedAddressBrowsers.takeFirst());
    else if (!toFollow.isEmpty())
        makeAddressBrowser(toFollow.takeFirst());
    else
        return resolveNext();
    return true;
}

bool ManagedServiceDiscovery::Private::resolveNext()
{
    if (line.isEmpty())
        return false;
    const qint64 now = clock.elapsed();
    if (now < pausedUntil) {
        scheduleCalls(static_cast<int>(pausedUntil - now));
        return false;
    }
    if (!isSettled(now)) {
        if (!askDaemon())
            scheduleCalls(TIME_TO_ANSWER_MS);
        return false;
    }
    const ServiceKey key = line.constBegin().value();
    TrackedService& service = tracked[key];
    if (service.resolver) {
        // The one that is open tells what changes, but not again what it has told. Its place is free first.
        if (unanswered.contains(service.resolverNumber))
            service.turnToOtherLink();
        closeResolver(service);
        return true;
    }
    keepIfThereIsRoom(key, service);
    const bool isFollowed = service.addressBrowser || service.isToBeFollowed;
    if (!hasRoomFor(service.isKept && !isFollowed ? 2 : 1)) {
        scheduleCalls(LOOK_FOR_ROOM_MS);
        return !closedResolvers.isEmpty();
    }
    leaveLine(service);
    makeResolver(key, service);
    return true;
}

bool ManagedServiceDiscovery::Private::isSettled(qint64 now)
{
    if (!ping.isOpen() && now - lastResolverMadeAt >= TIME_TO_ANSWER_MS)
        settledResolver = lastResolver;
    int unsettled = 0;
    for (QMap<qint64, ServiceKey>::const_iterator next = unanswered.upperBound(settledResolver);
         next != unanswered.constEnd(); ++next)
        ++unsettled;
    return unsettled < MOST_UNSETTLED;
}

void ManagedServiceDiscovery::Private::makeResolver(const ServiceKey& key, TrackedService& service)
{
    const QByteArray name = bytesFromText(key.name), type = bytesFromText(key.type),
                     domain = bytesFromText(key.domain);
    service.resolverLink = service.linkToAsk();
    service.resolver
        = avahi_service_resolver_new(q->client, service.resolverLink.first, service.resolverLink.second,
                                     name.constData(), type.constData(), domain.constData(), AVAHI_PROTO_INET,
                                     AVAHI_LOOKUP_USE_MULTICAST, SServiceResolve_callback, q);
    if (!service.resolver) {
        resolverRefused(key);
        return;
    }
    lastResolverMadeAt = clock.elapsed();
    service.resolvingSince = lastResolverMadeAt;
    service.resolverNumber = ++lastResolver;
    unanswered.insert(lastResolver, key);
    resolvers.insert(service.resolver, key);
}

void ManagedServiceDiscovery::Private::resolverRefused(const ServiceKey& key)
{
    const int error = avahi_client_errno(q->client);
    logMessage(LOG_ORDINARY, [&](QTextStream& out) {
        out << "ManagedServiceDiscovery::ResolveService() -> failed create AvahiServiceResolver "
            << printableText(key.name) << " error: " << avahi_strerror(error);
    });
    if (isOfService(error)) {
        drop(key);
        return;
    }
    enqueueFirst(key);
    if (error == AVAHI_ERR_TOO_MANY_OBJECTS)
        coolDown();
    else
        lostConnection();
}

void ManagedServiceDiscovery::Private::makeAddressBrowser(const ServiceKey& key)
{
    const TrackedServices::iterator service = tracked.find(key);
    if (service == tracked.end() || !service->isToBeFollowed)
        return;
    service->isToBeFollowed = false;
    // A device may name a host anywhere; the daemon is not to ask the machine's name server for it.
    service->addressBrowser
        = avahi_record_browser_new(q->client, AVAHI_IF_UNSPEC, AVAHI_PROTO_UNSPEC,
                                   bytesFromText(service->host).constData(), AVAHI_DNS_CLASS_IN, AVAHI_DNS_TYPE_A,
                                   AVAHI_LOOKUP_USE_MULTICAST, SAvahiRecordBrowser_callback, q);
    if (service->addressBrowser) {
        addressBrowsers.insert(service->addressBrowser, key);
        return;
    }
    logMessage(LOG_ORDINARY, [&](QTextStream& out) {
        out << "ManagedServiceDiscovery::ServiceResolve() -> failed to create record browser "
            << printableText(key.name) << " error: " << errorText(q->client);
    });
    const int error = avahi_client_errno(q->client);
    // The daemon may have made it all the same, and only the end of the connection frees it then.
    if (isOfConnection(error))
        lostConnection();
    else
        retryFailed(key, error);
}

bool ManagedServiceDiscovery::Private::hasRoomFor(int objects)
{
    const int closed = static_cast<int>(closedResolvers.size() + closedAddressBrowsers.size());
    const int toCome = awaitedAddressBrowsers() + reservedObjects() - openReservedObjects();
    const int excess = openObjects() - closed + objects + toCome - objectsAllowed();
    if (excess > 0)
        makeRoom(excess);
    return excess <= 0;
}

// Of those that wait for the network in vain, the oldest go first.
void ManagedServiceDiscovery::Private::makeRoom(int excess)
{
    QList<ServiceKey> leaving;
    const qint64 now = clock.elapsed();
    for (QMap<qint64, ServiceKey>::const_iterator next = unanswered.constBegin();
         next != unanswered.constEnd() && leaving.size() < excess; ++next) {
        const TrackedService& service = tracked[next.value()];
        if (now - service.resolvingSince < PATIENCE_MS)
            break;
        if (!service.isKept && now - service.resolvingSince >= patienceMs(service.timesGivenWay))
            leaving.append(next.value());
    }
    for (int i = 0; i < leaving.size(); ++i)
        giveWay(leaving.at(i));
}

void ManagedServiceDiscovery::Private::giveWay(const ServiceKey& key)
{
    TrackedService& service = tracked[key];
    service.turnToOtherLink();
    closeResolver(service);
    if (service.timesGivenWay == 0)
        enqueue(key);
    else
        retryIn(patienceMs(service.timesGivenWay), key);
    ++service.timesGivenWay;
}

// For the browsers, and for a published service.
int ManagedServiceDiscovery::Private::reservedObjects() const
{
    return static_cast<int>(types.size()) + (publishes || q->hasEntryGroup() ? 1 : 0);
}

int ManagedServiceDiscovery::Private::openReservedObjects() const
{
    return static_cast<int>(q->serviceBrowsers.size()) + (q->hasEntryGroup() ? 1 : 0);
}

int ManagedServiceDiscovery::Private::objectsAllowed() const
{
    const int limit = clock.elapsed() < limitedUntil ? qMin(objectLimit, daemonLimit) : objectLimit;
    return qMax(limit, reservedObjects() + OBJECTS_A_SERVICE);
}

// Those of kept queries, which hold two objects each once they are resolved.
int ManagedServiceDiscovery::Private::awaitedAddressBrowsers() const
{
    int awaited = static_cast<int>(toFollow.size());
    for (int i = 0; i < kept.size(); ++i) {
        const TrackedServices::const_iterator service = tracked.constFind(kept.at(i));
        awaited += service->resolver && !service->addressBrowser && !service->isToBeFollowed ? 1 : 0;
    }
    return awaited;
}

// What is open now is as much as the daemon allows, for some time.
void ManagedServiceDiscovery::Private::coolDown()
{
    daemonLimit = openObjects();
    limitedUntil = clock.elapsed() + LIMITED_MS;
    pausedUntil = clock.elapsed() + COOL_DOWN_MS;
    scheduleCalls(COOL_DOWN_MS);
}

void ManagedServiceDiscovery::Private::closeResolver(TrackedService& service)
{
    if (!service.resolver)
        return;
    unanswered.remove(service.resolverNumber);
    resolvers.remove(service.resolver);
    closedResolvers.append(service.resolver);
    service.resolver = nullptr;
    scheduleCalls(0);
}

void ManagedServiceDiscovery::Private::closeAddressBrowser(TrackedService& service)
{
    // The line of those to be followed skips it.
    service.isToBeFollowed = false;
    if (!service.addressBrowser)
        return;
    addressBrowsers.remove(service.addressBrowser);
    closedAddressBrowsers.append(service.addressBrowser);
    service.addressBrowser = nullptr;
    scheduleCalls(0);
}

int ManagedServiceDiscovery::Private::openObjects() const
{
    return static_cast<int>(resolvers.size() + addressBrowsers.size() + closedResolvers.size()
                            + closedAddressBrowsers.size())
           + openReservedObjects();
}

// They go with their client.
void ManagedServiceDiscovery::Private::forgetCalls()
{
    callTimer.stop();
    retryTimer.stop();
    ping.close();
    timing.reset();
    resolvers.clear();
    addressBrowsers.clear();
    closedResolvers.clear();
    closedAddressBrowsers.clear();
    unanswered.clear();
    toFollow.clear();
    line.clear();
    retries.clear();
    parked.clear();
    kept.clear();
    pausedUntil = 0;
    limitedUntil = 0;
    for (TrackedServices::iterator service = tracked.begin(); service != tracked.end(); ++service)
        service->forgetCalls();
}

} // namespace vd
