// SPDX-License-Identifier: MIT
#include "AvahiObjects.h"

#include <avahi-client/client.h>
#include <avahi-client/lookup.h>
#include <avahi-client/publish.h>

#include <dlfcn.h>

#include <algorithm>
#include <cstdlib>
#include <iterator>
#include <mutex>
#include <unordered_map>

namespace {

struct Made
{
    // cppcheck-suppress unusedStructMember ; it is read through an iterator
    const AvahiClient* client;
    // cppcheck-suppress unusedStructMember ; likewise
    std::string description;
};

/** By the objects. */
std::unordered_map<const void*, Made>& openObjects()
{
    static std::unordered_map<const void*, Made> all;
    return all;
}

int mostOpen = 0;

/** Calls are made in several threads. */
std::mutex& mutex()
{
    static std::mutex one;
    return one;
}

template <typename Function>
Function* original(const char* name)
{
    void* const found = dlsym(RTLD_NEXT, name);
    if (!found)
        std::abort();
    return reinterpret_cast<Function*>(found);
}

template <typename Object>
Object* made(const AvahiClient* client, Object* object, const std::string& description)
{
    const std::lock_guard<std::mutex> locker(mutex());
    if (object) {
        openObjects()[object] = Made{client, description};
        mostOpen = std::max(mostOpen, static_cast<int>(openObjects().size()));
    }
    return object;
}

template <typename Object>
int freed(const char* name, Object* object)
{
    {
        const std::lock_guard<std::mutex> locker(mutex());
        openObjects().erase(object);
    }
    return original<int(Object*)>(name)(object);
}

} // namespace

int AvahiObjects::open()
{
    const std::lock_guard<std::mutex> locker(mutex());
    return static_cast<int>(openObjects().size());
}

int AvahiObjects::most()
{
    const std::lock_guard<std::mutex> locker(mutex());
    return mostOpen;
}

std::vector<std::string> AvahiObjects::descriptions()
{
    const std::lock_guard<std::mutex> locker(mutex());
    std::vector<std::string> all;
    for (const auto& object : openObjects())
        all.push_back(object.second.description);
    return all;
}

extern "C" {

AvahiServiceBrowser* avahi_service_browser_new(AvahiClient* client, AvahiIfIndex interface, AvahiProtocol protocol,
                                               const char* type, const char* domain, AvahiLookupFlags flags,
                                               AvahiServiceBrowserCallback callback, void* userdata)
{
    static const auto make = original<decltype(avahi_service_browser_new)>("avahi_service_browser_new");
    return made(client, make(client, interface, protocol, type, domain, flags, callback, userdata),
                std::string("browser of ") + type);
}

AvahiServiceResolver* avahi_service_resolver_new(AvahiClient* client, AvahiIfIndex interface,
                                                 AvahiProtocol protocol, const char* name, const char* type,
                                                 const char* domain, AvahiProtocol addressProtocol,
                                                 AvahiLookupFlags flags, AvahiServiceResolverCallback callback,
                                                 void* userdata)
{
    static const auto make = original<decltype(avahi_service_resolver_new)>("avahi_service_resolver_new");
    return made(client, make(client, interface, protocol, name, type, domain, addressProtocol, flags, callback, userdata),
                std::string("resolver of ") + name);
}

AvahiRecordBrowser* avahi_record_browser_new(AvahiClient* client, AvahiIfIndex interface, AvahiProtocol protocol,
                                             const char* name, uint16_t clazz, uint16_t type,
                                             AvahiLookupFlags flags, AvahiRecordBrowserCallback callback,
                                             void* userdata)
{
    static const auto make = original<decltype(avahi_record_browser_new)>("avahi_record_browser_new");
    return made(client, make(client, interface, protocol, name, clazz, type, flags, callback, userdata),
                std::string("address browser of ") + name);
}

AvahiEntryGroup* avahi_entry_group_new(AvahiClient* client, AvahiEntryGroupCallback callback, void* userdata)
{
    static const auto make = original<decltype(avahi_entry_group_new)>("avahi_entry_group_new");
    return made(client, make(client, callback, userdata), "entry group");
}

int avahi_service_browser_free(AvahiServiceBrowser* browser)
{
    return freed("avahi_service_browser_free", browser);
}

int avahi_service_resolver_free(AvahiServiceResolver* resolver)
{
    return freed("avahi_service_resolver_free", resolver);
}

int avahi_record_browser_free(AvahiRecordBrowser* browser)
{
    return freed("avahi_record_browser_free", browser);
}

int avahi_entry_group_free(AvahiEntryGroup* group)
{
    return freed("avahi_entry_group_free", group);
}

// With the client goes everything that was made from it.
void avahi_client_free(AvahiClient* client)
{
    original<void(AvahiClient*)>("avahi_client_free")(client);
    const std::lock_guard<std::mutex> locker(mutex());
    for (auto object = openObjects().begin(); object != openObjects().end();)
        object = object->second.client == client ? openObjects().erase(object) : std::next(object);
}

} // extern "C"
