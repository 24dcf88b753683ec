// SPDX-License-Identifier: MIT
#include "avahi/EntryGroupCall.h"

namespace vd {

AvahiServiceDiscovery::EntryGroupCall::EntryGroupCall(AvahiServiceDiscovery* discovery)
    : m_scope(HandlerScope::Callback, discovery), m_clientToFree(nullptr)
{
    discovery->runningGroupCall = this;
}

AvahiServiceDiscovery::EntryGroupCall::~EntryGroupCall()
{
    if (m_clientToFree)
        freeClient();
    else
        m_scope.discovery()->runningGroupCall = nullptr;
}

void AvahiServiceDiscovery::EntryGroupCall::takeOver(AvahiClient* clientToFree)
{
    m_scope.discovery()->runningGroupCall = nullptr;
    m_clientToFree = clientToFree;
}

void AvahiServiceDiscovery::EntryGroupCall::freeClient()
{
    AvahiServiceDiscovery* const discovery = m_scope.discovery();
    if (!discovery) {
        avahi_client_free(m_clientToFree);
        return;
    }
    const bool wasReleasing = discovery->releasing;
    discovery->releasing = true;
    avahi_client_free(m_clientToFree);
    discovery->releasing = wasReleasing;
}

} // namespace vd
