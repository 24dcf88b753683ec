// SPDX-License-Identifier: MIT
#ifndef VD_AVAHI_HANDLERSCOPE_H
#define VD_AVAHI_HANDLERSCOPE_H

#include <vd/AvahiServiceDiscovery.h>

namespace vd {

/**
 * Tells a running handler what a slot of one of its signals has done meanwhile.
 *
 * A slot may end discovery, start it again, stop a query or delete the object, all while the handler that
 * emitted the signal is still on the stack. Every handler that emits holds a scope; the scopes of nested
 * handlers form a stack that the object walks when something is freed.
 */
class AvahiServiceDiscovery::HandlerScope
{
public:
    explicit HandlerScope(AvahiServiceDiscovery* discovery, AvahiServiceResolver* resolver = nullptr)
        : m_discovery(discovery)
        , m_resolver(resolver)
        , m_discoveryEnded(false)
        , m_outer(discovery->innermostHandler)
    {
        discovery->innermostHandler = this;
    }

    ~HandlerScope()
    {
        if (m_discovery)
            m_discovery->innermostHandler = m_outer;
    }

    /** The Avahi objects that the handler was called for, and perhaps the object itself, are gone. */
    bool discoveryEnded() const { return m_discoveryEnded; }

    /** The resolver that called back; null once it has been freed. */
    AvahiServiceResolver* resolver() const { return m_resolver; }

    static void noteDiscoveryEnded(HandlerScope* innermost)
    {
        for (HandlerScope* scope = innermost; scope; scope = scope->m_outer) {
            scope->m_discoveryEnded = true;
            scope->m_resolver = nullptr;
        }
    }

    static void noteResolverFreed(HandlerScope* innermost, const AvahiServiceResolver* resolver)
    {
        for (HandlerScope* scope = innermost; scope; scope = scope->m_outer) {
            if (scope->m_resolver == resolver)
                scope->m_resolver = nullptr;
        }
    }

    static void noteObjectDestroyed(HandlerScope* innermost)
    {
        for (HandlerScope* scope = innermost; scope; scope = scope->m_outer)
            scope->m_discovery = nullptr;
    }

private:
    Q_DISABLE_COPY(HandlerScope)

    AvahiServiceDiscovery* m_discovery;
    AvahiServiceResolver* m_resolver;
    bool m_discoveryEnded;
    HandlerScope* m_outer;
};

} // namespace vd

#endif
