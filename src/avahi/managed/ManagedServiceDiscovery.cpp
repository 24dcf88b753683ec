// SPDX-License-Identifier: MIT
#include "avahi/AvahiText.h"
#include "avahi/managed/ManagedServiceDiscoveryPrivate.h"

#include <avahi-common/domain.h>

#include <limits>

namespace vd {

namespace {

const int DEFAULT_GRACE_PERIOD_MS = 15000;
const int DEFAULT_OBJECT_LIMIT = 512;
// Room for a browser, and for one service in work beside what is kept open.
const int SMALLEST_OBJECT_LIMIT = 8;
const int NEXT_QUERY_MS = 200;
const char QUERY_DOMAIN[] = "local";

bool isQueryable(const char* name, const char* type)
{
    return name && *name && isAcceptableToAvahi(name) && type && isAcceptableToAvahi(type);
}

ServiceKey keyOf(const char* name, const char* type, const char* domain)
{
    const ServiceKey key = {textFromBytes(name), textFromBytes(type), textFromBytes(domain)};
    return key;
}

} // namespace

ManagedServiceDiscovery::Private::Private(ManagedServiceDiscovery* discovery)
    : q(discovery)
    , state(Unavailable)
    , gracePeriodMs(DEFAULT_GRACE_PERIOD_MS)
    , objectLimit(DEFAULT_OBJECT_LIMIT)
    , publishes(false)
    , isPublished(false)
    , publishedInfo()
    , busSocketWatch(discovery, SLOT(connectSoon()))
    , session(0)
    , clientState(AVAHI_CLIENT_CONNECTING)
    , isConnecting(false)
    , hasFailed(false)
    , hasBegun(false)
    , backoffMs(0)
    , begunAt(0)
    , pausedUntil(0)
    , daemonLimit(std::numeric_limits<int>::max())
    , limitedUntil(0)
    , youngMs(0)
{
    connectTimer.setSingleShot(true);
    graceTimer.setSingleShot(true);
    resolveTimer.setSingleShot(true);
    failedTimer.setSingleShot(true);
    clock.start();
}

ManagedServiceDiscovery::ManagedServiceDiscovery() : d(new Private(this))
{
    qRegisterMetaType<vd::ManagedServiceDiscovery::State>("vd::ManagedServiceDiscovery::State");
    connect(&d->connectTimer, SIGNAL(timeout()), this, SLOT(connectToDaemon()));
    connect(&d->graceTimer, SIGNAL(timeout()), this, SLOT(endGrace()));
    connect(&d->resolveTimer, SIGNAL(timeout()), this, SLOT(resolveWaiting()));
    connect(&d->failedTimer, SIGNAL(timeout()), this, SLOT(resolveFailed()));
    // In place of the base's, which reaches the first and the last of the queue only.
    queryTimer.disconnect(this);
    connect(&queryTimer, SIGNAL(timeout()), this, SLOT(queryNextInTurn()));
}

ManagedServiceDiscovery::~ManagedServiceDiscovery()
{
    ++d->session;
}

ManagedServiceDiscovery::State ManagedServiceDiscovery::state() const
{
    return d->state;
}

int ManagedServiceDiscovery::gracePeriod() const
{
    return d->gracePeriodMs;
}

void ManagedServiceDiscovery::setGracePeriod(int milliseconds)
{
    d->gracePeriodMs = qMax(0, milliseconds);
}

int ManagedServiceDiscovery::objectLimit() const
{
    return d->objectLimit;
}

void ManagedServiceDiscovery::setObjectLimit(int objects)
{
    d->objectLimit = qMax(SMALLEST_OBJECT_LIMIT, objects);
    d->scheduleResolving(0);
}

int ManagedServiceDiscovery::openObjects() const
{
    return d->openObjects();
}

bool ManagedServiceDiscovery::BrowseServices(const char* type)
{
    if (!type || !isAcceptableToAvahi(type) || !avahi_is_valid_service_type_generic(type))
        return false;
    const QByteArray wanted(type);
    if (!d->types.contains(wanted))
        d->types.append(wanted);
    // While it waits to try again, another type is no reason to hurry.
    if (!d->connectTimer.isActive())
        d->connectToDaemon();
    return true;
}

bool ManagedServiceDiscovery::TerminateBrowsing()
{
    d->reset();
    AvahiServiceDiscovery::TerminateBrowsing();
    d->setState(Unavailable);
    return true;
}

bool ManagedServiceDiscovery::IsBrowsing()
{
    return !d->types.isEmpty();
}

bool ManagedServiceDiscovery::ResolveService(unsigned int, const char* name, const char* type, const char* domain)
{
    if (d->types.isEmpty() || !isQueryable(name, type) || !isAcceptableToAvahi(domain))
        return false;
    d->query(keyOf(name, type, domain ? domain : QUERY_DOMAIN), false);
    return true;
}

bool ManagedServiceDiscovery::StartQueryRecords(const char* name, const char* type, bool longLiveQuery)
{
    if (d->types.isEmpty() || !isQueryable(name, type))
        return false;
    d->query(d->trackedKey(textFromBytes(name), textFromBytes(type), textFromBytes(QUERY_DOMAIN)), longLiveQuery);
    return true;
}

void ManagedServiceDiscovery::StopQueryRecords(const char* name, const char* type)
{
    d->stopQuery(textFromBytes(name), textFromBytes(type));
}

bool ManagedServiceDiscovery::RegisterService(const char* name, const char* type, const vd::SReconfigInfo& info)
{
    if (!name || !type)
        return false;
    if (d->state == Running) {
        const ManagedSession current(d.data());
        const bool isPublished = AvahiServiceDiscovery::RegisterService(name, type, info);
        if (current.ended() || !isPublished)
            return false;
        d->isPublished = true;
    }
    d->publishes = true;
    d->publishedName = name;
    d->publishedType = type;
    d->publishedInfo = info;
    return true;
}

bool ManagedServiceDiscovery::TerminateRegistration()
{
    d->publishes = false;
    d->isPublished = false;
    return AvahiServiceDiscovery::TerminateRegistration();
}

bool ManagedServiceDiscovery::IsRegistered()
{
    return d->publishes;
}

void ManagedServiceDiscovery::connectToDaemon()
{
    d->connectToDaemon();
}

void ManagedServiceDiscovery::connectSoon()
{
    d->connectSoon();
}

void ManagedServiceDiscovery::resolveWaiting()
{
    d->resolveWaiting();
}

void ManagedServiceDiscovery::resolveFailed()
{
    d->resolveFailed();
}

void ManagedServiceDiscovery::endGrace()
{
    d->endGrace();
}

void ManagedServiceDiscovery::queryNextInTurn()
{
    queryTimer.setInterval(NEXT_QUERY_MS);
    if (recordQueue.isEmpty() || d->state != Running)
        return;
    const QPair<QString, QString> next = recordQueue.takeFirst();
    recordQueue.append(next);
    StartQueryRecords(bytesFromText(next.first).constData(), bytesFromText(next.second).constData(), false);
}

} // namespace vd
