// SPDX-License-Identifier: MIT
#include "avahi/AvahiText.h"
#include "avahi/ResolvedService.h"
#include "avahi/managed/ManagedServiceDiscoveryPrivate.h"
#include "support/LogMessage.h"

namespace vd {

namespace {

void appendNew(QStringList& addresses, const QStringList& others)
{
    for (int i = 0; i < others.size(); ++i) {
        if (!addresses.contains(others.at(i)))
            addresses.append(others.at(i));
    }
}

} // namespace

ServiceKey keyFromBytes(const char* name, const char* type, const char* domain)
{
    const ServiceKey key = {wholeTextFromBytes(name), textFromBytes(type), textFromBytes(domain)};
    return key;
}

void ManagedServiceDiscovery::ServiceBrowse(AvahiServiceBrowser* browser, int interface, int protocol,
                                            AvahiBrowserEvent event, const char* name, const char* type,
                                            const char* domain, AvahiLookupResultFlags, void*)
{
    // Avahi is freeing the client, or a handler that overrides this one has ended what the event is of.
    if (!client || (browser && !serviceBrowsers.contains(browser)))
        return;
    switch (event) {
    case AVAHI_BROWSER_NEW:
    case AVAHI_BROWSER_REMOVE:
        if (isWebService(type)) {
            const Sighting sighting
                = {static_cast<int>(serviceBrowsers.indexOf(browser)), Link(interface, protocol)};
            d->serviceChanged(keyFromBytes(name, type, domain), sighting, event == AVAHI_BROWSER_NEW);
        }
        break;
    case AVAHI_BROWSER_CACHE_EXHAUSTED:
        break;
    case AVAHI_BROWSER_ALL_FOR_NOW:
        logMessage(LOG_ORDINARY, "ManagedServiceDiscovery::ServiceBrowse() -> all for now");
        break;
    case AVAHI_BROWSER_FAILURE:
        logMessage(LOG_ORDINARY, [=](QTextStream& out) {
            out << "ManagedServiceDiscovery::ServiceBrowse() -> Avahi Browser error: "
                << errorText(browser ? avahi_service_browser_get_client(browser) : client);
        });
        d->lostConnection();
        break;
    }
}

void ManagedServiceDiscovery::Private::serviceChanged(const ServiceKey& key, const Sighting& sighting,
                                                      bool isThere)
{
    logMessage(LOG_ORDINARY, [&](QTextStream& out) {
        out << "ManagedServiceDiscovery::ServiceBrowse() -> " << (isThere ? "seen: " : "no longer seen: ")
            << printableText(key.name) << " type: " << printableText(key.type)
            << " interface: " << sighting.link.first;
    });
    if (isThere)
        appeared(key, sighting);
    else
        disappeared(key, sighting);
}

void ManagedServiceDiscovery::Private::appeared(const ServiceKey& key, const Sighting& sighting)
{
    TrackedService& service = tracked[key];
    service.wasSeen = true;
    // Over the other protocol of the same interface there is nothing else to learn, unless the first does not answer.
    const bool isIpv4 = sighting.link.second == AVAHI_PROTO_INET;
    const bool isNews = !service.isSeenOn(sighting.link.first) || (isIpv4 && service.lostIpv4)
                        || (unanswered.contains(service.resolverNumber) && service.isBetterToAsk(sighting.link));
    if (isIpv4)
        service.lostIpv4 = false;
    if (!service.sightings.contains(sighting))
        service.sightings.append(sighting);
    if (!isNews)
        return;
    service.timesUnanswered = 0;
    enqueue(key);
}

void ManagedServiceDiscovery::Private::disappeared(const ServiceKey& key, const Sighting& sighting)
{
    const TrackedServices::iterator service = tracked.find(key);
    if (service == tracked.end() || !service->sightings.removeOne(sighting))
        return;
    const bool isAskedThere = service->resolver && service->resolverLink == sighting.link;
    if (sighting.link.second == AVAHI_PROTO_INET)
        service->lostIpv4 = true;
    if (service->sightings.isEmpty())
        lose(key);
    else if (isAskedThere || !service->isSeenOn(sighting.link.first))
        enqueue(key); // Its address on that interface may have gone too.
}

void ManagedServiceDiscovery::Private::lose(const ServiceKey& key)
{
    const TrackedService left = tracked.value(key);
    forget(key);
    if (!q->services.contains(key.name))
        return;
    const bool wasDevice = !left.answer.isNull();
    ServiceKey heir;
    if (hasOtherService(key.name, &heir) || (!wasDevice && hasAskedDevice(key.name, &heir)))
        handOver(key, left, heir);
    else
        loseDevice(key.name);
}

// It can never be resolved, so no query waits for it.
void ManagedServiceDiscovery::Private::drop(const ServiceKey& key)
{
    endKeeping(key, tracked[key]);
    lose(key);
}

void ManagedServiceDiscovery::Private::handOver(const ServiceKey& lost, const TrackedService& left,
                                                const ServiceKey& heir)
{
    // The host does not learn of the loss, so its query goes on, should the service return.
    if (left.isLongLived)
        query(lost, true);
    SServiceInfo& known = q->services[heir.name];
    known.longLiveQuery = isAnyLongLived(heir.name);
    putInQueue(heir);
    TrackedService& service = tracked[heir];
    // The record tells of one service at a time.
    if (known.serviceType == lost.type || !service.wasSeen) {
        // What the heir tells is a change, though it be no news of its own.
        if (!service.answer.isNull() && !left.answer.isNull())
            service.answer = left.answer;
        enqueue(heir);
    }
    takeOver(left.addresses, heir);
}

// What could still have been the device has turned out not to be.
void ManagedServiceDiscovery::Private::dropIfAllIgnored(const QString& name)
{
    if (!q->services.contains(name))
        return;
    ServiceKey other;
    if (!hasOtherService(name, &other) && !hasAskedDevice(name, &other))
        loseDevice(name);
    else if (!isQueued(name))
        putInQueue(other);
}

bool ManagedServiceDiscovery::Private::isQueued(const QString& name) const
{
    for (int i = 0; i < q->recordQueue.size(); ++i) {
        if (q->recordQueue.at(i).first == name)
            return true;
    }
    return false;
}

void ManagedServiceDiscovery::Private::loseDevice(const QString& name)
{
    // A slot that runs an event loop may see it return, so it is gone before.
    const SServiceInfo lost = q->services.take(name);
    forgetAsked(name);
    logMessage(LOG_ORDINARY, [&](QTextStream& out) {
        out << "ManagedServiceDiscovery::ServiceBrowse() -> removing service: " << printableText(lost.serviceName);
    });
    Q_EMIT q->serviceLost(lost);
}

// Of what an unresolved service has nothing is known, so it is given what the lost one had until it tells
// otherwise.
void ManagedServiceDiscovery::Private::takeOver(const QStringList& addresses, const ServiceKey& heir)
{
    TrackedService& service = tracked[heir];
    if (service.answer.isNull()) {
        appendNew(service.addresses, addresses);
        return;
    }
    const QString name = heir.name;
    const ManagedSession current(this);
    for (int i = 0; i < addresses.size() && !current.ended(); ++i)
        takeFromRecord(name, addresses.at(i));
}

// What others of its name were given and have not asked for is looked up by one that is resolved.
void ManagedServiceDiscovery::Private::takeFromUnresolved(const ServiceKey& key)
{
    QStringList& addresses = tracked[key].addresses;
    const ServiceKey from = {key.name, QString(), QString()};
    for (TrackedServices::iterator other = tracked.lowerBound(from);
         other != tracked.end() && other.key().name == key.name; ++other) {
        if (!other->answer.isNull())
            continue;
        appendNew(addresses, other->addresses);
        other->addresses.clear();
    }
}

void ManagedServiceDiscovery::Private::forget(const ServiceKey& key)
{
    const TrackedServices::iterator service = tracked.find(key);
    if (service == tracked.end())
        return;
    closeResolver(service.value());
    closeAddressBrowser(service.value());
    leaveLine(service.value());
    forgetRetry(key, service.value());
    unkeep(key, service.value());
    parked.removeOne(key);
    tracked.erase(service);
    removeFromQueue(key);
}

void ManagedServiceDiscovery::Private::putInQueue(const ServiceKey& key)
{
    const QPair<QString, QString> queued(key.name, key.type);
    if (!q->recordQueue.contains(queued))
        q->recordQueue.append(queued);
}

void ManagedServiceDiscovery::Private::removeFromQueue(const ServiceKey& key)
{
    // Beside the domain, which the queue does not know, two services may be the same.
    const ServiceKey from = {key.name, key.type, QString()};
    for (TrackedServices::const_iterator next = tracked.lowerBound(from);
         next != tracked.constEnd() && next.key().name == key.name && next.key().type == key.type; ++next) {
        if (!next->answer.isNull())
            return;
    }
    q->recordQueue.removeOne(qMakePair(key.name, key.type));
}

bool ManagedServiceDiscovery::Private::hasOtherService(const QString& name, ServiceKey* other) const
{
    const ServiceKey from = {name, QString(), QString()};
    for (TrackedServices::const_iterator next = tracked.lowerBound(from);
         next != tracked.constEnd() && next.key().name == name; ++next) {
        if (next->wasSeen && next->timesIgnored == 0) {
            *other = next.key();
            return true;
        }
    }
    return false;
}

// No browser shows it as a device, but what a host asked for is one.
bool ManagedServiceDiscovery::Private::hasAskedDevice(const QString& name, ServiceKey* device) const
{
    const ServiceKey from = {name, QString(), QString()};
    for (TrackedServices::const_iterator next = tracked.lowerBound(from);
         next != tracked.constEnd() && next.key().name == name; ++next) {
        if (!next->wasSeen && !next->answer.isNull()) {
            *device = next.key();
            return true;
        }
    }
    return false;
}

// What hosts asked for of a device ends with it.
void ManagedServiceDiscovery::Private::forgetAsked(const QString& name)
{
    const ServiceKey from = {name, QString(), QString()};
    QList<ServiceKey> asked;
    for (TrackedServices::const_iterator next = tracked.lowerBound(from);
         next != tracked.constEnd() && next.key().name == name; ++next) {
        if (!next->wasSeen)
            asked.append(next.key());
    }
    for (int i = 0; i < asked.size(); ++i)
        forget(asked.at(i));
}

QList<ServiceKey> ManagedServiceDiscovery::Private::trackedKeys(const ServiceKey& wanted) const
{
    const ServiceKey from = {wanted.name, wanted.type, QString()};
    QList<ServiceKey> keys;
    for (TrackedServices::const_iterator next = tracked.lowerBound(from);
         next != tracked.constEnd() && next.key().name == wanted.name && next.key().type == wanted.type; ++next) {
        if (next->wasSeen || !next->answer.isNull())
            keys.append(next.key());
    }
    if (keys.isEmpty())
        keys.append(wanted);
    return keys;
}

} // namespace vd
