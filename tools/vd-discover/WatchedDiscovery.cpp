// SPDX-License-Identifier: MIT
#include "WatchedDiscovery.h"

#include <avahi-common/error.h>

namespace vd::discover {

WatchedDiscovery::State WatchedDiscovery::state() const
{
    if (!client)
        return NoClient;
    switch (avahi_client_get_state(client)) {
    case AVAHI_CLIENT_CONNECTING:
        return NoDaemon;
    case AVAHI_CLIENT_FAILURE:
        return Failed;
    case AVAHI_CLIENT_S_REGISTERING:
    case AVAHI_CLIENT_S_RUNNING:
    case AVAHI_CLIENT_S_COLLISION:
        break;
    }
    return Ready;
}

bool WatchedDiscovery::isHostNameSettled() const
{
    return client && avahi_client_get_state(client) == AVAHI_CLIENT_S_RUNNING;
}

int WatchedDiscovery::lastError() const
{
    return client ? avahi_client_errno(client) : AVAHI_ERR_BAD_STATE;
}

void WatchedDiscovery::AvahiClientStateChanged(AvahiClient* avahiClient, AvahiClientState clientState,
                                               void* userdata)
{
    AvahiServiceDiscovery::AvahiClientStateChanged(avahiClient, clientState, userdata);
    Q_EMIT stateChanged();
}

void WatchedDiscovery::AvahiEntryGroupChanged(AvahiEntryGroup* group, AvahiEntryGroupState groupState,
                                              void* userdata)
{
    AvahiServiceDiscovery::AvahiEntryGroupChanged(group, groupState, userdata);
    Q_EMIT publicationChanged(groupState);
}

} // namespace vd::discover
