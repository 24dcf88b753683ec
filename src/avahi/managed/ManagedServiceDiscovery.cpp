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

} // namespace

ManagedServiceDiscovery::Private::Private(ManagedServiceDiscovery* discovery)
    : q(discovery)
    , state(Unavailable)
    , gracePeriodMs(DEFAULT_GRACE_PERIOD_MS)
    , objectLimit(DEFAULT_OBJECT_LIMIT)
    , publishes(false)
    , isPublished(false)
    , isOutdated(false)
    , isPublishing(false)
    , publishedInfo()
    , connectTimer(discovery)
    , publishTimer(discovery)
    , callTimer(discovery)
    , ownCalls(discovery)
    , second(discovery, [this] { lostConnection(); })
    , session(0)
    , clientState(AVAHI_CLIENT_CONNECTING)
    , isConnecting(false)
    , hasFailed(false)
    , hasBegun(false)
    , mayHang(false)
    , pauseMs(0)
    , begunAt(0)
    , graceLeftMs(0)
    , graceExtensions(0)
    , isGraceStepHeldUp(false)
    , isGraceOver(false)
    , lastPlace(0)
    , firstPlace(0)
    , lastResolver(0)
    , settledResolver(0)
    , lastResolverMadeAt(0)
    , lastAnswerAt(-1)
    , hasAddressEvent(false)
    , addressEventsSince(-1)
    , pausedUntil(0)
    , daemonLimit(std::numeric_limits<int>::max())
    , limitedUntil(0)
{
    connectTimer.setObjectName(QLatin1String("connectTimer"));
    connectTimer.setSingleShot(true);
    publishTimer.setObjectName(QLatin1String("publishTimer"));
    publishTimer.setSingleShot(true);
    graceTimer.setSingleShot(true);
    callTimer.setObjectName(QLatin1String("callTimer"));
    callTimer.setSingleShot(true);
    retryTimer.setSingleShot(true);
    clock.start();
}

ManagedServiceDiscovery::ManagedServiceDiscovery() : d(new Private(this))
{
    qRegisterMetaType<vd::ManagedServiceDiscovery::State>("vd::ManagedServiceDiscovery::State");
    connect(&d->connectTimer, SIGNAL(timeout()), this, SLOT(connectToDaemon()));
    connect(&d->busSocketWatch, SIGNAL(appeared()), this, SLOT(connectSoon()));
    connect(&d->publishTimer, SIGNAL(timeout()), this, SLOT(publishWaiting()));
    connect(&d->graceTimer, SIGNAL(timeout()), this, SLOT(passGrace()));
    connect(&d->callTimer, SIGNAL(timeout()), this, SLOT(makeCalls()));
    connect(&d->ping, SIGNAL(answered(bool)), this, SLOT(daemonAnswered(bool)));
    connect(&d->ownCalls.thread, SIGNAL(returned()), this, SLOT(callsReturned()), Qt::QueuedConnection);
    connect(&d->second.thread, SIGNAL(returned()), this, SLOT(callsReturned()), Qt::QueuedConnection);
    connect(&d->retryTimer, SIGNAL(timeout()), this, SLOT(retryWaiting()));
    // In place of the base's, which reaches the first and the last of the queue only.
    queryTimer.disconnect(this);
    connect(&queryTimer, SIGNAL(timeout()), this, SLOT(queryNextInTurn()));
}

ManagedServiceDiscovery::~ManagedServiceDiscovery()
{
    d->reset();
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
    d->scheduleCalls(0);
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
    const ManagedSession current(d.data());
    // While it waits to try again, another type is no reason to hurry.
    if (!d->connectTimer.isActive())
        d->connectToDaemon();
    // A handler that Avahi calls meanwhile may end it, and the object.
    return !current.objectIsGone() && d->types.contains(wanted);
}

bool ManagedServiceDiscovery::TerminateBrowsing()
{
    d->reset();
    AvahiServiceDiscovery::TerminateBrowsing();
    entryGroup = nullptr;
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
    d->query(keyFromBytes(name, type, domain ? domain : QUERY_DOMAIN), false);
    return true;
}

bool ManagedServiceDiscovery::StartQueryRecords(const char* name, const char* type, bool longLiveQuery)
{
    if (d->types.isEmpty() || !isQueryable(name, type))
        return false;
    const QList<ServiceKey> keys = d->trackedKeys(keyFromBytes(name, type, QUERY_DOMAIN));
    for (int i = 0; i < keys.size(); ++i)
        d->query(keys.at(i), longLiveQuery);
    return true;
}

void ManagedServiceDiscovery::StopQueryRecords(const char* name, const char* type)
{
    d->stopQuery(wholeTextFromBytes(name), textFromBytes(type));
}

bool ManagedServiceDiscovery::RegisterService(const char* name, const char* type, const vd::SReconfigInfo& info)
{
    return d->registerService(name, type, info);
}

bool ManagedServiceDiscovery::TerminateRegistration()
{
    return d->terminateRegistration();
}

bool ManagedServiceDiscovery::UpdateTxtRecord(const char* txt)
{
    // A slot may change what is given before it is used.
    const QByteArray given(txt);
    if (hasEntryGroup() && !d->finishCalls())
        return false;
    return AvahiServiceDiscovery::UpdateTxtRecord(txt ? given.constData() : nullptr);
}

bool ManagedServiceDiscovery::AddTxtRecord(const char* txt)
{
    return UpdateTxtRecord(txt);
}

bool ManagedServiceDiscovery::IsRegistered()
{
    return d->isRegistered();
}

void ManagedServiceDiscovery::connectToDaemon()
{
    d->connectToDaemon();
}

void ManagedServiceDiscovery::connectSoon()
{
    d->connectSoon();
}

void ManagedServiceDiscovery::makeCalls()
{
    d->makeCalls();
}

void ManagedServiceDiscovery::daemonAnswered(bool isThere)
{
    d->daemonAnswered(isThere);
}

void ManagedServiceDiscovery::callsReturned()
{
    d->callsReturned();
}

void ManagedServiceDiscovery::retryWaiting()
{
    d->retryWaiting();
}

void ManagedServiceDiscovery::publishWaiting()
{
    d->publish();
}

void ManagedServiceDiscovery::passGrace()
{
    d->passGrace();
}

void ManagedServiceDiscovery::queryNextInTurn()
{
    queryTimer.setInterval(NEXT_QUERY_MS);
    if (recordQueue.isEmpty() || !d->isAtWork())
        return;
    const QPair<QString, QString> next = recordQueue.takeFirst();
    recordQueue.append(next);
    StartQueryRecords(bytesFromText(next.first).constData(), bytesFromText(next.second).constData(), false);
}

} // namespace vd
