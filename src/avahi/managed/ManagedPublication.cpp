// SPDX-License-Identifier: MIT
#include "avahi/AvahiText.h"
#include "avahi/TxtRecordWriter.h"
#include "avahi/managed/ManagedServiceDiscoveryPrivate.h"
#include "support/LogMessage.h"

#include <avahi-common/domain.h>

namespace vd {

namespace {

bool isValid(const char* name, const char* type)
{
    return name && isAcceptableToAvahi(name) && avahi_is_valid_service_name(name) && type
           && isAcceptableToAvahi(type) && avahi_is_valid_service_type_strict(type);
}

} // namespace

void ManagedServiceDiscovery::AvahiEntryGroupChanged(AvahiEntryGroup* group, AvahiEntryGroupState changedTo,
                                                     void* userdata)
{
    AvahiServiceDiscovery::AvahiEntryGroupChanged(group, changedTo, userdata);
    d->groupChanged(changedTo);
}

// After a collision nothing is done before the next restart, as another host has the name.
void ManagedServiceDiscovery::Private::groupChanged(AvahiEntryGroupState changedTo)
{
    if (changedTo == AVAHI_ENTRY_GROUP_ESTABLISHED)
        publishBackoff.reset();
    if (changedTo != AVAHI_ENTRY_GROUP_FAILURE)
        return;
    isOutdated = true;
    if (needsRenewal())
        publishLater();
}

// Avahi asks for it. What names a host that is called otherwise now, or another one, is withdrawn at once.
void ManagedServiceDiscovery::Private::hostChanged(AvahiClientState changedTo)
{
    if (changedTo != AVAHI_CLIENT_S_RUNNING)
        isOutdated = true;
    publishTimer.start(0);
}

bool ManagedServiceDiscovery::Private::needsRenewal() const
{
    return isPublished && isOutdated;
}

bool ManagedServiceDiscovery::Private::registerService(const char* name, const char* type,
                                                       const SReconfigInfo& info)
{
    // A slot may change what is given before it is used.
    const QByteArray givenName(name), givenType(type);
    const SReconfigInfo givenInfo = info;
    const char* const nameToUse = name ? givenName.constData() : nullptr;
    const char* const typeToUse = type ? givenType.constData() : nullptr;
    // The calls may turn out to have failed, and a slot may publish something meanwhile.
    const ManagedSession current(this);
    finishCalls();
    if (current.ended())
        return false;
    const bool isAccepted = publishes || isPublishing ? replace(nameToUse, typeToUse, givenInfo)
                                                      : accept(nameToUse, typeToUse, givenInfo);
    // The object may be gone.
    if (!isAccepted)
        return false;
    publishes = true;
    publishedName = givenName;
    publishedType = givenType;
    publishedInfo = givenInfo;
    if (needsRenewal())
        publishLater();
    return true;
}

bool ManagedServiceDiscovery::Private::accept(const char* name, const char* type, const SReconfigInfo& info)
{
    if (!types.isEmpty() && !isDaemonReady() && isPublishable(name, type, info))
        return true;
    // Of what cannot be published, and of a missing client, it is the base that tells.
    return add(name, type, info);
}

// As long as there is one the daemon refuses another, and so it is while the daemon is away.
bool ManagedServiceDiscovery::Private::replace(const char* name, const char* type, const SReconfigInfo& info)
{
    if (isPublished || isPublishing)
        return finishCalls() && q->AvahiServiceDiscovery::RegisterService(name, type, info);
    logMessage(LOG_ORDINARY, [this](QTextStream& out) {
        out << "ManagedServiceDiscovery::RegisterService() -> a service is registered already: "
            << printableText(publishedName.constData());
    });
    return false;
}

bool ManagedServiceDiscovery::Private::isDaemonReady() const
{
    return q->client && !hasFailed && clientState == AVAHI_CLIENT_S_RUNNING;
}

bool ManagedServiceDiscovery::Private::isPublishable(const char* name, const char* type, const SReconfigInfo& info)
{
    q->CreateTxtRecord(info);
    return isValid(name, type) && reasonNotToPublish(info, q->txtRecord).isEmpty();
}

bool ManagedServiceDiscovery::Private::terminateRegistration()
{
    // What the daemon does not have any more, or cannot be asked about, goes with its client.
    const ManagedSession current(this);
    bool isWithdrawn = hasFailed || withdraw();
    if (current.ended())
        return false;
    isWithdrawn = isWithdrawn || hasFailed;
    // A group that was freed with an error is gone all the same.
    if (isWithdrawn || !q->hasEntryGroup()) {
        publishes = false;
        endPublication();
    }
    return isWithdrawn;
}

bool ManagedServiceDiscovery::Private::isRegistered() const
{
    return publishes || (q->hasEntryGroup() && !hasFailed);
}

bool ManagedServiceDiscovery::Private::isToBePublished() const
{
    return publishes && !isPublishing && !hasFailed && (!isPublished || isOutdated);
}

void ManagedServiceDiscovery::Private::publish()
{
    // A slot may end the publication, or the connection be lost, before the client is free.
    if (!isToBePublished() || !finishCalls() || !isToBePublished())
        return;
    const ManagedSession current(this);
    bool isDone = !isPublished || withdraw();
    if (isDone && isDaemonReady())
        isDone = add(publishedName.constData(), publishedType.constData(), publishedInfo);
    if (!current.ended() && (!isDone || needsRenewal()))
        publishLater();
}

bool ManagedServiceDiscovery::Private::add(const char* name, const char* type, const SReconfigInfo& info)
{
    if (!finishCalls())
        return false;
    const ManagedSession current(this);
    isOutdated = false;
    isPublishing = true;
    const bool isDone = q->AvahiServiceDiscovery::RegisterService(name, type, info);
    if (current.ended())
        return false;
    isPublishing = false;
    isPublished = isDone;
    if (!isDone) {
        // Avahi was asked for a group, unless the text stood in the way.
        if (!q->hasEntryGroup() && reasonNotToPublish(info, q->txtRecord).isEmpty())
            noteRefusal();
        // Nothing half done may stand in the way of the next attempt.
        withdraw();
    }
    return isDone;
}

bool ManagedServiceDiscovery::Private::withdraw()
{
    if (q->hasEntryGroup() && !finishCalls())
        return false;
    const bool wasPublishing = isPublishing;
    const ManagedSession current(this);
    isPublishing = true;
    const bool isDone = q->AvahiServiceDiscovery::TerminateRegistration();
    if (current.ended())
        return false;
    isPublishing = wasPublishing;
    isPublished = isPublished && !isDone;
    return isDone;
}

void ManagedServiceDiscovery::Private::publishLater()
{
    publishBackoff.grow();
    publishTimer.start(publishBackoff.milliseconds());
}

void ManagedServiceDiscovery::Private::endPublication()
{
    isPublished = false;
    isPublishing = false;
    publishTimer.stop();
    publishBackoff.reset();
}

} // namespace vd
