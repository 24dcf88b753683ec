// SPDX-License-Identifier: MIT
#include <vd/AvahiServiceDiscovery.h>

#include "avahi/AvahiText.h"
#include "avahi/HandlerScope.h"
#include "avahi/ResolvedService.h"
#include "avahi/TxtKeys.h"
#include "support/LogMessage.h"

#include <avahi-common/defs.h>

namespace vd {

namespace {

void logResolving(const char* what, const char* name, const char* type, const char* domain)
{
    logMessage(LOG_ORDINARY, [=](QTextStream& out) {
        out << "AvahiServiceDiscovery::ServiceResolve() -> " << what;
        writeService(out, textFromBytes(name), type, domain);
    });
}

} // namespace

bool AvahiServiceDiscovery::ResolveService(unsigned int interfaceIndex, const char* name, const char* type,
                                           const char* domain)
{
    logMessage(LOG_ORDINARY, [=](QTextStream& out) {
        out << "AvahiServiceDiscovery::ResolveService () -> trying to resolve service: " << printableText(name);
    });

    const bool acceptable
        = type && isAcceptableToAvahi(name) && isAcceptableToAvahi(type) && isAcceptableToAvahi(domain);
    AvahiServiceResolver* resolver = nullptr;
    if (client && acceptable) {
        resolver = avahi_service_resolver_new(client, static_cast<AvahiIfIndex>(interfaceIndex),
                                              AVAHI_PROTO_UNSPEC, name, type, domain, AVAHI_PROTO_UNSPEC,
                                              AVAHI_LOOKUP_USE_MULTICAST, SServiceResolve_callback, this);
    }
    if (!resolver) {
        logMessage(LOG_ORDINARY, [=](QTextStream& out) {
            out << "AvahiServiceDiscovery::ResolveService() -> failed create AvahiServiceResolver "
                << printableText(name)
                << " error: " << (acceptable ? errorText(client) : avahi_strerror(AVAHI_ERR_INVALID_ARGUMENT));
        });
        return false;
    }

    if (services[textFromBytes(name)].longLiveQuery) {
        longLiveResolver = resolver;
        freedLongLiveResolver = nullptr;
    }
    return true;
}

void AvahiServiceDiscovery::ServiceResolve(AvahiServiceResolver* resolver, int interface, int protocol,
                                           AvahiResolverEvent event, const char* name, const char* type,
                                           const char* domain, const char* host_name, const AvahiAddress* address,
                                           unsigned short port, AvahiStringList* txt, AvahiLookupResultFlags,
                                           void*)
{
    const HandlerScope scope(HandlerScope::Handler, this, resolver);
    if (releasing || scope.discoveryEnded())
        return;
    const QString key = textFromBytes(name);

    // A failure that is not final goes on with what Avahi passes then: no host, no address, no TXT, port 0.
    const bool stop = event == AVAHI_RESOLVER_FAILURE && isResolveFailureFinal(name, type, domain, host_name);
    if (stop || !isWebService(type)) {
        endResolve(key, scope);
        return;
    }

    SServiceInfo& info = services[key];
    readBasicMembers(info, interface, name, type, host_name, port);

    // An early return from here on leaves the resolver as it is: it may still deliver what is missing.
    if (!readVendorTxtRecord(info, name, type, domain, txt))
        return;
    if (!address) {
        logMessage(LOG_SERIOUS, "AvahiServiceDiscovery::ServiceResolve() -> resolved service without Ip-Address");
        return;
    }

    // Of the head of the TXT list only: that is the string whose changes serviceText reports.
    announceResolved(key, textOfAddress(address), checksumOfHead(txt), scope);
    if (scope.discoveryEnded())
        return;
    followAddresses(interface, protocol, name, type, host_name);
    endResolve(key, scope);
}

bool AvahiServiceDiscovery::isResolveFailureFinal(const char* name, const char* type, const char* domain,
                                                  const char* host_name)
{
    logMessage(LOG_ORDINARY, [=](QTextStream& out) {
        out << "AvahiServiceDiscovery::ServiceResolve() -> failed to resolve service: ";
        writeService(out, textFromBytes(name), type, domain);
        out << " error: " << errorText(client);
    });
    const bool timedOut = client && avahi_client_errno(client) == AVAHI_ERR_TIMEOUT;
    return timedOut && !services.contains(textFromBytes(host_name));
}

bool AvahiServiceDiscovery::readVendorTxtRecord(SServiceInfo& info, const char* name, const char* type,
                                                const char* domain, AvahiStringList* txt)
{
    if (avahi_string_list_find(txt, VANDREL_SERIAL_KEY)) {
        logResolving("resolving Vandrel service: ", name, type, domain);
        info.deviceKind = DEVICE_KIND_VANDREL;
        GetVandrelTxtRecord(info, txt);
        return true;
    }
    if (avahi_string_list_find(txt, SNAP_SERVER_SERIAL_KEY)) {
        logResolving("resolving SNAP SERVER service", name, type, domain);
        info.deviceKind = DEVICE_KIND_SNAP_SERVER;
        GetSnapServerTxtRecord(info, txt);
        return true;
    }
    // Every other web service counts as an Axis device, of which nothing is read yet.
    logResolving("resolving AXIS service: ", name, type, domain);
    logMessage(LOG_ORDINARY, "BTW: not yet implemented!");
    return false;
}

void AvahiServiceDiscovery::announceResolved(const QString& key, const QString& address, quint16 checksum,
                                             const HandlerScope& scope)
{
    SServiceInfo& info = services[key];
    logMessage(LOG_ORDINARY, [&](QTextStream& out) {
        out << "AvahiServiceDiscovery::ServiceResolve() -> CHECKSUM " << QString::number(checksum)
            << QString::number(info.txtChecksum);
    });

    if (info.addresses.isEmpty()) {
        info.addresses.append(address);
        Q_EMIT serviceFound(info);
        // Only now, so that the signal carries the checksum from before.
        if (!scope.discoveryEnded())
            services[key].txtChecksum = checksum;
    } else if (!info.addresses.contains(address)) {
        // The checksum stays, so that a change of the text is reported by the next resolve.
        info.addresses.append(address);
        Q_EMIT serviceAddress(info);
    } else if (info.txtChecksum != checksum) {
        info.txtChecksum = checksum;
        Q_EMIT serviceText(info);
    }
}

void AvahiServiceDiscovery::followAddresses(int interface, int protocol, const char* name, const char* type,
                                            const char* host_name)
{
    const QString key = textFromBytes(name);
    // Pointers, not texts: a host of the same name as its service replaces the service's own entry.
    if (name != host_name) {
        SServiceInfo hostEntry;
        hostEntry.serviceName = key;
        services[textFromBytes(host_name)] = hostEntry;
    }

    // Not looked up first: nobody drains the queue, and a service stands in it once for every resolve.
    recordQueue.append(qMakePair(key, textFromBytes(type)));

    AvahiRecordBrowser* browser = nullptr;
    if (client && host_name) {
        browser = avahi_record_browser_new(client, interface, protocol, host_name, AVAHI_DNS_CLASS_IN,
                                           AVAHI_DNS_TYPE_A, static_cast<AvahiLookupFlags>(0),
                                           SAvahiRecordBrowser_callback, this);
    }
    if (!browser) {
        logMessage(LOG_ORDINARY, [=](QTextStream& out) {
            out << "AvahiServiceDiscovery::ServiceResolve() -> failed to create record browser "
                << printableText(name) << " error: " << errorText(client);
        });
    }
    if (services[key].longLiveQuery)
        longLiveRecordBrowser = browser;
}

void AvahiServiceDiscovery::endResolve(const QString& key, const HandlerScope& scope)
{
    if (!services[key].longLiveQuery && scope.resolver())
        freeResolver(scope.resolver());
}

void AvahiServiceDiscovery::freeResolver(AvahiServiceResolver* resolver)
{
    HandlerScope::noteResolverFreed(innermostHandler, resolver);
    if (resolver == longLiveResolver)
        freedLongLiveResolver = resolver;
    avahi_service_resolver_free(resolver);
}

} // namespace vd
