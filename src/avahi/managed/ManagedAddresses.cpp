// SPDX-License-Identifier: MIT
#include "avahi/AvahiText.h"
#include "avahi/managed/ManagedServiceDiscoveryPrivate.h"
#include "support/LogMessage.h"

#include <avahi-common/defs.h>

namespace vd {

namespace {

// With more address browsers than this, one is closed when the daemon's cache is read, as many slow the daemon down.
const int FEW_ADDRESS_BROWSERS = 32;

bool isIPv4(const QString& address)
{
    return QHostAddress(address).protocol() == QAbstractSocket::IPv4Protocol;
}

} // namespace

void ManagedServiceDiscovery::RecordBrowse(AvahiRecordBrowser* browser, int interface, int protocol,
                                           AvahiBrowserEvent event, const char*, unsigned short, unsigned short,
                                           const void* rdata, unsigned long size, AvahiLookupResultFlags, void*)
{
    const QHash<AvahiRecordBrowser*, ServiceKey>::const_iterator found = d->addressBrowsers.constFind(browser);
    if (found == d->addressBrowsers.constEnd())
        return;
    const ServiceKey key = found.value();
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

void ManagedServiceDiscovery::Private::openAddressBrowser(const ServiceKey& key, const QString& host)
{
    TrackedService& service = tracked[key];
    if (service.addressBrowser && service.host == host)
        return;
    closeAddressBrowser(service);
    service.host = host;
    service.addressLinks.clear();
    service.addressBrowser
        = avahi_record_browser_new(q->client, AVAHI_IF_UNSPEC, AVAHI_PROTO_UNSPEC, bytesFromText(host).constData(),
                                   AVAHI_DNS_CLASS_IN, AVAHI_DNS_TYPE_A, static_cast<AvahiLookupFlags>(0),
                                   SAvahiRecordBrowser_callback, q);
    if (service.addressBrowser) {
        addressBrowsers.insert(service.addressBrowser, key);
        return;
    }
    logMessage(LOG_ORDINARY, [&](QTextStream& out) {
        out << "ManagedServiceDiscovery::ServiceResolve() -> failed to create record browser "
            << printableText(key.name) << " error: " << errorText(q->client);
    });
    retryResolving(key, q->client ? avahi_client_errno(q->client) : AVAHI_ERR_BAD_STATE);
}

void ManagedServiceDiscovery::Private::addressAdded(const ServiceKey& key, const QString& address,
                                                    const Link& link)
{
    QList<Link>& links = tracked[key].addressLinks[address];
    if (!links.contains(link))
        links.append(link);
    SServiceInfo& info = q->services[key.name];
    if (address.isEmpty() || info.addresses.contains(address))
        return;
    info.addresses.append(address);
    info.addressRemoved = false;
    Q_EMIT q->serviceAddress(info);
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
    removeAddress(key.name, address);
}

void ManagedServiceDiscovery::Private::removeAddress(const QString& name, const QString& address)
{
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
    if (service.isKept || service.addressLinks.isEmpty() || addressBrowsers.size() <= FEW_ADDRESS_BROWSERS)
        return;
    const QStringList known = q->services.value(key.name).addresses;
    // An address that the cache does not have may be gone, which only the network can tell.
    for (int i = 0; i < known.size(); ++i) {
        if (!service.addressLinks.contains(known.at(i)))
            return;
    }
    closeAddressBrowser(service);
}

void ManagedServiceDiscovery::Private::addressesComplete(const ServiceKey& key)
{
    TrackedService& service = tracked[key];
    const QMap<QString, QList<Link>> seen = service.addressLinks;
    const SServiceInfo info = q->services.value(key.name);
    if (!service.isKept)
        closeAddressBrowser(service);
    if (seen.isEmpty() || info.recordHostName != service.host)
        return;
    const ManagedSession current(this);
    for (int i = 0; i < info.addresses.size() && !current.ended(); ++i) {
        if (isIPv4(info.addresses.at(i)) && !seen.contains(info.addresses.at(i)))
            removeAddress(key.name, info.addresses.at(i));
    }
}

void ManagedServiceDiscovery::Private::addressBrowserFailed(const ServiceKey& key)
{
    TrackedService& service = tracked[key];
    closeAddressBrowser(service);
    if (service.isLongLived)
        retryResolving(key, AVAHI_ERR_FAILURE);
}

void ManagedServiceDiscovery::Private::closeAddressBrowser(TrackedService& service)
{
    if (!service.addressBrowser)
        return;
    AvahiRecordBrowser* const closed = service.addressBrowser;
    service.addressBrowser = nullptr;
    addressBrowsers.remove(closed);
    avahi_record_browser_free(closed);
    scheduleResolving(0);
}

} // namespace vd
