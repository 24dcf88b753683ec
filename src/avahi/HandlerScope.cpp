// SPDX-License-Identifier: MIT
#include "avahi/HandlerScope.h"

namespace vd {

AvahiServiceDiscovery::HandlerScope::HandlerScope(Origin origin, AvahiServiceDiscovery* discovery,
                                                  AvahiServiceResolver* resolver)
    : m_discovery(discovery)
    , m_calledFor(resolver)
    , m_resolver(resolver)
    , m_origin(origin)
    , m_discoveryEnded(false)
    , m_outer(discovery->innermostHandler)
{
    discovery->innermostHandler = this;
    if (origin == Callback || !m_outer || m_outer->m_origin == Handler)
        return;
    m_discoveryEnded = m_outer->m_discoveryEnded;
    if (m_outer->m_calledFor == resolver)
        m_resolver = m_outer->m_resolver;
}

AvahiServiceDiscovery::HandlerScope::~HandlerScope()
{
    if (m_discovery)
        m_discovery->innermostHandler = m_outer;
}

void AvahiServiceDiscovery::HandlerScope::noteDiscoveryEnded(HandlerScope* innermost)
{
    for (HandlerScope* scope = innermost; scope; scope = scope->m_outer) {
        scope->m_discoveryEnded = true;
        scope->m_resolver = nullptr;
    }
}

void AvahiServiceDiscovery::HandlerScope::noteResolverFreed(HandlerScope* innermost,
                                                            const AvahiServiceResolver* resolver)
{
    for (HandlerScope* scope = innermost; scope; scope = scope->m_outer) {
        if (scope->m_resolver == resolver)
            scope->m_resolver = nullptr;
    }
}

void AvahiServiceDiscovery::HandlerScope::noteObjectDestroyed(HandlerScope* innermost)
{
    for (HandlerScope* scope = innermost; scope; scope = scope->m_outer)
        scope->m_discovery = nullptr;
}

} // namespace vd
