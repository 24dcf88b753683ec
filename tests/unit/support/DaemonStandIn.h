// SPDX-License-Identifier: MIT
#pragma once

#include <avahi-client/client.h>

/**
 * Answers avahi_client_get_state() while it lives: the tools ask for the state, the library does not. Without one
 * the daemon is in health.
 */
class DaemonStandIn
{
public:
    DaemonStandIn();
    ~DaemonStandIn();
    DaemonStandIn(const DaemonStandIn&) = delete;
    DaemonStandIn& operator=(const DaemonStandIn&) = delete;

    AvahiClientState state = AVAHI_CLIENT_S_RUNNING;
};
