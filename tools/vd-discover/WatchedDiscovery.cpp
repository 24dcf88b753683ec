// SPDX-License-Identifier: MIT
#include "WatchedDiscovery.h"

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

void WatchedDiscovery::AvahiClientStateChanged(AvahiClient* avahiClient, AvahiClientState clientState,
                                               void* userdata)
{
    AvahiServiceDiscovery::AvahiClientStateChanged(avahiClient, clientState, userdata);
    Q_EMIT stateChanged();
}

} // namespace vd::discover
