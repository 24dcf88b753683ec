// SPDX-License-Identifier: MIT
#include "avahi/EntryGroupCall.h"

namespace vd {

AvahiServiceDiscovery::EntryGroupCall::EntryGroupCall(AvahiServiceDiscovery* discovery)
    : m_discovery(discovery), m_clientToFree(nullptr)
{
    discovery->runningGroupCall = this;
}

AvahiServiceDiscovery::EntryGroupCall::~EntryGroupCall()
{
    if (m_clientToFree)
        avahi_client_free(m_clientToFree);
    else
        m_discovery->runningGroupCall = nullptr;
}

void AvahiServiceDiscovery::EntryGroupCall::takeOver(AvahiClient* client)
{
    m_discovery->runningGroupCall = nullptr;
    m_clientToFree = client;
}

} // namespace vd
