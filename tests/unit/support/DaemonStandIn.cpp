// SPDX-License-Identifier: MIT
#include "support/DaemonStandIn.h"

#include <avahi-common/error.h>

namespace {

const DaemonStandIn* current = nullptr;

} // namespace

DaemonStandIn::DaemonStandIn(AvahiStandIn& avahi) : m_avahi(avahi)
{
    current = this;
    avahi.duringClientNew([this](AvahiClient* client) {
        ++m_clients;
        m_states[client] = state;
        // Nothing is browsed before there is a daemon.
        if (state == AVAHI_CLIENT_CONNECTING)
            m_avahi.failNext("service_browser_new", AVAHI_ERR_BAD_STATE);
        m_avahi.fireClientState(state, m_clients);
    });
}

DaemonStandIn::~DaemonStandIn()
{
    current = nullptr;
}

void DaemonStandIn::becomes(AvahiClientState newState)
{
    m_states[m_avahi.client(m_clients)] = newState;
    state = newState == AVAHI_CLIENT_FAILURE ? AVAHI_CLIENT_CONNECTING : newState;
    m_avahi.fireClientState(newState, m_clients);
}

AvahiClientState DaemonStandIn::stateOf(AvahiClient* client) const
{
    const auto told = m_states.find(client);
    return told == m_states.end() ? state : told->second;
}

AvahiClientState avahi_client_get_state(AvahiClient* client)
{
    return current ? current->stateOf(client) : AVAHI_CLIENT_S_RUNNING;
}
