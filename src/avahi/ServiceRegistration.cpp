// SPDX-License-Identifier: MIT
#include <vd/AvahiServiceDiscovery.h>

#include "avahi/AvahiText.h"
#include "avahi/EntryGroupCall.h"
#include "avahi/TxtKeys.h"
#include "avahi/TxtRecordWriter.h"
#include "support/LogMessage.h"

#include <avahi-common/defs.h>
#include <avahi-common/error.h>

#include <cstring>

namespace vd {

namespace {

const uint16_t PUBLISHED_PORT = 80;
const AvahiPublishFlags PUBLISHED_WITH
    = static_cast<AvahiPublishFlags>(AVAHI_PUBLISH_USE_MULTICAST | AVAHI_PUBLISH_UPDATE);

const char NOT_RESET[] = "TerminateRegistration() -> could not reset registration";
const char ENTRY_GROUP_RESET[] = "AvahiServiceDiscovery::TerminateRegistration () -> performed entry group reset";

// What the daemon would say to a missing name or type, and to text on which libdbus ends the process. All else it may
// see itself.
int errorOfService(const char* name, const char* type)
{
    if (!name || !isAcceptableToAvahi(name))
        return AVAHI_ERR_INVALID_SERVICE_NAME;
    if (!type || !isAcceptableToAvahi(type))
        return AVAHI_ERR_INVALID_SERVICE_TYPE;
    return AVAHI_OK;
}

void logNoEntryGroup()
{
    logMessage(LOG_ORDINARY, "AvahiServiceDiscovery::RegisterService () -> could not register entry group!");
}

void logError(const char* message, int error)
{
    logMessage(LOG_ORDINARY, [=](QTextStream& out) {
        out << "AvahiServiceDiscovery::" << message << "; errorcode: " << QString::number(error);
    });
}

} // namespace

bool AvahiServiceDiscovery::RegisterService(const char* name, const char* type, const vd::SReconfigInfo& info)
{
    // Avahi reports a state while it works on the group, and what it works with must stay.
    if (runningGroupCall) {
        logNoEntryGroup();
        return false;
    }
    registeredName = name ? name : "";
    registeredType = type ? type : "";
    logMessage(LOG_ORDINARY, [this](QTextStream& out) {
        out << "AvahiServiceDiscovery::RegisterService() -> registering service "
            << printableText(registeredName.c_str()) << " type: " << printableText(registeredType.c_str());
    });
    const int refusal = errorOfService(name, type);
    CreateTxtRecord(info);
    const QString obstacle = reasonNotToPublish(info, txtRecord);
    if (!obstacle.isEmpty()) {
        logMessage(LOG_ORDINARY, [&](QTextStream& out) {
            out << "AvahiServiceDiscovery::RegisterService() -> " << printableText(obstacle);
        });
        return false;
    }
    if (!makeEntryGroup()) {
        logNoEntryGroup();
        return false;
    }
    return addToEntryGroup(refusal) && commitEntryGroup();
}

bool AvahiServiceDiscovery::hasEntryGroup() const
{
    return entryGroup && entryGroup != freedEntryGroup;
}

bool AvahiServiceDiscovery::makeEntryGroup()
{
    if (hasEntryGroup())
        return true;
    if (!client)
        return false;
    const EntryGroupCall call(this);
    AvahiEntryGroup* const made = avahi_entry_group_new(client, SEntryGroup_callback, this);
    if (call.discoveryEnded())
        return false;
    entryGroup = made;
    freedEntryGroup = nullptr;
    return made != nullptr;
}

bool AvahiServiceDiscovery::addToEntryGroup(int refusal)
{
    // The object may be gone when Avahi returns.
    const std::string name = registeredName, type = registeredType;
    const int error = refusal ? refusal : addService(name, type);
    if (error) {
        logMessage(LOG_ORDINARY, [&](QTextStream& out) {
            out << "AvahiServiceDiscovery::RegisterService() -> failed to register service"
                << printableText(name.c_str()) << " type: " << printableText(type.c_str())
                << " errorcode: " << QString::number(error);
        });
    }
    return !error;
}

int AvahiServiceDiscovery::addService(const std::string& name, const std::string& type)
{
    const EntryGroupCall call(this);
    const int error = avahi_entry_group_add_service_strlst(entryGroup, AVAHI_IF_UNSPEC, AVAHI_PROTO_UNSPEC,
                                                           PUBLISHED_WITH, name.c_str(), type.c_str(), nullptr,
                                                           nullptr, PUBLISHED_PORT, txtRecord);
    return call.discoveryEnded() ? AVAHI_ERR_BAD_STATE : error;
}

bool AvahiServiceDiscovery::commitEntryGroup()
{
    const EntryGroupCall call(this);
    int error = avahi_entry_group_commit(entryGroup);
    if (call.discoveryEnded())
        error = AVAHI_ERR_BAD_STATE;
    if (error)
        logError("RegisterService() -> failed to commit entry group", error);
    return !error;
}

bool AvahiServiceDiscovery::UpdateTxtRecord(const char* txt)
{
    if (const int error = updatePublishedTxt(txt)) {
        logError("UpdateTxtRecord () -> could not update text record", error);
        return false;
    }
    logMessage(LOG_ORDINARY, [=](QTextStream& out) {
        out << "AvahiServiceDiscovery::UpdateTxtRecord () -> updated txt record: " << printableText(txt);
    });
    return true;
}

int AvahiServiceDiscovery::updatePublishedTxt(const char* txt)
{
    if (!hasEntryGroup() || runningGroupCall)
        return AVAHI_ERR_BAD_STATE;
    if (!txt || strlen(txt) > LONGEST_TXT_STRING)
        return AVAHI_ERR_INVALID_ARGUMENT;
    // These are of the last attempt to register, which may have failed for them.
    if (const int error = errorOfService(registeredName.c_str(), registeredType.c_str()))
        return error;
    // The domain is named, though it was left to the daemon before: its default is another one on some networks, and
    // there the update fails.
    const EntryGroupCall call(this);
    const int error = avahi_entry_group_update_service_txt(entryGroup, AVAHI_IF_UNSPEC, AVAHI_PROTO_UNSPEC,
                                                           AVAHI_PUBLISH_USE_MULTICAST, registeredName.c_str(),
                                                           registeredType.c_str(), "local", txt, nullptr);
    return call.discoveryEnded() ? AVAHI_ERR_BAD_STATE : error;
}

bool AvahiServiceDiscovery::AddTxtRecord(const char* txt)
{
    return UpdateTxtRecord(txt);
}

void AvahiServiceDiscovery::AvahiEntryGroupChanged(AvahiEntryGroup*, AvahiEntryGroupState state, void*)
{
    const char* name = nullptr;
    switch (state) {
    case AVAHI_ENTRY_GROUP_UNCOMMITED:
        name = "uncommitted";
        break;
    case AVAHI_ENTRY_GROUP_REGISTERING:
        name = "registering";
        break;
    case AVAHI_ENTRY_GROUP_ESTABLISHED:
        name = "established";
        break;
    case AVAHI_ENTRY_GROUP_COLLISION:
        name = "collision";
        break;
    case AVAHI_ENTRY_GROUP_FAILURE:
        name = "failure";
        break;
    }
    if (!name)
        return;
    logMessage(LOG_ORDINARY, [=](QTextStream& out) {
        out << "AvahiServiceDiscovery::AvahiEntryGroupChanged() -> entry group " << name;
    });
}

bool AvahiServiceDiscovery::TerminateRegistration()
{
    if (runningGroupCall) {
        logError(NOT_RESET, AVAHI_ERR_BAD_STATE);
        return false;
    }
    // What went with its client, or was freed with an error, cannot be withdrawn again.
    if (!hasEntryGroup()) {
        entryGroup = nullptr;
        return true;
    }
    if (const int error = resetEntryGroup()) {
        logError(NOT_RESET, error);
        return false;
    }
    logMessage(LOG_ORDINARY, ENTRY_GROUP_RESET);
    if (const int error = freeEntryGroup()) {
        logError("TerminateRegistration() -> could not terminate registration", error);
        return false;
    }
    // The free has no message of its own.
    logMessage(LOG_ORDINARY, ENTRY_GROUP_RESET);
    return true;
}

int AvahiServiceDiscovery::resetEntryGroup()
{
    const EntryGroupCall call(this);
    const int error = avahi_entry_group_reset(entryGroup);
    return call.discoveryEnded() ? AVAHI_ERR_BAD_STATE : error;
}

int AvahiServiceDiscovery::freeEntryGroup()
{
    const EntryGroupCall call(this);
    // It is gone even when Avahi reports an error.
    freedEntryGroup = entryGroup;
    const int error = avahi_entry_group_free(entryGroup);
    if (call.discoveryEnded())
        return AVAHI_ERR_BAD_STATE;
    if (!error)
        entryGroup = nullptr;
    return error;
}

bool AvahiServiceDiscovery::IsRegistered()
{
    return entryGroup != nullptr;
}

} // namespace vd
