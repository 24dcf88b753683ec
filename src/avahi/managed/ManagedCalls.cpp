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
// With so many in line a second client is worth what it takes to make it, and with so many left it stays.
const int MANY_IN_LINE = 64;
const int ENOUGH_IN_LINE = 32;
// Both clients together have no more address browsers than these whose addresses the daemon is yet to read from its
// cache: more of them slow it down.
const int MOST_UNREAD = 24;
// When more wait for their address browsers, the object's own client helps.
const int MOST_FOR_SECOND = 8;
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
// What a device takes to answer at the most.
const int ANSWER_MS = 5000;
const int LOOK_FOR_ROOM_MS = 100;
const int LOOK_FOR_IDLE_MS = 1000;
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
    case AVAHI_ERR_BAD_STATE:
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
    return hasCallsToMake(ownCalls) || hasCallsToMake(second);
}

bool ManagedServiceDiscovery::Private::hasCallsToMake(const ThreadedCalls& calls) const
{
    // An exception may have left some of those that were planned.
    if (!calls.addressBrowsersToFree.isEmpty() || isToFollow(calls)
        || (!calls.isBusy() && !calls.planned.isEmpty()))
        return true;
    return &calls == &ownCalls && (!closedResolvers.isEmpty() || !line.isEmpty());
}

bool ManagedServiceDiscovery::Private::isToFollow(const ThreadedCalls& calls) const
{
    const int place = placeOfNextToFollow(calls);
    if (place == toFollow.size())
        return false;
    if (!second.client())
        return &calls == &ownCalls;
    const int unread = static_cast<int>(unreadAddressBrowsers.size())
                       + ownCalls.planned.count(ClientCall::MakeAddressBrowser)
                       + second.planned.count(ClientCall::MakeAddressBrowser);
    const bool areManyToFollow = toFollow.size() > MOST_FOR_SECOND;
    const bool isForSecond = areManyToFollow || areManyInLine();
    bool isLeftToIt = isForSecond;
    if (&calls == &ownCalls)
        isLeftToIt = !isForSecond || isKept(toFollow.at(place))
                     || (areManyToFollow && unread < MOST_UNREAD - MOST_FOR_SECOND);
    return unread < MOST_UNREAD && isLeftToIt && !isRoomToCome();
}

// The second client ends before long, and what is kept open stays. The address browser that a service had before, on the
// other client, is to be freed first.
int ManagedServiceDiscovery::Private::placeOfNextToFollow(const ThreadedCalls& calls) const
{
    const bool isSecond = &calls == &second;
    const ThreadedCalls& other = isSecond ? ownCalls : second;
    int place = 0;
    while (place < toFollow.size()
           && ((isSecond && isKept(toFollow.at(place))) || other.areAnyOfAddressesFor(toFollow.at(place))))
        ++place;
    return place;
}

bool ManagedServiceDiscovery::Private::isKept(const ServiceKey& key) const
{
    const TrackedServices::const_iterator service = tracked.constFind(key);
    return service != tracked.constEnd() && service->isKept;
}

// Its place is reserved, but what is to leave it may be freed later than the other client takes it.
bool ManagedServiceDiscovery::Private::isRoomToCome() const
{
    const bool isAnyLeaving = !closedResolvers.isEmpty() || ownCalls.frees() > 0 || second.frees() > 0;
    return isAnyLeaving && openObjects() >= objectsAllowed();
}

// A call waits for the daemon, so one that hangs is not called: it is asked first, without waiting for it.
void ManagedServiceDiscovery::Private::makeCalls()
{
    if (!isAtWork())
        return;
    balanceKept();
    endSecondClientIfIdle();
    if (ping.isAsked())
        return;
    const bool isReady = lastAnswerAt >= 0 && clock.elapsed() - lastAnswerAt < RECENT_MS;
    const bool isOwnNext = !ownCalls.isBusy() && hasCallsToMake(ownCalls);
    const bool isSecondNext = !second.isBusy() && hasCallsToMake(second);
    if (!isOwnNext && !isSecondNext) {
        awaitRoom();
    } else if (isReady || ownCalls.isBusy() || !askDaemon()) {
        // An answer that comes after the object's own calls were planned would not be one to these.
        makeSomeCalls();
    }
}

