// SPDX-License-Identifier: MIT
#include <vd/AvahiServiceDiscovery.h>

#include "avahi/AvahiText.h"
#include "avahi/HandlerScope.h"
#include "support/LogMessage.h"

namespace vd {

namespace {

void logRecord(const char* name, const char* what, const QString& address)
{
    logMessage(LOG_ORDINARY, [&](QTextStream& out) {
        out << "AvahiServiceDiscovery::RecordBrowse() -> " << printableText(name) << what << address;
    });
}

} // namespace

bool AvahiServiceDiscovery::StartQueryRecords(const char* name, const char* type, bool longLiveQuery)
{
    logMessage(LOG_ORDINARY, [=](QTextStream& out) {
        out << "AvahiServiceDiscovery::StartQueryRecords () -> " << printableText(name) << " on "
            << printableText(services[textFromBytes(name)].recordHostName) << " longLiveQuery "
            << (longLiveQuery ? "1" : "0");
    });
    if (longLiveQuery)
        services[textFromBytes(name)].longLiveQuery = true;
    return ResolveService(static_cast<unsigned int>(AVAHI_IF_UNSPEC), name, type, "local");
}

void AvahiServiceDiscovery::StopQueryRecords(const char* name, const char*)
{
    logMessage(LOG_ORDINARY, [=](QTextStream& out) {
        out << "AvahiServiceDiscovery::StopQueryRecords () -> unregistering long live query: "
            << printableText(name);
    });
    const QString key = textFromBytes(name);
    if (services.contains(key))
        services[key].longLiveQuery = false;

    // Only the one kept last is known, be it this service's or not. The address browser ends by itself.
    if (longLiveResolver && longLiveResolver != freedLongLiveResolver)
        freeResolver(longLiveResolver);
    longLiveResolver = nullptr;
}

void AvahiServiceDiscovery::RecordBrowse(AvahiRecordBrowser* browser, int, int, AvahiBrowserEvent event,
                                         const char* name, unsigned short, unsigned short, const void* rdata,
                                         unsigned long size, AvahiLookupResultFlags, void*)
{
    const HandlerScope scope(HandlerScope::Handler, this);
    if (releasing || scope.discoveryEnded())
        return;
    logMessage(LOG_ORDINARY, [=](QTextStream& out) {
        out << "AvahiServiceDiscovery::RecordBrowse() -> trying to resolve records from " << printableText(name);
    });
    const QString address = getQHostAddress(static_cast<const unsigned char*>(rdata), size).toString();
    const QString key = services[textFromBytes(name)].serviceName;

    switch (event) {
    case AVAHI_BROWSER_NEW:
        addAddress(key, address);
        logRecord(name, " found inetAddr: ", address);
        return;
    case AVAHI_BROWSER_REMOVE:
        if (markAddressRemoved(key, address))
            logRecord(name, " removing inetAddr: ", address);
        return;
    case AVAHI_BROWSER_CACHE_EXHAUSTED:
        logRecord(name, " avahi cache exhausted  - service restarting might help!", QString());
        break;
    case AVAHI_BROWSER_FAILURE:
        logMessage(LOG_ORDINARY, [=](QTextStream& out) {
            out << "AvahiServiceDiscovery::RecordBrowse() -> Avahi Browser error: "
                << errorText(browser ? avahi_record_browser_get_client(browser) : client);
        });
        break;
    case AVAHI_BROWSER_ALL_FOR_NOW:
        break;
    }

    if (!services[key].longLiveQuery && browser)
        avahi_record_browser_free(browser);
}

void AvahiServiceDiscovery::addAddress(const QString& key, const QString& address)
{
    SServiceInfo& info = services[key];
    if (info.addresses.contains(address))
        return;
    info.addresses.append(address);
    info.addressRemoved = false;
    Q_EMIT serviceAddress(info);
}

bool AvahiServiceDiscovery::markAddressRemoved(const QString& key, const QString& address)
{
    SServiceInfo& info = services[key];
    if (!info.addresses.contains(address))
        return false;
    // Not taken out of the list: what hosts are told is the removed address alone, and the entry keeps that.
    info.addresses = QStringList(address);
    info.addressRemoved = true;
    Q_EMIT serviceAddress(info);
    return true;
}

} // namespace vd
