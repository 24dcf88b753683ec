// SPDX-License-Identifier: MIT
#include "avahi/AvahiText.h"
#include "avahi/ResolvedService.h"
#include "avahi/managed/ManagedServiceDiscoveryPrivate.h"
#include "support/LogMessage.h"

namespace vd {

namespace {

bool isSeenOn(const TrackedService& service, int interface)
{
    for (int i = 0; i < service.links.size(); ++i) {
        if (service.links.at(i).first == interface)
            return true;
    }
    return false;
}

} // namespace

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
            const ServiceKey key = {textFromBytes(name), textFromBytes(type), textFromBytes(domain)};
            d->serviceChanged(key, Link(interface, protocol), event == AVAHI_BROWSER_NEW);
        }
        break;
    case AVAHI_BROWSER_CACHE_EXHAUSTED:
        d->cacheOfTypeRead(browser);
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

void ManagedServiceDiscovery::Private::serviceChanged(const ServiceKey& key, const Link& link, bool isThere)
{
    logMessage(LOG_ORDINARY, [&](QTextStream& out) {
        out << "ManagedServiceDiscovery::ServiceBrowse() -> " << (isThere ? "seen: " : "no longer seen: ")
            << printableText(key.name) << " type: " << printableText(key.type) << " interface: " << link.first;
    });
    if (isThere)
        appeared(key, link);
    else
        disappeared(key, link);
}

void ManagedServiceDiscovery::Private::cacheOfTypeRead(AvahiServiceBrowser* browser)
{
    timing.cacheRead(static_cast<int>(q->serviceBrowsers.indexOf(browser)), clock.elapsed());
}

void ManagedServiceDiscovery::Private::appeared(const ServiceKey& key, const Link& link)
{
    newsFromNetwork();
    TrackedService& service = tracked[key];
    service.wasSeen = true;
    // Over the other protocol of the same interface there is nothing else to learn.
    const bool isNews = !isSeenOn(service, link.first);
    if (!service.links.contains(link))
        service.links.append(link);
    if (isNews)
        enqueue(key);
}

void ManagedServiceDiscovery::Private::disappeared(const ServiceKey& key, const Link& link)
{
    const TrackedServices::iterator service = tracked.find(key);
    if (service == tracked.end() || !service->links.removeOne(link))
        return;
    if (service->links.isEmpty())
        lose(key);
    else if (!isSeenOn(service.value(), link.first))
        enqueue(key); // Its address on that interface may have gone too.
}

void ManagedServiceDiscovery::Private::lose(const ServiceKey& key)
{
    const QStringList addresses = tracked.value(key).addresses;
    forget(key);
    const QMap<QString, SServiceInfo>::iterator known = q->services.find(key.name);
    if (known == q->services.end())
        return;
    ServiceKey other;
    if (hasOtherService(key.name, &other)) {
        known->longLiveQuery = isAnyLongLived(key.name);
        // The record tells of one service at a time.
        if (known->serviceType == key.type)
            enqueue(other);
        takeOver(addresses, other);
    } else {
        loseDevice(key.name);
    }
}

// What could still have been the device has turned out not to be.
void ManagedServiceDiscovery::Private::dropIfAllIgnored(const QString& name)
{
    ServiceKey other;
    if (q->services.contains(name) && !hasOtherService(name, &other))
        loseDevice(name);
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
    if (service.txt.isNull()) {
        service.addresses += addresses;
        return;
    }
    const QString name = heir.name;
    const ManagedSession current(this);
    for (int i = 0; i < addresses.size() && !current.ended(); ++i)
        takeFromRecord(name, addresses.at(i));
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

void ManagedServiceDiscovery::Private::removeFromQueue(const ServiceKey& key)
{
    // Beside the domain, which the queue does not know, two services may be the same.
    ServiceKey from = {key.name, key.type, QString()};
    const TrackedServices::const_iterator next = tracked.lowerBound(from);
    if (next != tracked.constEnd() && next.key().name == key.name && next.key().type == key.type)
        return;
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

ServiceKey ManagedServiceDiscovery::Private::trackedKey(const QString& name, const QString& type,
                                                        const QString& domain) const
{
    const ServiceKey from = {name, type, QString()};
    for (TrackedServices::const_iterator next = tracked.lowerBound(from);
         next != tracked.constEnd() && next.key().name == name && next.key().type == type; ++next) {
        if (next->wasSeen)
            return next.key();
    }
    const ServiceKey key = {name, type, domain};
    return key;
}

} // namespace vd