// It costs a connection, its descriptors and a thread.
void ManagedServiceDiscovery::Private::endSecondClientIfIdle()
{
    if (toFollow.isEmpty() && !second.isBusy() && !second.hasWork() && !areManyInLine()
        && !isAnyFollowedBySecond())
        second.clear();
    else if (second.client())
        scheduleCalls(LOOK_FOR_IDLE_MS);
}

bool ManagedServiceDiscovery::Private::isAnyFollowedBySecond() const
{
    for (QMap<AvahiRecordBrowser*, ServiceKey>::const_iterator browser = addressBrowsers.constBegin();
         browser != addressBrowsers.constEnd(); ++browser) {
        const TrackedServices::const_iterator service = tracked.constFind(browser.value());
        if (service != tracked.constEnd() && service->addressBrowserCalls == &second)
            return true;
    }
    return false;
}

// Those in line and those whose answer may come yet. Who was asked longer ago is silent.
bool ManagedServiceDiscovery::Private::areManyInLine() const
{
    int many = static_cast<int>(line.size());
    QMap<qint64, ServiceKey>::const_iterator next = unanswered.constEnd();
    while (many < ENOUGH_IN_LINE && next != unanswered.constBegin()) {
        --next;
        const TrackedServices::const_iterator service = tracked.constFind(next.value());
        if (service != tracked.constEnd() && clock.elapsed() - service->resolvingSince >= ANSWER_MS)
            break;
        ++many;
    }
    return many >= ENOUGH_IN_LINE;
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

void ManagedServiceDiscovery::Private::daemonAnswered(bool isThere)
{
    if (!ownCalls.isBusy())
        settledResolver = lastResolver;
    lastAnswerAt = clock.elapsed();
    if (mayHang) {
        mayHang = false;
        connectToDaemon();
        return;
    }
    const ManagedSession current(this);
    if (isGraceOver && !ownCalls.isBusy())
        finishGrace(isThere);
    if (!current.ended())
        makeSomeCalls();
}

// A daemon that is not ready any more, as it reads what a whole network answers, holds up the threads only. What it
// tells meanwhile is read when the client is back.
void ManagedServiceDiscovery::Private::makeSomeCalls()
{
    // While browsing or publishing begins, Avahi is at work on the object's own client.
    if (!makeSomeCalls(ownCalls, !isConnecting && !isPublishing))
        return;
    // It is of use only where calls are made in threads.
    if (ownCalls.isBusy() && line.size() >= MANY_IN_LINE)
        second.make();
    if (second.client() && !second.isBusy() && !gathersAddressEvents())
        makeSomeCalls(second, true);
}

// What address browsers tell comes one a turn of the event loop, and each leads to a call or two, which are better handed
// over together.
bool ManagedServiceDiscovery::Private::gathersAddressEvents()
{
    const bool areTold = hasAddressEvent && clock.elapsed() - addressEventsSince < TURN_MS;
    hasAddressEvent = false;
    if (areTold)
        scheduleCalls(0);
    else
        addressEventsSince = -1;
    return areTold;
}

bool ManagedServiceDiscovery::Private::makeSomeCalls(ThreadedCalls& calls, bool mayUseThread)
{
    if (!isAtWork() || calls.isBusy())
        return true;
    // An exception may have left some.
    if (!calls.planned.isEmpty() && !noteCalls(calls))
        return false;
    planCalls(calls);
    if (calls.planned.isEmpty()) {
        awaitRoom();
        return true;
    }
    if (mayUseThread && calls.begin(TURN_MS))
        return true;
    calls.planned.make(TURN_MS);
    return noteCalls(calls);
}

void ManagedServiceDiscovery::Private::callsReturned()
{
    if (ownCalls.haveReturned() && !finishCalls())
        return;
    if (second.haveReturned())
        awaitCalls(second);
}

bool ManagedServiceDiscovery::Private::finishCalls()
{
    return awaitCalls(ownCalls) && !hasFailed;
}

bool ManagedServiceDiscovery::Private::awaitCalls(ThreadedCalls& calls)
{
    // A slot that ran an event loop may have let the next ones begin.
    while (calls.isBusy()) {
        scheduleCalls(0);
        calls.wait();
        if (!noteCalls(calls))
            return false;
    }
    return true;
}

void ManagedServiceDiscovery::Private::leaveCalls()
{
    if (ownCalls.isBusy())
        ownCalls.wait();
    second.clear();
}

bool ManagedServiceDiscovery::Private::noteCalls(ThreadedCalls& calls)
{
    lastAnswerAt = clock.elapsed();
    const QList<ClientCall> all = calls.planned.takeAll();
    // In reverse, as each goes to the front of those that wait.
    for (int i = static_cast<int>(all.size()) - 1; i >= 0 && !all.at(i).isMade; --i)
        putBack(all.at(i), calls);
    const ManagedSession current(this);
    for (int i = 0; i < all.size() && all.at(i).isMade && !current.ended(); ++i) {
        if (all.at(i).what == ClientCall::MakeResolver)
            resolverMade(all.at(i));
        else if (all.at(i).what == ClientCall::MakeAddressBrowser)
            addressBrowserMade(all.at(i), calls);
    }
    // While calls are made on the object's client, what the daemon told is not read.
    if (!current.ended() && isGraceOver && !ownCalls.isBusy())
        finishGraceIfDaemonAnswers();
    if (current.ended())
        return false;
    if (hasCallsToMake() || !parked.isEmpty())
        scheduleCalls(0);
    return true;
}

void ManagedServiceDiscovery::Private::planCalls(ThreadedCalls& calls)
{
    const bool isOwn = &calls == &ownCalls;
    bool isAnyLeft = true;
    while (isAnyLeft && calls.planned.size() < MOST_CALLS) {
        if (isOwn && !closedResolvers.isEmpty())
            planToFreeResolver();
        else if (!calls.addressBrowsersToFree.isEmpty())
            planToFreeAddressBrowser(calls);
        else if (isToFollow(calls))
            planAddressBrowser(toFollow.takeAt(placeOfNextToFollow(calls)), calls);
        else
            // To make room for it others may have to be freed first.
            isAnyLeft = isOwn && (planResolver() || !closedResolvers.isEmpty());
    }
}

void ManagedServiceDiscovery::Private::planToFreeResolver()
{
    ClientCall call(ClientCall::FreeResolver);
    call.resolver = closedResolvers.first();
    ownCalls.planned.append(call);
    closedResolvers.removeFirst();
}

void ManagedServiceDiscovery::Private::planToFreeAddressBrowser(ThreadedCalls& calls)
{
    calls.planned.append(calls.addressBrowsersToFree.first());
    calls.addressBrowsersToFree.removeFirst();
}

bool ManagedServiceDiscovery::Private::planResolver()
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
        if (ownCalls.planned.isEmpty() && !ping.isAsked() && !askDaemon())
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
    if (!hasRoomFor(service.isKept && !service.isFollowed() ? 2 : 1)) {
        scheduleCalls(LOOK_FOR_ROOM_MS);
        return false;
    }
    leaveLine(service);
    service.resolverLink = service.linkToAsk();
    service.resolvingSince = now;
    lastResolverMadeAt = now;
    service.resolverNumber = ++lastResolver;
    unanswered.insert(lastResolver, key);
    ClientCall call(ClientCall::MakeResolver);
    call.client = q->client;
    call.discovery = q;
    call.key = key;
    call.link = service.resolverLink;
    call.nameBytes = bytesFromText(key.name);
    call.typeBytes = bytesFromText(key.type);
    call.domainBytes = bytesFromText(key.domain);
    call.resolverCallback = SServiceResolve_callback;
    call.resolverNumber = lastResolver;
    ownCalls.planned.append(call);
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
    if (isOfConnection(error)) {
        callFailed();
    } else if (error == AVAHI_ERR_TOO_MANY_OBJECTS) {
        if (tracked.contains(key))
            enqueueFirst(key);
        coolDown();
    } else if (tracked.contains(key)) {
        if (isOfService(error))
            drop(key);
        else
            retryFailed(key, error);
    }
}

