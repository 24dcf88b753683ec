// SPDX-License-Identifier: MIT
#include <vd/AvahiServiceDiscovery.h>

#include "avahi/AvahiText.h"
#include "avahi/HandlerScope.h"
#include "support/LogMessage.h"

#include <algorithm>

namespace vd {

namespace {

// Instance names mostly differ at their ends. Looking there first matters, as the queue may be long.
bool isSameText(const QString& one, const QString& other)
{
    const bool mayBeSame
        = one.size() == other.size() && (one.isEmpty() || one.at(one.size() - 1) == other.at(other.size() - 1));
    return mayBeSame && one == other;
}

} // namespace

void AvahiServiceDiscovery::ServiceBrowse(AvahiServiceBrowser* browser, int interface, int,
                                          AvahiBrowserEvent event, const char* name, const char* type,
                                          const char* domain, AvahiLookupResultFlags, void*)
{
    const HandlerScope scope(HandlerScope::Handler, this);
    if (releasing || scope.discoveryEnded())
        return;

    switch (event) {
    case AVAHI_BROWSER_NEW:
        logMessage(LOG_ORDINARY, [=](QTextStream& out) {
            out << "AvahiServiceDiscovery::ServiceBrowse() -> Browsing: ";
            writeService(out, textFromBytes(name), type, domain);
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
                << errorText(browser ? avahi_service_browser_get_client(browser) : client);
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
        out << "AvahiServiceDiscovery::ServiceBrowse() -> removing service: ";
        writeService(out, info.serviceName, type, domain);
    });

    const HandlerScope scope(HandlerScope::Handler, this);
    Q_EMIT serviceLost(info);
    if (scope.discoveryEnded())
        return;

    // Looked up again, as what the slots did may have changed the table.
    const QMap<QString, SServiceInfo>::iterator lost = services.find(key);
    const QString hostKey = lost != services.end() ? lost.value().recordHostName : QString();
    services.remove(hostKey);
    services.remove(key);
    removeFromQueue(key, textFromBytes(type));
}

void AvahiServiceDiscovery::removeFromQueue(const QString& name, const QString& type)
{
    const auto isOfService = [&](const QPair<QString, QString>& queued) {
        return isSameText(queued.first, name) && queued.second == type;
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
