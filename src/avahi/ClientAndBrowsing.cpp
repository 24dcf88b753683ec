// SPDX-License-Identifier: MIT
#include <vd/AvahiServiceDiscovery.h>

#include "avahi/AvahiPollAdapter.h"
#include "avahi/AvahiText.h"
#include "avahi/HandlerScope.h"
#include "support/LogMessage.h"

#include <avahi-common/defs.h>
#include <avahi-common/error.h>

#include <atomic>

namespace vd {

namespace {

// Shared by all objects, which may live in several threads.
std::atomic<const AvahiPoll*> SVdQtPoll_api;

} // namespace

AvahiServiceDiscovery::AvahiServiceDiscovery()
    : client(nullptr)
    , longLiveResolver(nullptr)
    , longLiveRecordBrowser(nullptr)
    , entryGroup(nullptr)
    , txtRecord(nullptr)
    , innermostHandler(nullptr)
    , freedLongLiveResolver(nullptr)
    , releasing(false)
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

    if (!client) {
        int error = 0;
        client = avahi_client_new(poll, AVAHI_CLIENT_NO_FAIL, SAvahiClientStateChanged_callback, this, &error);
        if (!client) {
            logMessage(LOG_ORDINARY, "AvahiServiceDiscovery::BrowseServices() ->  could not create Avahi client");
            cleanupAvahiMembers();
            return false;
        }
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

    // A handler that is called meanwhile does nothing.
    releasing = true;
    const QList<AvahiServiceBrowser*> browsers = serviceBrowsers;
    serviceBrowsers.clear();
    for (int i = 0; i < browsers.size(); ++i)
        avahi_service_browser_free(browsers.at(i));
    if (client) {
        // Frees the resolvers, record browsers and the entry group too.
        AvahiClient* freed = client;
        client = nullptr;
        avahi_client_free(freed);
    }
    releasing = false;

    SVdQtPoll_api = nullptr;

    if (txtRecord) {
        avahi_string_list_free(txtRecord);
        txtRecord = nullptr;
    }

    services = QMap<QString, vd::SServiceInfo>();
    recordQueue.clear();
}

void AvahiServiceDiscovery::AvahiClientStateChanged(AvahiClient*, AvahiClientState state, void*)
{
    if (state == AVAHI_CLIENT_FAILURE)
        logMessage(LOG_ORDINARY, "AvahiServiceDiscovery::SAvahiClient_callback() -> Avahi client failure");
}

const char* AvahiServiceDiscovery::clientErrorText() const
{
    return avahi_strerror(client ? avahi_client_errno(client) : AVAHI_ERR_BAD_STATE);
}

} // namespace vd