// It may have waited for a daemon that hangs, and so would the next one.
void ManagedServiceDiscovery::Private::callFailed()
{
    noteHang();
    lostConnection();
}

void ManagedServiceDiscovery::Private::planAddressBrowser(const ServiceKey& key, ThreadedCalls& calls)
{
    const TrackedServices::iterator service = tracked.find(key);
    if (service == tracked.end() || !service->isToBeFollowed)
        return;
    service->isToBeFollowed = false;
    service->isFollowPlanned = true;
    ClientCall call(ClientCall::MakeAddressBrowser);
    call.client = &calls == &second ? second.client() : q->client;
    call.discovery = q;
    call.key = key;
    call.hostBytes = bytesFromText(service->host);
    call.addressCallback = SAvahiRecordBrowser_callback;
    calls.planned.append(call);
}

// It may have been given up meanwhile.
bool ManagedServiceDiscovery::Private::takePlanToFollow(const ClientCall& call)
{
    const TrackedServices::iterator service = tracked.find(call.key);
    if (service == tracked.end() || !service->isFollowPlanned)
        return false;
    service->isFollowPlanned = false;
    return true;
}

void ManagedServiceDiscovery::Private::addressBrowserMade(const ClientCall& call, ThreadedCalls& calls)
{
    const bool isWanted = takePlanToFollow(call);
    if (!call.addressBrowser) {
        addressBrowserRefused(call.key, call.error);
    } else if (!isWanted) {
        calls.freeAddressBrowser(call.addressBrowser, call.key);
    } else {
        TrackedService& service = tracked[call.key];
        service.addressBrowser = call.addressBrowser;
        service.addressBrowserCalls = &calls;
        unreadAddressBrowsers.append(call.addressBrowser);
        addressBrowsers.insert(call.addressBrowser, call.key);
        // It was planned before.
        if (service.isKept && &calls == &second)
            followAnew(call.key, service);
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
        callFailed();
    else if (tracked.contains(key))
        retryFailed(key, error);
    else if (error == AVAHI_ERR_TOO_MANY_OBJECTS)
        coolDown();
}

// It was planned, and others took too long or failed.
void ManagedServiceDiscovery::Private::putBack(const ClientCall& call, ThreadedCalls& calls)
{
    switch (call.what) {
    case ClientCall::FreeResolver:
        closedResolvers.prepend(call.resolver);
        break;
    case ClientCall::FreeAddressBrowser:
        calls.addressBrowsersToFree.prepend(call);
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
    const int openWhenAllAreMade
        = openForServices() + openReservedObjects() + ownCalls.planned.makes() + second.planned.makes();
    const int toCome = awaitedAddressBrowsers() + reservedObjects() - openReservedObjects();
    const int excess = openWhenAllAreMade + objects + toCome - objectsAllowed();
    if (excess > 0)
        makeRoom(excess);
    // The other client may free these later than this one takes their places.
    return excess + second.frees() <= 0;
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
        awaited += isResolved && !service->isFollowed() ? 1 : 0;
    }
    return awaited;
}

// It is tried again by whoever was refused, and what waits for the network in vain gives way to it.
bool ManagedServiceDiscovery::Private::noteRefusal()
{
    if (!q->client || avahi_client_errno(q->client) != AVAHI_ERR_TOO_MANY_OBJECTS)
        return false;
    coolDown();
    makeRoom(1);
    return true;
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
    const ServiceKey key = addressBrowsers.take(service.addressBrowser);
    unreadAddressBrowsers.removeOne(service.addressBrowser);
    service.addressBrowserCalls->freeAddressBrowser(service.addressBrowser, key);
    service.addressBrowser = nullptr;
    scheduleCalls(0);
}

int ManagedServiceDiscovery::Private::openForServices() const
{
    return static_cast<int>(resolvers.size() + addressBrowsers.size());
}

int ManagedServiceDiscovery::Private::openObjects() const
{
    const int closed = static_cast<int>(closedResolvers.size() + ownCalls.addressBrowsersToFree.size()
                                        + second.addressBrowsersToFree.size());
    return openForServices() + closed + openReservedObjects() + ownCalls.planned.mostOpen()
           + second.planned.mostOpen();
}

// They go with their client.
void ManagedServiceDiscovery::Private::forgetCalls()
{
    callTimer.stop();
    retryTimer.stop();
    ping.close();
    ownCalls.planned.takeAll();
    ownCalls.addressBrowsersToFree.clear();
    resolvers.clear();
    addressBrowsers.clear();
    unreadAddressBrowsers.clear();
    closedResolvers.clear();
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
