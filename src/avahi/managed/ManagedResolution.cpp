// SPDX-License-Identifier: MIT
#include "avahi/AvahiText.h"
#include "avahi/ResolvedService.h"
#include "avahi/managed/ManagedServiceDiscoveryPrivate.h"
#include "support/LogMessage.h"

#include <avahi-common/defs.h>

#include <limits>

namespace vd {

namespace {

// What the daemon can answer from its cache, it answers within this time, or within that of some calls when it is slow.
// Longer ones wait for the network, cost the daemon little, and hold up nobody.
const int YOUNG_MS = 20;
const int CALLS_TO_ANSWER = 10;
const int MOST_YOUNG_RESOLVERS = 16;
// How long one turn of the event loop may be spent on making resolvers.
const int TURN_MS = 5;
// When there is no room, a resolver that waits longer than this gives way to the next in line.
const int PATIENCE_MS = 1000;
const int RETRY_MS = 5000;
const int COOL_DOWN_MS = 1000;
const int LIMITED_MS = 60000;
// A browser, and one service that is resolved.
const int LEAST_OBJECTS = 3;
// What long-lived queries must leave to all others.
const int SHARE_OF_OTHERS = 4;

QByteArray stringsOf(AvahiStringList* txt)
{
    QByteArray strings("");
    for (AvahiStringList* entry = txt; entry; entry = avahi_string_list_get_next(entry)) {
        const int size = static_cast<int>(avahi_string_list_get_size(entry));
        // The length in front keeps the strings apart.
        strings.append(QByteArray::number(size)).append(' ');
        strings.append(reinterpret_cast<const char*>(avahi_string_list_get_text(entry)), size);
    }
    return strings;
}

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

} // namespace

void ManagedServiceDiscovery::Private::query(const ServiceKey& key, bool longLived)
{
    TrackedService& service = tracked[key];
    if (longLived) {
        service.isLongLived = true;
        const QMap<QString, SServiceInfo>::iterator known = q->services.find(key.name);
        if (known != q->services.end())
            known->longLiveQuery = true;
    }
    enqueue(key);
}

void ManagedServiceDiscovery::Private::stopQuery(const QString& name, const QString& type)
{
    bool isLongLived = false;
    const ServiceKey from = {name, QString(), QString()};
    for (TrackedServices::iterator service = tracked.lowerBound(from);
         service != tracked.end() && service.key().name == name; ++service) {
        if (type.isEmpty() || service.key().type == type) {
            endKeeping(service.value());
            parked.removeOne(service.key());
        }
        isLongLived = isLongLived || service->isLongLived;
    }
    const QMap<QString, SServiceInfo>::iterator known = q->services.find(name);
    if (known != q->services.end())
        known->longLiveQuery = isLongLived;
}

void ManagedServiceDiscovery::Private::endKeeping(TrackedService& service)
{
    if (!service.isLongLived)
        return;
    service.isLongLived = false;
    service.isKept = false;
    // One that was never answered goes on, as any other does.
    if (service.txt.isNull())
        return;
    closeResolver(service);
    closeAddressBrowser(service);
}

void ManagedServiceDiscovery::Private::enqueue(const ServiceKey& key)
{
    TrackedService& service = tracked[key];
    if (!service.isWaiting) {
        service.isWaiting = true;
        line.append(key);
    }
    scheduleResolving(0);
}

void ManagedServiceDiscovery::Private::scheduleResolving(int milliseconds)
{
    if (!resolveTimer.isActive() || resolveTimer.interval() > milliseconds)
        resolveTimer.start(milliseconds);
}

void ManagedServiceDiscovery::Private::resolveWaiting()
{
    QElapsedTimer turn;
    turn.start();
    if (!hasBegun || hasFailed || !q->client)
        return;
    wakeParked();
    while (!line.isEmpty()) {
        const qint64 now = clock.elapsed();
        if (now < pausedUntil) {
            scheduleResolving(static_cast<int>(pausedUntil - now));
            return;
        }
        if (youngResolvers(now) >= MOST_YOUNG_RESOLVERS) {
            scheduleResolving(youngMs);
            return;
        }
        const ServiceKey key = line.first();
        TrackedService& service = tracked[key];
        // Without the room to be kept open it is resolved as any other, and waits for that room.
        service.isKept = service.isLongLived && hasRoomToKeep(service);
        if (service.isLongLived && !service.isKept && !parked.contains(key))
            parked.append(key);
        if (!makeRoom(service.isKept ? 2 : 1, now)) {
            scheduleResolving(PATIENCE_MS / 10);
            return;
        }
        line.removeFirst();
        service.isWaiting = false;
        if (!startResolver(key))
            return;
        if (turn.elapsed() >= TURN_MS) {
            scheduleResolving(0);
            return;
        }
    }
}

void ManagedServiceDiscovery::Private::wakeParked()
{
    if (parked.isEmpty())
        return;
    const ServiceKey next = parked.first();
    const TrackedServices::const_iterator service = tracked.constFind(next);
    if (service != tracked.constEnd() && !hasRoomToKeep(service.value()))
        return;
    parked.removeFirst();
    if (service != tracked.constEnd())
        enqueue(next);
}

int ManagedServiceDiscovery::Private::youngResolvers(qint64 now)
{
    int young = 0;
    for (int i = static_cast<int>(oldestFirst.size()) - 1; i >= 0; --i, ++young) {
        if (now - tracked[resolvers.value(oldestFirst.at(i))].resolvingSince >= youngMs)
            break;
    }
    return young;
}

bool ManagedServiceDiscovery::Private::makeRoom(int objects, qint64 now)
{
    if (now >= limitedUntil)
        daemonLimit = std::numeric_limits<int>::max();
    const int limit = qMin(objectLimit, daemonLimit) - objects - awaitedAddressBrowsers();
    for (int i = 0; i < oldestFirst.size() && openObjects() > limit;) {
        const ServiceKey key = resolvers.value(oldestFirst.at(i));
        TrackedService& service = tracked[key];
        if (now - service.resolvingSince < PATIENCE_MS)
            break;
        if (service.isKept) {
            ++i;
            continue;
        }
        closeResolver(service);
        enqueue(key);
    }
    return openObjects() <= limit;
}

// Those of kept queries that are not resolved yet.
int ManagedServiceDiscovery::Private::awaitedAddressBrowsers() const
{
    int awaited = 0;
    for (TrackedServices::const_iterator service = tracked.constBegin(); service != tracked.constEnd(); ++service)
        awaited += service->isKept && service->resolver && !service->addressBrowser ? 1 : 0;
    return awaited;
}

bool ManagedServiceDiscovery::Private::hasRoomToKeep(const TrackedService& service) const
{
    if (service.isKept)
        return true;
    int kept = 0;
    for (TrackedServices::const_iterator other = tracked.constBegin(); other != tracked.constEnd(); ++other)
        kept += other->isKept ? 2 : 0;
    const int limit = qMin(objectLimit, daemonLimit);
    return kept + 2 <= limit - limit / SHARE_OF_OTHERS;
}

bool ManagedServiceDiscovery::Private::startResolver(const ServiceKey& key)
{
    TrackedService& service = tracked[key];
    closeResolver(service);
    const QByteArray name = bytesFromText(key.name), type = bytesFromText(key.type),
                     domain = bytesFromText(key.domain);
    QElapsedTimer call;
    call.start();
    AvahiServiceResolver* const resolver
        = avahi_service_resolver_new(q->client, AVAHI_IF_UNSPEC, AVAHI_PROTO_UNSPEC, name.constData(),
                                     type.constData(), domain.constData(), AVAHI_PROTO_INET,
                                     AVAHI_LOOKUP_USE_MULTICAST, SServiceResolve_callback, q);
    if (resolver) {
        const qint64 answerMs = qMin<qint64>(call.elapsed() * CALLS_TO_ANSWER, PATIENCE_MS);
        youngMs = qMax(YOUNG_MS, static_cast<int>(answerMs));
        service.resolver = resolver;
        service.resolvingSince = clock.elapsed();
        resolvers.insert(resolver, key);
        oldestFirst.append(resolver);
        return true;
    }
    const int error = avahi_client_errno(q->client);
    logMessage(LOG_ORDINARY, [&](QTextStream& out) {
        out << "ManagedServiceDiscovery::ResolveService() -> failed create AvahiServiceResolver "
            << printableText(key.name) << " error: " << avahi_strerror(error);
    });
    if (isOfService(error)) {
        forget(key);
        return true;
    }
    service.isWaiting = true;
    line.prepend(key);
    if (error == AVAHI_ERR_TOO_MANY_OBJECTS) {
        coolDown();
    } else {
        lostConnection();
    }
    return false;
}

void ManagedServiceDiscovery::ServiceResolve(AvahiServiceResolver* resolver, int interface, int,
                                             AvahiResolverEvent event, const char* name, const char* type,
                                             const char* domain, const char* host_name,
                                             const AvahiAddress* address, unsigned short port,
                                             AvahiStringList* txt, AvahiLookupResultFlags, void*)
{
    const QHash<AvahiServiceResolver*, ServiceKey>::const_iterator found = d->resolvers.constFind(resolver);
    if (found == d->resolvers.constEnd())
        return;
    const ServiceKey key = found.value();
    if (event == AVAHI_RESOLVER_FAILURE || !address || !host_name) {
        d->resolverFailed(key, client ? avahi_client_errno(client) : AVAHI_ERR_BAD_STATE);
        return;
    }
    if (!isWebService(type)) {
        d->forget(key);
        return;
    }
    SServiceInfo info = services.value(key.name);
    readBasicMembers(info, interface, name, type, host_name, port);
    info.serviceName = key.name;
    if (!readVendorTxtRecord(info, name, type, domain, txt)) {
        d->notRecognised(key);
        return;
    }
    info.txtChecksum = checksumOfHead(txt);
    d->resolved(key, info, textOfAddress(address), stringsOf(txt));
}

// What is known of the service stays as it is.
void ManagedServiceDiscovery::Private::resolverFailed(const ServiceKey& key, int error)
{
    logMessage(LOG_ORDINARY, [&](QTextStream& out) {
        out << "ManagedServiceDiscovery::ServiceResolve() -> failed to resolve service: "
            << printableText(key.name) << " error: " << avahi_strerror(error);
    });
    // One that timed out may still be answered, and is left open for that.
    if (error == AVAHI_ERR_TIMEOUT)
        return;
    closeResolver(tracked[key]);
    retryResolving(key, error);
}

void ManagedServiceDiscovery::Private::retryResolving(const ServiceKey& key, int error)
{
    if (error == AVAHI_ERR_TOO_MANY_OBJECTS)
        coolDown();
    if (!failed.contains(key))
        failed.append(key);
    if (!failedTimer.isActive())
        failedTimer.start(RETRY_MS);
}

// What is open now is as much as the daemon allows, for some time.
void ManagedServiceDiscovery::Private::coolDown()
{
    daemonLimit = qMax(openObjects(), LEAST_OBJECTS);
    limitedUntil = clock.elapsed() + LIMITED_MS;
    pausedUntil = clock.elapsed() + COOL_DOWN_MS;
    scheduleResolving(COOL_DOWN_MS);
}

// A known device stays, whatever its text lacks for once. All others are none of ours.
void ManagedServiceDiscovery::Private::notRecognised(const ServiceKey& key)
{
    if (!q->services.contains(key.name))
        forget(key);
    else if (!tracked[key].isKept)
        closeResolver(tracked[key]);
}

void ManagedServiceDiscovery::Private::resolveFailed()
{
    QList<ServiceKey> again;
    again.swap(failed);
    for (int i = 0; i < again.size(); ++i) {
        if (tracked.contains(again.at(i)))
            enqueue(again.at(i));
    }
}

void ManagedServiceDiscovery::Private::resolved(const ServiceKey& key, const SServiceInfo& info,
                                                const QString& address, const QByteArray& txt)
{
    TrackedService& service = tracked[key];
    if (!service.isKept)
        closeResolver(service);
    const bool isKnown = q->services.contains(key.name);
    const bool isTextChanged = isKnown && !service.txt.isNull() && service.txt != txt;
    service.txt = txt;

    SServiceInfo updated = info;
    updated.longLiveQuery = service.isLongLived;
    const bool isNewAddress = !updated.addresses.contains(address);
    if (isNewAddress) {
        updated.addresses.append(address);
        updated.addressRemoved = false;
    }
    q->services.insert(key.name, updated);
    const QPair<QString, QString> queued(key.name, key.type);
    if (!q->recordQueue.contains(queued))
        q->recordQueue.append(queued);
    openAddressBrowser(key, updated.recordHostName);
    scheduleResolving(0);

    const ManagedSession current(this);
    if (!isKnown)
        Q_EMIT q->serviceFound(updated);
    else if (isNewAddress)
        Q_EMIT q->serviceAddress(updated);
    if (isTextChanged && !current.ended())
        Q_EMIT q->serviceText(updated);
}

void ManagedServiceDiscovery::Private::closeResolver(TrackedService& service)
{
    if (!service.resolver)
        return;
    AvahiServiceResolver* const closed = service.resolver;
    service.resolver = nullptr;
    resolvers.remove(closed);
    oldestFirst.removeOne(closed);
    avahi_service_resolver_free(closed);
    scheduleResolving(0);
}

int ManagedServiceDiscovery::Private::openObjects() const
{
    return static_cast<int>(q->serviceBrowsers.size() + resolvers.size() + addressBrowsers.size())
           + (isPublished ? 1 : 0);
}

} // namespace vd
