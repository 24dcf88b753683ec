// SPDX-License-Identifier: MIT
#ifndef VD_AVAHI_MANAGED_SECONDCLIENT_H
#define VD_AVAHI_MANAGED_SECONDCLIENT_H

#include "avahi/managed/ThreadedCalls.h"

#include <avahi-client/client.h>

namespace vd {

/**
 * A client beside that of the discovery object, with a thread of its own: while one call is on its way, the bus and the
 * daemon have another one to work on.
 */
class SecondClient : public ThreadedCalls
{
public:
    /** Calls @p failed in the thread of @p parent when the connection is lost. The client is not to be cleared inside. */
    SecondClient(QObject* parent, const std::function<void()>& failed);
    ~SecondClient() override;

    /** Null before it is made. */
    AvahiClient* client() const { return m_isBeingMade ? nullptr : m_client; }
    /** Begins to make it, in its thread, which may fail; once until it is cleared. */
    void make();
    /** There are calls to make or to look at, or inside of one of its callbacks an event loop runs. */
    bool hasWork() const;
    void wait() override;
    /** Waits for calls that are on their way, frees the client with all that was made of it, and ends the thread. */
    void clear();

private:
    Q_DISABLE_COPY(SecondClient)

    static void stateChanged(AvahiClient* client, AvahiClientState state, void* userdata);

    const std::function<void()> m_failed;
    AvahiClient* m_client;
    bool m_isBeingMade;
    bool m_wasTried;
};

} // namespace vd

#endif
