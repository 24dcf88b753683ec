// SPDX-License-Identifier: MIT
#include "avahi/AvahiText.h"
#include "avahi/ResolvedService.h"
#include "avahi/managed/ManagedServiceDiscoveryPrivate.h"
#include "support/LogMessage.h"

namespace vd {

namespace {

void appendTo(QByteArray& strings, const QByteArray& string)
{
    // The length in front keeps the strings apart.
    strings.append(QByteArray::number(string.size())).append(' ').append(string);
}

QByteArray answerOf(const SServiceInfo& info, AvahiStringList* txt)
{
    QByteArray strings = QByteArray::number(info.port).append(' ');
    appendTo(strings, bytesFromText(info.recordHostName));
    for (AvahiStringList* entry = txt; entry; entry = avahi_string_list_get_next(entry)) {
        appendTo(strings, QByteArray(reinterpret_cast<const char*>(avahi_string_list_get_text(entry)),
                                     static_cast<int>(avahi_string_list_get_size(entry))));
    }
    return strings;
}

// Devices may publish their text in steps. How long one without a key is left alone, which grows to an hour.
const int FIRST_IGNORED_MS = 5000;
const int LONGEST_IGNORED_MS = 3600 * 1000;

// One that no link answers for is asked for again after this time, which grows to a minute.
const int FIRST_UNANSWERED_MS = 5000;
const int LONGEST_UNANSWERED_MS = 60 * 1000;

} // namespace

void ManagedServiceDiscovery::ServiceResolve(AvahiServiceResolver* resolver, int interface, int,
                                             AvahiResolverEvent event, const char* name, const char* type,
                                             const char* domain, const char* host_name,
                                             const AvahiAddress* address, unsigned short port,
                                             AvahiStringList* txt, AvahiLookupResultFlags, void*)
{
    const QMap<AvahiServiceResolver*, ServiceKey>::const_iterator found = d->resolvers.constFind(resolver);
    if (found == d->resolvers.constEnd())
        return;
    const ServiceKey key = found.value();
    if (event == AVAHI_RESOLVER_FAILURE || !address || !host_name) {
        // The client's errno tells of failures only.
        const bool hasError = event == AVAHI_RESOLVER_FAILURE && client;
        d->resolverFailed(key, hasError ? avahi_client_errno(client) : AVAHI_ERR_INVALID_ADDRESS);
        return;
    }
    if (!isWebService(type)) {
        d->drop(key);
        return;
    }
    SServiceInfo info = services.value(key.name);
    readBasicMembers(info, interface, name, type, host_name, port);
    info.serviceName = key.name;
    if (!readVendorTxtRecord(info, name, type, domain, txt)) {
        d->notRecognised(key);
        return;
    }
    info.txtChecksum = checksumOfHead(txt);
    d->resolved(key, info, textOfAddress(address), answerOf(info, txt));
}

// What is known of the service stays as it is.
void ManagedServiceDiscovery::Private::resolverFailed(const ServiceKey& key, int error)
{
    logMessage(LOG_ORDINARY, [&](QTextStream& out) {
        out << "ManagedServiceDiscovery::ServiceResolve() -> failed to resolve service: "
            << printableText(key.name) << " error: " << avahi_strerror(error);
    });
    TrackedService& service = tracked[key];
    if (error == AVAHI_ERR_TIMEOUT) {
        timedOut(key, service);
        return;
    }
    closeResolver(service);
    retryFailed(key, error);
}

// One that timed out may still be answered, and is left open for that until another link is asked.
void ManagedServiceDiscovery::Private::timedOut(const ServiceKey& key, TrackedService& service)
{
    const bool hasOtherLink = service.turnToOtherLink();
    if (service.timesIgnored > 0) {
        ignore(key, service);
    } else if (service.isKept && !parked.isEmpty()) {
        yieldRoom(key, service);
        askAgainLater(key, service);
    } else if (!service.wasSeen && !service.isLongLived) {
        closeResolver(service);
        if (service.answer.isNull())
            forget(key);
    } else if (hasOtherLink) {
        askAgainLater(key, service);
    }
}

void ManagedServiceDiscovery::Private::askAgainLater(const ServiceKey& key, TrackedService& service)
{
    const int rounds = ++service.timesUnanswered / static_cast<int>(service.linksToAsk().size());
    retryIn(rounds == 0 ? 0 : doubledMs(FIRST_UNANSWERED_MS, rounds - 1, LONGEST_UNANSWERED_MS), key);
}

// A known device stays, whatever its text lacks for once. All others are none of ours, as long as they have no
// key.
void ManagedServiceDiscovery::Private::notRecognised(const ServiceKey& key)
{
    TrackedService& service = tracked[key];
    unanswered.remove(service.resolverNumber);
    if (service.isKept && !service.answer.isNull())
        return;
    closeResolver(service);
    if (!service.answer.isNull())
        return;
    if (!service.wasSeen && !service.isLongLived) {
        forget(key);
        return;
    }
    ignore(key, service);
    removeFromQueue(key);
    dropIfAllIgnored(key.name);
}

void ManagedServiceDiscovery::Private::ignore(const ServiceKey& key, TrackedService& service)
{
    closeResolver(service);
    unkeep(key, service);
    ++service.timesIgnored;
    retryIn(doubledMs(FIRST_IGNORED_MS, service.timesIgnored - 1, LONGEST_IGNORED_MS), key);
}

void ManagedServiceDiscovery::Private::resolved(const ServiceKey& key, const SServiceInfo& info,
                                                const QString& address, const QByteArray& answer)
{
    logMessage(LOG_ORDINARY, [&](QTextStream& out) {
        out << "ManagedServiceDiscovery::ServiceResolve() -> resolved: " << printableText(key.name)
            << " host: " << printableText(info.recordHostName) << " address: " << address;
    });
    TrackedService& service = tracked[key];
    const bool isChanged = !service.answer.isNull() && service.answer != answer;
    noteAnswer(key, service, answer);
    takeFromUnresolved(key);
    if (!service.addresses.contains(address))
        service.addresses.append(address);

    SServiceInfo updated = info;
    updated.longLiveQuery = isAnyLongLived(key.name);
    const bool isNewAddress = !updated.addresses.contains(address);
    if (isNewAddress) {
        updated.addresses.append(address);
        updated.addressRemoved = false;
    }
    const bool isKnown = q->services.contains(key.name);
    q->services.insert(key.name, updated);
    follow(key, updated.recordHostName);

    const ManagedSession current(this);
    if (!isKnown)
        Q_EMIT q->serviceFound(updated);
    else if (isNewAddress)
        Q_EMIT q->serviceAddress(updated);
    if (!isKnown || !isChanged || current.ended())
        return;
    // A slot may have changed or ended what is known of it.
    const QMap<QString, SServiceInfo>::const_iterator known = q->services.constFind(key.name);
    if (known != q->services.constEnd())
        Q_EMIT q->serviceText(SServiceInfo(known.value()));
}

void ManagedServiceDiscovery::Private::noteAnswer(const ServiceKey& key, TrackedService& service,
                                                  const QByteArray& answer)
{
    service.answer = answer;
    service.timesUnanswered = 0;
    service.timesGivenWay = 0;
    service.timesIgnored = 0;
    unanswered.remove(service.resolverNumber);
    if (!service.isKept)
        closeResolver(service);
    putInQueue(key);
}

} // namespace vd
