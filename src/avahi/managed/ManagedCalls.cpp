// SPDX-License-Identifier: MIT
#include "avahi/AvahiText.h"
#include "avahi/managed/ManagedServiceDiscoveryPrivate.h"
#include "support/LogMessage.h"

#include <avahi-common/defs.h>

#include <limits>

namespace vd {

namespace {

// How long calls may be made before what they led to is looked at.
const int TURN_MS = 4;
const int MOST_CALLS = 32;
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

// A call waits for the daemon, so one that hangs is not called: it is asked first, without waiting for it.
void ManagedServiceDiscovery::Private::makeCalls()
{
    if (!hasBegun || hasFailed || !q->client)
        return;
    balanceKept();
    if (callThread.isBusy() || ping.isAsked())
        return;
    const bool isReady = lastAnswerAt >= 0 && clock.elapsed() - lastAnswerAt < RECENT_MS;
    if (!hasCallsToMake())
        awaitRoom();
    else if (isReady || !askDaemon())
        makeSomeCalls();
}

// The daemon may allow more then.
void ManagedServiceDiscovery::Private::awaitRoom()
{
    const qint64 now = clock.elapsed();
    if (!parked.isEmpty() && now < limitedUntil)
        scheduleCalls(static_cast<int>(limitedUntil - now));
}

bool ManagedServiceDiscovery::Private::askDaemon()
{
    if (ping.isOpen())
        ping.ask();
    return ping.isAsked();
}

void ManagedServiceDiscovery::Private::daemonAnswered()
{
    if (!callThread.isBusy())
        settledResolver = lastResolver;
    lastAnswerAt = clock.elapsed();
    const ManagedSession current(this);
    if (isGraceOver && !callThread.isBusy())
        finishGrace();
    if (!current.ended())
        makeSomeCalls();
}

// A daemon that is not ready any more, as it reads what a whole network answers, holds up the thread only. What it
// tells meanwhile is read when the client is back.
void ManagedServiceDiscovery::Private::makeSomeCalls()
{
    if (!hasBegun || hasFailed || !q->client || callThread.isBusy())
        return;
    // An exception may have left some.
    if (!calls.isEmpty() && !noteCalls())
        return;
    planCalls();
    if (calls.isEmpty()) {
        awaitRoom();
        return;
    }
    if (isClientIdle()) {
        watchGroup.pause();
        if (callThread.begin([this] { makeCallsInThread(); }))
            return;
        watchGroup.resume();
    }
    calls.make(TURN_MS);
    noteCalls();
}

// Nothing of Avahi is on the stack, so another thread may have the client. Not so with another poll adapter than the
// library's own, whose watches cannot be paused.
bool ManagedServiceDiscovery::Private::isClientIdle() const
{
    return watchGroup.isPausable() && !isConnecting && !isPublishing;
}

void ManagedServiceDiscovery::Private::makeCallsInThread()
{
    const WatchGroup::Scope scope(&watchGroup);
    calls.make(TURN_MS);
}

void ManagedServiceDiscovery::Private::callsReturned()
{
    if (callThread.isBusy() && callThread.hasReturned())
        finishCalls();
}

// Whoever else uses the client waits for the calls that are made in the thread.
bool ManagedServiceDiscovery::Private::finishCalls()
{
    // A slot that ran an event loop may have let the next ones begin.
    while (leaveCalls()) {
        if (!noteCalls())
            return false;
    }
    return true;
}

bool ManagedServiceDiscovery::Private::leaveCalls()
{
    if (!callThread.isBusy())
        return false;
    callThread.wait();
    scheduleCalls(0);
    watchGroup.resume();
    return true;
}

bool ManagedServiceDiscovery::Private::noteCalls()
{
    lastAnswerAt = clock.elapsed();
    const QList<ClientCall> all = calls.takeAll();
    // In reverse, as each goes to the front of those that wait.
    for (int i = static_cast<int>(all.size()) - 1; i >= 0 && !all.at(i).isMade; --i)
        putBack(all.at(i));
    const ManagedSession current(this);
    for (int i = 0; i < all.size() && all.at(i).isMade && !current.ended(); ++i) {
        if (all.at(i).what == ClientCall::MakeResolver)
            resolverMade(all.at(i));
        else if (all.at(i).what == ClientCall::MakeAddressBrowser)
            addressBrowserMade(all.at(i));
    }
    if (!current.ended() && isGraceOver)
        finishGraceIfDaemonAnswers();
    if (current.ended())
        return false;
    if (hasCallsToMake() || !parked.isEmpty())
        scheduleCalls(0);
    return true;
}

void ManagedServiceDiscovery::Private::planCalls()
{
    bool isAnyLeft = true;
    while (isAnyLeft && calls.size() < MOST_CALLS) {
        ClientCall call;
        call.client = q->client;
        call.discovery = q;
        if (!closedResolvers.isEmpty()) {
            call.what = ClientCall::FreeResolver;
            call.resolver = closedResolvers.first();
            calls.append(call);
            closedResolvers.removeFirst();
        } else if (!closedAddressBrowsers.isEmpty()) {
            call.what = ClientCall::FreeAddressBrowser;
            call.addressBrowser = closedAddressBrowsers.first();
            calls.append(call);
            closedAddressBrowsers.removeFirst();
        } else if (!toFollow.isEmpty()) {
            planAddressBrowser(toFollow.takeFirst(), call);
        } else {
            // To make room for it others may have to be freed first.
            isAnyLeft = planResolver(call) || !closedResolvers.isEmpty();
        }
    }
}

bool ManagedServiceDiscovery::Private::planResolver(ClientCall& call)
{
    if (line.isEmpty())
        return false;
    const qint64 now = clock.elapsed();
    if (now < pausedUntil) {
        scheduleCalls(static_cast<int>(pausedUntil - now));
        return false;
    }
    if (!isSettled(now)) {
        // Asked before the calls are made, it would answer for them too early.
        if (calls.isEmpty() && !ping.isAsked() && !askDaemon())
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
    const bool isFollowed = service.addressBrowser || service.isToBeFollowed || service.isFollowPlanned;
    if (!hasRoomFor(service.isKept && !isFollowed ? 2 : 1)) {
        scheduleCalls(LOOK_FOR_ROOM_MS);
        return false;
    }
    leaveLine(service);
    service.resolverLink = service.linkToAsk();
    service.resolvingSince = now;
    lastResolverMadeAt = now;
    service.resolverNumber = ++lastResolver;
    unanswered.insert(lastResolver, key);
    call.what = ClientCall::MakeResolver;
    call.key = key;
    call.link = service.resolverLink;
    call.nameBytes = bytesFromText(key.name);
    call.typeBytes = bytesFromText(key.type);
    call.domainBytes = bytesFromText(key.domain);
    call.resolverCallback = SServiceResolve_callback;
    call.resolverNumber = lastResolver;
    calls.append(call);
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

void ManagedServiceDiscovery::Private::resolverMade(const ClientCall& call)
{
    const TrackedServices::iterator service = tracked.find(call.key);
    const bool isWanted = service != tracked.end() && service->resolverNumber == call.resolverNumber;
    if (!call.resolver) {
        unanswered.remove(call.resolverNumber);
        resolverRefused(call.key, call.error);
    } else if (!isWanted) {
        // It was given up meanwhile.
        unanswered.remove(call.resolverNumber);
        closedResolvers.append(call.resolver);
    } else {
        lastResolverMadeAt = clock.elapsed();
        service->resolver = call.resolver;
        service->resolvingSince = lastResolverMadeAt;
        resolvers.insert(call.resolver, call.key);
    }
}

void ManagedServiceDiscovery::Private::resolverRefused(const ServiceKey& key, int error)
{
    logMessage(LOG_ORDINARY, [&](QTextStream& out) {
        out << "ManagedServiceDiscovery::ResolveService() -> failed create AvahiServiceResolver "
            << printableText(key.name) << " error: " << avahi_strerror(error);
    });
    const bool isWanted = tracked.contains(key);
    if (isOfService(error)) {
        if (isWanted)
            drop(key);
        return;
    }
    if (isWanted)
        enqueueFirst(key);
    if (error == AVAHI_ERR_TOO_MANY_OBJECTS)
        coolDown();
    else
        lostConnection();
}

void ManagedServiceDiscovery::Private::planAddressBrowser(const ServiceKey& key, ClientCall& call)
{
    const TrackedServices::iterator service = tracked.find(key);
    if (service == tracked.end() || !service->isToBeFollowed)
        return;
    service->isToBeFollowed = false;
    service->isFollowPlanned = true;
    call.what = ClientCall::MakeAddressBrowser;
    call.key = key;
    call.host = service->host;
    call.hostBytes = bytesFromText(service->host);
    call.addressCallback = SAvahiRecordBrowser_callback;
    calls.append(call);
}

// It may have been given up meanwhile.
bool ManagedServiceDiscovery::Private::takePlanToFollow(const ClientCall& call)
{
    const TrackedServices::iterator service = tracked.find(call.key);
    if (service == tracked.end() || !service->isFollowPlanned)
        return false;
    service->isFollowPlanned = false;
    return service->host == call.host;
}

void ManagedServiceDiscovery::Private::addressBrowserMade(const ClientCall& call)
{
    const bool isWanted = takePlanToFollow(call);
    if (!call.addressBrowser) {
        addressBrowserRefused(call.key, call.error);
    } else if (!isWanted) {
        closedAddressBrowsers.append(call.addressBrowser);
    } else {
        tracked[call.key].addressBrowser = call.addressBrowser;
        addressBrowsers.insert(call.addressBrowser, call.key);
    }
}

void ManagedServiceDiscovery::Private::addressBrowserRefused(const ServiceKey& key, int error)
{
    logMessage(LOG_ORDINARY, [&](QTextStream& out) {
        out << "ManagedServiceDiscovery::ServiceResolve() -> failed to create record browser "
            << printableText(key.name) << " error: " << avahi_strerror(error);
    });
    // The daemon may have made it all the same, and only the end of the connection frees it then.
    if (isOfConnection(error))
        lostConnection();
    else if (tracked.contains(key))
        retryFailed(key, error);
    else if (error == AVAHI_ERR_TOO_MANY_OBJECTS)
        coolDown();
}

// It was planned, and others took too long or failed.
void ManagedServiceDiscovery::Private::putBack(const ClientCall& call)
{
    switch (call.what) {
    case ClientCall::FreeResolver:
        closedResolvers.prepend(call.resolver);
        break;
    case ClientCall::FreeAddressBrowser:
        closedAddressBrowsers.prepend(call.addressBrowser);
        break;
    case ClientCall::MakeAddressBrowser:
        if (takePlanToFollow(call)) {
            tracked[call.key].isToBeFollowed = true;
            toFollow.prepend(call.key);
        }
        break;
    case ClientCall::MakeResolver:
        unanswered.remove(call.resolverNumber);
        if (tracked.contains(call.key))
            enqueueFirst(call.key);
        break;
    }
}

bool ManagedServiceDiscovery::Private::hasRoomFor(int objects)
{
    const int openWhenAllAreMade = openForServices() + openReservedObjects() + calls.makes();
    const int toCome = awaitedAddressBrowsers() + reservedObjects() - openReservedObjects();
    const int excess = openWhenAllAreMade + objects + toCome - objectsAllowed();
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
        const TrackedServices::const_iterator service = tracked.constFind(next.value());
        if (service == tracked.constEnd())
            continue;
        if (now - service->resolvingSince < PATIENCE_MS)
            break;
        if (!service->isKept && now - service->resolvingSince >= patienceMs(service->timesGivenWay))
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
        const bool isResolved = service->resolver || unanswered.contains(service->resolverNumber);
        const bool isFollowed = service->addressBrowser || service->isToBeFollowed || service->isFollowPlanned;
        awaited += isResolved && !isFollowed ? 1 : 0;
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
    service.isFollowPlanned = false;
    if (!service.addressBrowser)
        return;
    addressBrowsers.remove(service.addressBrowser);
    closedAddressBrowsers.append(service.addressBrowser);
    service.addressBrowser = nullptr;
    scheduleCalls(0);
}

int ManagedServiceDiscovery::Private::openForServices() const
{
    return static_cast<int>(resolvers.size() + addressBrowsers.size());
}

int ManagedServiceDiscovery::Private::openObjects() const
{
    return openForServices() + static_cast<int>(closedResolvers.size() + closedAddressBrowsers.size())
           + openReservedObjects() + calls.mostOpen();
}

// They go with their client.
void ManagedServiceDiscovery::Private::forgetCalls()
{
    callTimer.stop();
    retryTimer.stop();
    ping.close();
    calls.takeAll();
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
    lastAnswerAt = -1;
    pausedUntil = 0;
    limitedUntil = 0;
    for (TrackedServices::iterator service = tracked.begin(); service != tracked.end(); ++service)
        service->forgetCalls();
}

} // namespace vd
