// SPDX-License-Identifier: MIT
#include "avahi/managed/ManagedServiceDiscoveryPrivate.h"

#include <avahi-common/error.h>

namespace vd {

namespace {

const int RETRY_MS = 5000;
// What long-lived queries must leave to all others.
const int SHARE_OF_OTHERS = 4;

} // namespace

void ManagedServiceDiscovery::Private::query(const ServiceKey& key, bool longLived)
{
    // cppcheck-suppress variableScope ; it is tracked whether it is asked for this or not
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
    const ServiceKey from = {name, QString(), QString()};
    QList<ServiceKey> inVain;
    for (TrackedServices::iterator service = tracked.lowerBound(from);
         service != tracked.end() && service.key().name == name; ++service) {
        if (!service->isLongLived || !(type.isEmpty() || service.key().type == type))
            continue;
        endKeeping(service.key(), service.value());
        if (!service->wasSeen && service->answer.isNull())
            inVain.append(service.key());
    }
    for (int i = 0; i < inVain.size(); ++i)
        forget(inVain.at(i));
    const QMap<QString, SServiceInfo>::iterator known = q->services.find(name);
    if (known != q->services.end())
        known->longLiveQuery = isAnyLongLived(name);
}

bool ManagedServiceDiscovery::Private::isAnyLongLived(const QString& name) const
{
    const ServiceKey from = {name, QString(), QString()};
    for (TrackedServices::const_iterator service = tracked.lowerBound(from);
         service != tracked.constEnd() && service.key().name == name; ++service) {
        if (service->isLongLived)
            return true;
    }
    return false;
}

void ManagedServiceDiscovery::Private::endKeeping(const ServiceKey& key, TrackedService& service)
{
    service.isLongLived = false;
    parked.removeOne(key);
    unkeep(key, service);
    closeAnswered(service);
}

// What is not answered yet goes on, as with any other service.
void ManagedServiceDiscovery::Private::closeAnswered(TrackedService& service)
{
    if (!unanswered.contains(service.resolverNumber))
        closeResolver(service);
    if (service.isLookComplete)
        closeAddressBrowser(service);
}

void ManagedServiceDiscovery::Private::enqueue(const ServiceKey& key)
{
    TrackedService& service = tracked[key];
    forgetRetry(key, service);
    if (!service.isWaiting) {
        service.isWaiting = true;
        service.place = ++lastPlace;
        line.insert(service.place, key);
    }
    scheduleCalls(0);
}

void ManagedServiceDiscovery::Private::enqueueFirst(const ServiceKey& key)
{
    TrackedService& service = tracked[key];
    leaveLine(service);
    service.isWaiting = true;
    service.place = --firstPlace;
    line.insert(service.place, key);
}

void ManagedServiceDiscovery::Private::leaveLine(TrackedService& service)
{
    if (service.isWaiting)
        line.remove(service.place);
    service.isWaiting = false;
}

void ManagedServiceDiscovery::Private::retryFailed(const ServiceKey& key, int error)
{
    if (error == AVAHI_ERR_TOO_MANY_OBJECTS)
        coolDown();
    retryIn(RETRY_MS, key);
}

void ManagedServiceDiscovery::Private::retryIn(int milliseconds, const ServiceKey& key)
{
    TrackedService& service = tracked[key];
    const qint64 at = clock.elapsed() + milliseconds;
    if (service.isWaiting || (service.retryAt >= 0 && service.retryAt <= at))
        return;
    forgetRetry(key, service);
    service.retryAt = at;
    retries.insert(at, key);
    if (!retryTimer.isActive() || retries.constBegin().key() == at)
        retryTimer.start(milliseconds);
}

void ManagedServiceDiscovery::Private::forgetRetry(const ServiceKey& key, TrackedService& service)
{
    if (service.retryAt >= 0)
        retries.remove(service.retryAt, key);
    service.retryAt = -1;
}

void ManagedServiceDiscovery::Private::retryWaiting()
{
    const qint64 now = clock.elapsed();
    while (!retries.isEmpty() && retries.constBegin().key() <= now) {
        const ServiceKey key = retries.constBegin().value();
        enqueue(key);
    }
    if (!retries.isEmpty())
        retryTimer.start(static_cast<int>(retries.constBegin().key() - now));
}

// Without the room to be kept open it is resolved as any other, and waits for that room.
void ManagedServiceDiscovery::Private::keepIfThereIsRoom(const ServiceKey& key, TrackedService& service)
{
    if (!service.isLongLived || service.isKept)
        return;
    if (hasRoomToKeep())
        keep(key, service);
    else if (!parked.contains(key))
        parked.append(key);
}

void ManagedServiceDiscovery::Private::keep(const ServiceKey& key, TrackedService& service)
{
    service.isKept = true;
    kept.append(key);
    parked.removeOne(key);
    // The second client is not to be kept for it.
    if (service.addressBrowser && service.addressBrowserCalls == &second)
        followAnew(key, service);
}

void ManagedServiceDiscovery::Private::unkeep(const ServiceKey& key, TrackedService& service)
{
    if (!service.isKept)
        return;
    service.isKept = false;
    kept.removeOne(key);
    scheduleCalls(0);
}

bool ManagedServiceDiscovery::Private::hasRoomToKeep() const
{
    return kept.size() < mostKept();
}

// A kept service holds two objects.
int ManagedServiceDiscovery::Private::mostKept() const
{
    const int room = objectsAllowed() - reservedObjects();
    return (room - qMax(1, room / SHARE_OF_OTHERS)) / 2;
}

void ManagedServiceDiscovery::Private::balanceKept()
{
    while (!parked.isEmpty() && hasRoomToKeep()) {
        const ServiceKey next = parked.first();
        keep(next, tracked[next]);
        enqueue(next);
    }
    while (!kept.isEmpty() && kept.size() > mostKept())
        park(kept.last());
}

// To a query that may be answered; it has its turn again after all that wait.
void ManagedServiceDiscovery::Private::yieldRoom(const ServiceKey& key, TrackedService& service)
{
    closeResolver(service);
    closeAnswered(service);
    unkeep(key, service);
    parked.append(key);
}

void ManagedServiceDiscovery::Private::park(const ServiceKey& key)
{
    TrackedService& service = tracked[key];
    parked.prepend(key);
    closeAnswered(service);
    unkeep(key, service);
}

} // namespace vd
