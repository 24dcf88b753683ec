// SPDX-License-Identifier: MIT
#ifndef VD_AVAHI_ENTRYGROUPCALL_H
#define VD_AVAHI_ENTRYGROUPCALL_H

#include "avahi/HandlerScope.h"

namespace vd {

/**
 * Stands around a call of one of Avahi's functions for entry groups.
 *
 * Avahi may report a state from inside that call, and an override of the handler may end discovery, or delete the
 * object, there. The client, and with it the group, then lives until Avahi has returned.
 */
class AvahiServiceDiscovery::EntryGroupCall
{
public:
    explicit EntryGroupCall(AvahiServiceDiscovery* discovery);
    ~EntryGroupCall();

    /** The group is as good as gone, and perhaps the object itself. */
    bool discoveryEnded() const { return m_scope.discoveryEnded(); }

    /** Frees @p clientToFree when the call is over. */
    void takeOver(AvahiClient* clientToFree);

private:
    Q_DISABLE_COPY(EntryGroupCall)

    void freeClient();

    const HandlerScope m_scope;
    AvahiClient* m_clientToFree;
};

} // namespace vd

#endif
