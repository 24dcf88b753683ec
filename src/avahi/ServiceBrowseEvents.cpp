// SPDX-License-Identifier: MIT
#include <vd/AvahiServiceDiscovery.h>

#include "avahi/HandlerScope.h"
#include "support/LogMessage.h"

#include <avahi-common/error.h>

#include <algorithm>

namespace vd {

namespace {

// Instance names mostly differ at their ends. Looking there first matters, as the queue may be long.
bool isSameText(const QString& one, const QString& other)
{
    return one.size() == other.size() && std::equal(one.crbegin(), one.crend(), other.crbegin());
}

} // namespace

void AvahiServiceDiscovery::ServiceBrowse(AvahiServiceBrowser* browser, int interface, int,
                                          AvahiBrowserEvent event, const char* name, const char* type,
                                          const char* domain, AvahiLookupResultFlags, void*)
{
    if (releasing)
        return;

    switch (event) {
    case AVAHI_BROWSER_NEW:
        logMessage(LOG_ORDINARY, [=](QTextStream& out) {
            out << "AvahiServiceDiscovery::ServiceBrowse() -> Browsing: " << printableText(name)
                << " type: " << printableText(type) << " domain: " << printableText(domain);
        });
        ResolveService(static_cast<unsigned int>(interface), name, type, domain);
        break;
    case AVAHI_BROWSER_REMOVE:
        removeService(name, type, domain);
        break;
    case AVAHI_BROWSER_CACHE_EXHAUSTED:
        logMessage(LOG_ORDINARY,
                   "AvahiServiceDiscovery::ServiceBrowse() -> cache exhausted - service restarting might help!");
        break;
    case AVAHI_BROWSER_ALL_FOR_NOW:
        logMessage(LOG_ORDINARY, "AvahiServiceDiscovery::ServiceBrowse() -> all for now");
        break;
    case AVAHI_BROWSER_FAILURE:
        logMessage(LOG_ORDINARY, [=](QTextStream& out) {
            out << "AvahiServiceDiscovery::ServiceBrowse() -> Avahi Browser error: "
                << (browser ? avahi_strerror(avahi_client_errno(avahi_service_browser_get_client(browser)))
                            : clientErrorText());
        });
        break;
    }
}

void AvahiServiceDiscovery::removeService(const char* name, const char* type, const char* domain)
{
    const QString key = textFromBytes(name);
    const QMap<QString, SServiceInfo>::const_iterator known = services.constFind(key);
    if (known == services.constEnd())
        return;
    const SServiceInfo info = known.value();
    logMessage(LOG_ORDINARY, [&](QTextStream& out) {
        out << "AvahiServiceDiscovery::ServiceBrowse() -> removing service: " << printableText(info.serviceName)
            << " type: " << printableText(type) << " domain: " << printableText(domain);
    });

    const HandlerScope scope(this);
    Q_EMIT serviceLost(info);
    if (scope.discoveryEnded())
        return;

    // Looked up again, as what the slots did may have changed the table.
    const QMap<QString, SServiceInfo>::iterator lost = services.find(key);
    const QString hostKey = lost != services.end() ? lost.value().recordHostName : QString();
    services.remove(hostKey);
    services.remove(key);

    const QString typeText = textFromBytes(type);
    const auto isOfService = [&](const QPair<QString, QString>& queued) {
        return isSameText(queued.first, key) && queued.second == typeText;
    };
    const QList<QPair<QString, QString>>::iterator first
        = std::find_if(recordQueue.begin(), recordQueue.end(), isOfService);
    if (first == recordQueue.end())
        return;
    // Taking out a single entry is cheaper than moving all that stand behind it.
    if (std::find_if(first + 1, recordQueue.end(), isOfService) == recordQueue.end())
        recordQueue.erase(first);
    else
        recordQueue.erase(std::remove_if(first, recordQueue.end(), isOfService), recordQueue.end());
}

} // namespace vd
