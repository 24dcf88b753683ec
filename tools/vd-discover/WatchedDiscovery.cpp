// SPDX-License-Identifier: MIT
#include "WatchedDiscovery.h"

#include <vd/ManagedServiceDiscovery.h>

#include <avahi-common/error.h>

namespace vd::discover {

namespace {

bool isRunning(AvahiServiceDiscovery& discovery)
{
    return discovery.IsBrowsing();
}

bool isRunning(const ManagedServiceDiscovery& discovery)
{
    return discovery.state() == ManagedServiceDiscovery::Running;
}

/** Opens up the client, and tells of what Avahi tells of. */
template <typename Discovery>
class Telling : public Discovery
{
public:
    explicit Telling(WatchedDiscovery* watch) : m_watch(watch) {}

    using Discovery::client;

protected:
    void AvahiClientStateChanged(AvahiClient* avahiClient, AvahiClientState clientState, void* userdata) override
    {
        Discovery::AvahiClientStateChanged(avahiClient, clientState, userdata);
        Q_EMIT m_watch->stateChanged();
    }

    void AvahiEntryGroupChanged(AvahiEntryGroup* group, AvahiEntryGroupState groupState, void* userdata) override
    {
        Discovery::AvahiEntryGroupChanged(group, groupState, userdata);
        Q_EMIT m_watch->publicationChanged(groupState);
    }

private:
    WatchedDiscovery* const m_watch;
};

template <typename Discovery>
class Watched : public WatchedDiscovery
{
public:
    Watched() : m_discovery(this) {}

    ServiceDiscovery& operations() override { return m_discovery; }
    bool isBrowsing() override { return isRunning(m_discovery) && state() == Ready; }

protected:
    AvahiClient* currentClient() const override { return m_discovery.client; }

    Telling<Discovery> m_discovery;
};

class WatchedManaged : public Watched<ManagedServiceDiscovery>
{
public:
    WatchedManaged()
    {
        connect(&m_discovery, &ManagedServiceDiscovery::stateChanged, this, &WatchedDiscovery::stateChanged);
    }
};

} // namespace

std::unique_ptr<WatchedDiscovery> WatchedDiscovery::make(Kind kind)
{
    if (kind == Managed)
        return std::make_unique<WatchedManaged>();
    return std::make_unique<Watched<AvahiServiceDiscovery>>();
}

WatchedDiscovery::State WatchedDiscovery::state() const
{
    if (!currentClient())
        return NoClient;
    switch (avahi_client_get_state(currentClient())) {
    case AVAHI_CLIENT_CONNECTING:
        return NoDaemon;
    case AVAHI_CLIENT_FAILURE:
        return Failed;
    case AVAHI_CLIENT_S_REGISTERING:
    case AVAHI_CLIENT_S_RUNNING:
    case AVAHI_CLIENT_S_COLLISION:
        break;
    }
    return Ready;
}

bool WatchedDiscovery::isHostNameSettled() const
{
    return currentClient() && avahi_client_get_state(currentClient()) == AVAHI_CLIENT_S_RUNNING;
}

int WatchedDiscovery::lastError() const
{
    return currentClient() ? avahi_client_errno(currentClient()) : AVAHI_ERR_BAD_STATE;
}

} // namespace vd::discover
