// SPDX-License-Identifier: MIT
#pragma once

#include "support/AvahiStandIn.h"

/**
 * How it stands with the daemon, while this lives: told inside avahi_client_new(), as libavahi-client does, and
 * answered by avahi_client_get_state(). Without one the daemon is in health, and nothing is told.
 */
class DaemonStandIn
{
public:
    explicit DaemonStandIn(AvahiStandIn& avahi);
    ~DaemonStandIn();
    DaemonStandIn(const DaemonStandIn&) = delete;
    DaemonStandIn& operator=(const DaemonStandIn&) = delete;

    /** Tells the client that was made last. A daemon that fails is away for all later clients. */
    void becomes(AvahiClientState newState);

    AvahiClientState stateOf(AvahiClient* client) const;

    /** What a new client finds. */
    AvahiClientState state = AVAHI_CLIENT_S_RUNNING;

private:
    AvahiStandIn& m_avahi;
    int m_clients = 0;
    std::map<AvahiClient*, AvahiClientState> m_states;
};
