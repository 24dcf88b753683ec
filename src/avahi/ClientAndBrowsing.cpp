// SPDX-License-Identifier: MIT
#include <vd/AvahiServiceDiscovery.h>

#include "avahi/AvahiPollAdapter.h"
#include "avahi/AvahiText.h"
#include "avahi/EntryGroupCall.h"
#include "avahi/HandlerScope.h"
#include "support/LogMessage.h"

#include <avahi-common/defs.h>

#include <atomic>

namespace vd {

namespace {

// Shared by all objects, which may live in several threads.
std::atomic<const AvahiPoll*> SVdQtPoll_api(nullptr);

} // namespace

AvahiServiceDiscovery::AvahiServiceDiscovery()
    : client(nullptr)
    , longLiveResolver(nullptr)
    , longLiveRecordBrowser(nullptr)
    , entryGroup(nullptr)
    , txtRecord(nullptr)
    , innermostHandler(nullptr)
    , runningGroupCall(nullptr)
    , freedLongLiveResolver(nullptr)
    , freedEntryGroup(nullptr)
    , releasing(false)
    , makingClient(false)
{}

AvahiServiceDiscovery::~AvahiServiceDiscovery()
{
    cleanupAvahiMembers();
    HandlerScope::noteObjectDestroyed(innermostHandler);
}

bool AvahiServiceDiscovery::BrowseServices(const char* type)
{
    logMessage(LOG_ORDINARY, "AvahiServiceDiscovery::BrowseServices() -> starting to browse for Bonjour services");

    // Kept aside, as another object may reset the shared variable at any time.
    const AvahiPoll* poll = SVdQtPoll_api;
    if (!poll) {
        poll = avahi_qt_poll_get();
        SVdQtPoll_api = poll;
    }

    const HandlerScope scope(HandlerScope::Callback, this);
    if (!client && !makeClient(poll, scope)) {
        if (!scope.discovery())
            return false;
        logMessage(LOG_ORDINARY, "AvahiServiceDiscovery::BrowseServices() ->  could not create Avahi client");
        if (!makingClient)
            cleanupAvahiMembers();
        return false;
    }

    AvahiServiceBrowser* browser = nullptr;
    if (type && isAcceptableToAvahi(type)) {
        browser = avahi_service_browser_new(client, AVAHI_IF_UNSPEC, AVAHI_PROTO_UNSPEC, type, nullptr,
                                            AVAHI_LOOKUP_USE_MULTICAST, SServiceBrowse_callback, this);
    }
    if (!browser) {
        logMessage(LOG_ORDINARY,
                   "AvahiServiceDiscovery::BrowseServices() -> could not create Avahi Service Browser ");
        return false;
    }
    serviceBrowsers.append(browser);
    return true;
}

bool AvahiServiceDiscovery::makeClient(const AvahiPoll* poll, const HandlerScope& scope)
{
    // Avahi calls back before it returns the client. Browsing can begin only after that, and ending it must not
    // free the client under Avahi.
    if (makingClient)
        return false;
    makingClient = true;
    int error = 0;
    AvahiClient* const made
        = avahi_client_new(poll, AVAHI_CLIENT_NO_FAIL, SAvahiClientStateChanged_callback, this, &error);
    if (scope.discovery())
        makingClient = false;
    if (scope.discoveryEnded()) {
        if (made)
            avahi_client_free(made);
        return false;
    }
    client = made;
    return client != nullptr;
}

bool AvahiServiceDiscovery::TerminateBrowsing()
{
    logMessage(LOG_ORDINARY, "AvahiServiceDiscovery::TerminateBrowsing");
    cleanupAvahiMembers();
    return true;
}

bool AvahiServiceDiscovery::IsBrowsing()
{
    return !serviceBrowsers.isEmpty();
}

void AvahiServiceDiscovery::cleanupAvahiMembers()
{
    HandlerScope::noteDiscoveryEnded(innermostHandler);
    freedLongLiveResolver = longLiveResolver;
    freedEntryGroup = entryGroup;

    // What Avahi calls back meanwhile finds nothing to use or to free: handlers do nothing, and a cleanup inside
    // this one sees neither browsers nor a client.
    const bool wasReleasing = releasing;
    releasing = true;
    const QList<AvahiServiceBrowser*> browsers = serviceBrowsers;
    serviceBrowsers.clear();
    AvahiClient* const freed = client;
    client = nullptr;
    for (int i = 0; i < browsers.size(); ++i)
        avahi_service_browser_free(browsers.at(i));
    if (freed)
        freeClient(freed);
    releasing = wasReleasing;

    SVdQtPoll_api = nullptr;

    if (txtRecord) {
        avahi_string_list_free(txtRecord);
        txtRecord = nullptr;
    }

    services = QMap<QString, vd::SServiceInfo>();
    recordQueue.clear();
}

// Frees the resolvers, record browsers and the entry group too.
void AvahiServiceDiscovery::freeClient(AvahiClient* freed)
{
    if (runningGroupCall)
        runningGroupCall->takeOver(freed);
    else
        avahi_client_free(freed);
}

void AvahiServiceDiscovery::AvahiClientStateChanged(AvahiClient*, AvahiClientState state, void*)
{
    if (state == AVAHI_CLIENT_FAILURE)
        logMessage(LOG_ORDINARY, "AvahiServiceDiscovery::SAvahiClient_callback() -> Avahi client failure");
}

} // namespace vd
