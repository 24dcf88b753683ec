// SPDX-License-Identifier: MIT
#include "avahi/managed/ManagedServiceDiscoveryPrivate.h"

#include <avahi-common/defs.h>
#include <avahi-common/error.h>

namespace vd {

namespace {

// With more address browsers than this, or more services in line to be resolved, one is closed when the daemon's cache is
// read: many slow the daemon down, and their questions bring it a flood of answers.
const int FEW_ADDRESS_BROWSERS = 32;
const int LOOK_AGAIN_MS = 3000;

} // namespace

void ManagedServiceDiscovery::RecordBrowse(AvahiRecordBrowser* browser, int interface, int protocol,
                                           AvahiBrowserEvent event, const char*, unsigned short, unsigned short,
                                           const void* rdata, unsigned long size, AvahiLookupResultFlags, void*)
{
    const QMap<AvahiRecordBrowser*, ServiceKey>::const_iterator found = d->addressBrowsers.constFind(browser);
    if (found == d->addressBrowsers.constEnd())
        return;
    const ServiceKey key = found.value();
    d->addressBrowserTells(browser);
    const QString address = getQHostAddress(static_cast<const unsigned char*>(rdata), size).toString();
    switch (event) {
    case AVAHI_BROWSER_NEW:
        d->addressAdded(key, address, Link(interface, protocol));
        break;
    case AVAHI_BROWSER_REMOVE:
        d->addressRemoved(key, address, Link(interface, protocol));
        break;
    case AVAHI_BROWSER_CACHE_EXHAUSTED:
        d->cacheRead(key);
        break;
    case AVAHI_BROWSER_ALL_FOR_NOW:
        d->addressesComplete(key);
        break;
    case AVAHI_BROWSER_FAILURE:
        d->addressBrowserFailed(key);
        break;
    }
}

// Another may have its turn then.
void ManagedServiceDiscovery::Private::addressBrowserTells(AvahiRecordBrowser* browser)
{
    hasAddressEvent = true;
    if (addressEventsSince < 0)
        addressEventsSince = clock.elapsed();
    if (unreadAddressBrowsers.removeOne(browser) && !toFollow.isEmpty())
        scheduleCalls(0);
}

// Its address browser is made when the daemon is ready for it.
void ManagedServiceDiscovery::Private::follow(const ServiceKey& key, const QString& host)
{
    TrackedService& service = tracked[key];
    // One that is open says only once which addresses there are.
    const bool isFollowed = service.addressBrowser && (service.missing.isEmpty() || !service.isLookComplete);
    if ((isFollowed || service.isToBeFollowed || service.isFollowPlanned) && service.host == host)
        return;
    service.host = host;
    followAnew(key, service);
}

void ManagedServiceDiscovery::Private::followAnew(const ServiceKey& key, TrackedService& service)
{
    closeAddressBrowser(service);
    service.addressLinks.clear();
    service.isToBeFollowed = true;
    service.isLookComplete = false;
    toFollow.append(key);
    scheduleCalls(0);
}

void ManagedServiceDiscovery::Private::addressAdded(const ServiceKey& key, const QString& address,
                                                    const Link& link)
{
    if (address.isEmpty())
        return;
    TrackedService& service = tracked[key];
    QList<Link>& links = service.addressLinks[address];
    if (!links.contains(link))
        links.append(link);
    if (!service.addresses.contains(address))
        service.addresses.append(address);
    service.missing.removeOne(address);
    const QMap<QString, SServiceInfo>::iterator known = q->services.find(key.name);
    if (known == q->services.end() || known->addresses.contains(address))
        return;
    known->addresses.append(address);
    known->addressRemoved = false;
    Q_EMIT q->serviceAddress(SServiceInfo(known.value()));
}

void ManagedServiceDiscovery::Private::addressRemoved(const ServiceKey& key, const QString& address,
                                                      const Link& link)
{
    QMap<QString, QList<Link>>& seen = tracked[key].addressLinks;
    const QMap<QString, QList<Link>>::iterator links = seen.find(address);
    if (links == seen.end())
        return;
    links->removeOne(link);
    if (!links->isEmpty())
        return;
    seen.erase(links);
    removeAddress(key, address);
}

void ManagedServiceDiscovery::Private::removeAddress(const ServiceKey& key, const QString& address)
{
    TrackedService& service = tracked[key];
    service.addresses.removeOne(address);
    service.missing.removeOne(address);
    takeFromUnfollowed(key, address);
    takeFromRecord(key.name, address);
}

// Others of its name on the same host that do not look themselves learn it from this one.
void ManagedServiceDiscovery::Private::takeFromUnfollowed(const ServiceKey& key, const QString& address)
{
    const QString host = tracked[key].host;
    const ServiceKey from = {key.name, QString(), QString()};
    for (TrackedServices::iterator other = tracked.lowerBound(from);
         other != tracked.end() && other.key().name == key.name; ++other) {
        if (other->host != host || other->addressBrowser || other->isToBeFollowed)
            continue;
        other->addresses.removeOne(address);
        other->missing.removeOne(address);
    }
}

// Unless another service of that name still shows it.
void ManagedServiceDiscovery::Private::takeFromRecord(const QString& name, const QString& address)
{
    const ServiceKey from = {name, QString(), QString()};
    for (TrackedServices::const_iterator other = tracked.lowerBound(from);
         other != tracked.constEnd() && other.key().name == name; ++other) {
        if (other->addresses.contains(address))
            return;
    }
    const QMap<QString, SServiceInfo>::iterator known = q->services.find(name);
    if (known == q->services.end() || !known->addresses.removeOne(address))
        return;
    known->addressRemoved = true;
    // What hosts are told is the removed address alone; the record keeps the others.
    SServiceInfo told = known.value();
    told.addresses = QStringList(address);
    Q_EMIT q->serviceAddress(told);
}

void ManagedServiceDiscovery::Private::cacheRead(const ServiceKey& key)
{
    TrackedService& service = tracked[key];
    const bool areFew = addressBrowsers.size() <= FEW_ADDRESS_BROWSERS && line.size() <= FEW_ADDRESS_BROWSERS;
    if (service.isKept || service.addressLinks.isEmpty() || areFew)
        return;
    // An address that the cache does not have may be gone, which only the network can tell.
    for (int i = 0; i < service.addresses.size(); ++i) {
        if (!service.addressLinks.contains(service.addresses.at(i)))
            return;
    }
    closeAddressBrowser(service);
}

void ManagedServiceDiscovery::Private::addressesComplete(const ServiceKey& key)
{
    TrackedService& service = tracked[key];
    const QMap<QString, QList<Link>> seen = service.addressLinks;
    const QStringList known = service.addresses;
    service.isLookComplete = true;
    if (!service.isKept)
        closeAddressBrowser(service);
    if (seen.isEmpty()) {
        // Nobody has answered, so it tells nothing of those that were missing.
        if (!service.missing.isEmpty())
            retryIn(LOOK_AGAIN_MS, key);
        return;
    }
    QStringList missing;
    for (int i = 0; i < known.size(); ++i) {
        if (!seen.contains(known.at(i)))
            missing.append(known.at(i));
    }
    noteMissing(key, missing);
}

// An answer may have been lost or late, so an address has gone only when it is missing twice in a row.
void ManagedServiceDiscovery::Private::noteMissing(const ServiceKey& key, const QStringList& missing)
{
    TrackedService& service = tracked[key];
    const QStringList before = service.missing;
    service.missing = missing;
    if (!missing.isEmpty())
        retryIn(LOOK_AGAIN_MS, key);
    const ManagedSession current(this);
    for (int i = 0; i < missing.size() && !current.ended() && tracked.contains(key); ++i) {
        if (before.contains(missing.at(i)))
            removeAddress(key, missing.at(i));
    }
}

void ManagedServiceDiscovery::Private::addressBrowserFailed(const ServiceKey& key)
{
    TrackedService& service = tracked[key];
    closeAddressBrowser(service);
    if (service.isLongLived || !service.missing.isEmpty())
        retryFailed(key, AVAHI_ERR_FAILURE);
}

} // namespace vd
