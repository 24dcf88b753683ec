// SPDX-License-Identifier: MIT
#ifndef VD_AVAHI_HANDLERSCOPE_H
#define VD_AVAHI_HANDLERSCOPE_H

#include <vd/AvahiServiceDiscovery.h>

namespace vd {

/**
 * Tells what happened to the discovery object and to the resolver that called back, since the scope began.
 *
 * A slot, or a handler that overrides one of these, may end discovery, start it again, stop a query or delete the
 * object, all while handlers are still on the stack. Every callback of Avahi and every handler holds a scope; the
 * scopes form a stack that the object walks when something is freed.
 */
class AvahiServiceDiscovery::HandlerScope
{
public:
    enum Origin {
        Callback, // what it is called for lives
        Handler   // what it is called for may be gone since the callback, when an override ran before it
    };

    HandlerScope(Origin origin, AvahiServiceDiscovery* discovery, AvahiServiceResolver* resolver = nullptr);
    ~HandlerScope();

    /** The Avahi objects that the handler was called for, and perhaps the object itself, are gone. */
    bool discoveryEnded() const { return m_discoveryEnded; }

    /** The object; null once it has been destroyed. */
    AvahiServiceDiscovery* discovery() const { return m_discovery; }

    /** The resolver that called back; null once it has been freed. */
    AvahiServiceResolver* resolver() const { return m_resolver; }

    static void noteDiscoveryEnded(HandlerScope* innermost);
    static void noteResolverFreed(HandlerScope* innermost, const AvahiServiceResolver* resolver);
    static void noteObjectDestroyed(HandlerScope* innermost);

private:
    Q_DISABLE_COPY(HandlerScope)

    AvahiServiceDiscovery* m_discovery;
    const AvahiServiceResolver* m_calledFor;
    AvahiServiceResolver* m_resolver;
    const Origin m_origin;
    bool m_discoveryEnded;
    HandlerScope* m_outer;
};

} // namespace vd

#endif
