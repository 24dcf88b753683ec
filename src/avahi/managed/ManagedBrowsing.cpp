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
    // Avahi is freeing the client.
    if (!client)
        return;
    if (event == AVAHI_BROWSER_FAILURE) {
        logMessage(LOG_ORDINARY, [=](QTextStream& out) {
            out << "ManagedServiceDiscovery::ServiceBrowse() -> Avahi Browser error: "
                << errorText(browser ? avahi_service_browser_get_client(browser) : client);
        });
        d->lostConnection();
        return;
    }
    if (!isWebService(type))
        return;
    const ServiceKey key = {textFromBytes(name), textFromBytes(type), textFromBytes(domain)};
    if (event == AVAHI_BROWSER_NEW)
        d->appeared(key, Link(interface, protocol));
    else if (event == AVAHI_BROWSER_REMOVE)
        d->disappeared(key, Link(interface, protocol));
}

void ManagedServiceDiscovery::Private::appeared(const ServiceKey& key, const Link& link)
{
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
    forget(key);
    const QMap<QString, SServiceInfo>::const_iterator known = q->services.constFind(key.name);
    if (known == q->services.constEnd())
        return;
    ServiceKey other;
    if (hasOtherService(key, &other)) {
        // The record tells of one service at a time.
        if (known->serviceType == key.type)
            enqueue(other);
        return;
    }
    const SServiceInfo lost = known.value();
    forgetName(key.name);
    logMessage(LOG_ORDINARY, [&](QTextStream& out) {
        out << "ManagedServiceDiscovery::ServiceBrowse() -> removing service: " << printableText(lost.serviceName);
    });
    const ManagedSession current(this);
    Q_EMIT q->serviceLost(lost);
    if (!current.ended())
        q->services.remove(key.name);
}

void ManagedServiceDiscovery::Private::forget(const ServiceKey& key)
{
    const TrackedServices::iterator service = tracked.find(key);
    if (service == tracked.end())
        return;
    closeResolver(service.value());
    closeAddressBrowser(service.value());
    tracked.erase(service);
    line.removeOne(key);
    parked.removeOne(key);
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

bool ManagedServiceDiscovery::Private::hasOtherService(const ServiceKey& key, ServiceKey* other) const
{
    const ServiceKey from = {key.name, QString(), QString()};
    for (TrackedServices::const_iterator next = tracked.lowerBound(from);
         next != tracked.constEnd() && next.key().name == key.name; ++next) {
        if (next->wasSeen) {
            *other = next.key();
            return true;
        }
    }
    return false;
}

// What hosts asked for of a device ends with it.
void ManagedServiceDiscovery::Private::forgetName(const QString& name)
{
    const ServiceKey from = {name, QString(), QString()};
    TrackedServices::const_iterator next = tracked.lowerBound(from);
    while (next != tracked.constEnd() && next.key().name == name) {
        const ServiceKey key = next.key();
        forget(key);
        next = tracked.lowerBound(from);
    }
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
