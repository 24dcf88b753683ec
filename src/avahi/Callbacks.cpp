// SPDX-License-Identifier: MIT
#include "avahi/HandlerScope.h"
#include "avahi/WatchGroup.h"

namespace vd {

void AvahiServiceDiscovery::SAvahiClientStateChanged_callback(AvahiClient* client, AvahiClientState state,
                                                              void* userdata)
{
    // Avahi is making a client, perhaps, and an override may let others be made, which are none of its group.
    const WatchGroup::Scope otherClients(nullptr);
    static_cast<AvahiServiceDiscovery*>(userdata)->AvahiClientStateChanged(client, state, userdata);
}

void AvahiServiceDiscovery::SServiceBrowse_callback(AvahiServiceBrowser* browser, AvahiIfIndex interface,
                                                    AvahiProtocol protocol, AvahiBrowserEvent event,
                                                    const char* name, const char* type, const char* domain,
                                                    AvahiLookupResultFlags flags, void* userdata)
{
    AvahiServiceDiscovery* const discovery = static_cast<AvahiServiceDiscovery*>(userdata);
    const HandlerScope scope(HandlerScope::Callback, discovery);
    discovery->ServiceBrowse(browser, interface, protocol, event, name, type, domain, flags, userdata);
}

void AvahiServiceDiscovery::SServiceResolve_callback(AvahiServiceResolver* resolver, AvahiIfIndex interface,
                                                     AvahiProtocol protocol, AvahiResolverEvent event,
                                                     const char* name, const char* type, const char* domain,
                                                     const char* host_name, const AvahiAddress* address,
                                                     uint16_t port, AvahiStringList* txt,
                                                     AvahiLookupResultFlags flags, void* userdata)
{
    AvahiServiceDiscovery* const discovery = static_cast<AvahiServiceDiscovery*>(userdata);
    const HandlerScope scope(HandlerScope::Callback, discovery, resolver);
    discovery->ServiceResolve(resolver, interface, protocol, event, name, type, domain, host_name, address, port,
                              txt, flags, userdata);
}

void AvahiServiceDiscovery::SAvahiRecordBrowser_callback(AvahiRecordBrowser* browser, AvahiIfIndex interface,
                                                         AvahiProtocol protocol, AvahiBrowserEvent event,
                                                         const char* name, uint16_t clazz, uint16_t type,
                                                         const void* rdata, size_t size,
                                                         AvahiLookupResultFlags flags, void* userdata)
{
    AvahiServiceDiscovery* const discovery = static_cast<AvahiServiceDiscovery*>(userdata);
    const HandlerScope scope(HandlerScope::Callback, discovery);
    discovery->RecordBrowse(browser, interface, protocol, event, name, clazz, type, rdata, size, flags, userdata);
}

void AvahiServiceDiscovery::SEntryGroup_callback(AvahiEntryGroup* group, AvahiEntryGroupState state,
                                                 void* userdata)
{
    static_cast<AvahiServiceDiscovery*>(userdata)->AvahiEntryGroupChanged(group, state, userdata);
}

} // namespace vd
