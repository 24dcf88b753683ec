// SPDX-License-Identifier: MIT
#include "CountedAvahi.h"

#include <avahi-common/error.h>

#include <arpa/inet.h>

#include <array>
#include <numeric>

namespace {

using namespace CountedAvahi;

// Never looked into; only their addresses serve.
std::array<char, KINDS> handles;
std::array<int, KINDS> opened;
std::array<int, KINDS> everMade;
Kind refused = KINDS;
int services = 0;
bool tellsAtOnce = true;

AvahiClientCallback clientCallback = nullptr;
AvahiServiceBrowserCallback browserCallback = nullptr;
AvahiServiceResolverCallback resolverCallback = nullptr;
AvahiRecordBrowserCallback recordCallback = nullptr;
AvahiEntryGroupCallback groupCallback = nullptr;
void* userData = nullptr;

template <typename Opaque>
Opaque* handle(Kind kind)
{
    return reinterpret_cast<Opaque*>(&handles[kind]);
}

template <typename Opaque, typename Callback>
Opaque* make(Kind kind, Callback callback, void* data, Callback& kept)
{
    if (kind == refused)
        return nullptr;
    kept = callback;
    userData = data;
    ++opened[kind];
    ++everMade[kind];
    return handle<Opaque>(kind);
}

AvahiAddress addressOf(const char* text)
{
    AvahiAddress address = {};
    address.proto = AVAHI_PROTO_INET;
    inet_pton(AF_INET, text, &address.data.ipv4.address);
    return address;
}

} // namespace

namespace CountedAvahi {

int open()
{
    return std::accumulate(opened.begin(), opened.end(), 0);
}

int open(Kind kind)
{
    return opened[kind];
}

int made(Kind kind)
{
    return everMade[kind];
}

void refuse(Kind kind)
{
    refused = kind;
}

void tellLater()
{
    tellsAtOnce = false;
}

int published()
{
    return services;
}

void clientIs(AvahiClientState state)
{
    clientCallback(handle<AvahiClient>(Client), state, userData);
}

void browsed(AvahiBrowserEvent event, const char* name)
{
    browserCallback(handle<AvahiServiceBrowser>(Browser), 2, AVAHI_PROTO_INET, event, name, "_http._tcp", "local",
                    AVAHI_LOOKUP_RESULT_MULTICAST, userData);
}

void resolved(const char* name, const char* host, const char* address, AvahiStringList* txt)
{
    const AvahiAddress found = addressOf(address);
    resolverCallback(handle<AvahiServiceResolver>(Resolver), 2, AVAHI_PROTO_INET, AVAHI_RESOLVER_FOUND, name,
                     "_http._tcp", "local", host, &found, 80, txt, AVAHI_LOOKUP_RESULT_MULTICAST, userData);
}

void recordSeen(AvahiBrowserEvent event, const char* host, const char* address)
{
    const AvahiAddress found = addressOf(address);
    recordCallback(handle<AvahiRecordBrowser>(RecordBrowser), 2, AVAHI_PROTO_INET, event, host, AVAHI_DNS_CLASS_IN,
                   AVAHI_DNS_TYPE_A, &found.data.ipv4.address, sizeof found.data.ipv4.address,
                   AVAHI_LOOKUP_RESULT_MULTICAST, userData);
}

void groupIs(AvahiEntryGroupState state)
{
    groupCallback(handle<AvahiEntryGroup>(Group), state, userData);
}

} // namespace CountedAvahi

extern "C" {

AvahiClient* avahi_client_new(const AvahiPoll*, AvahiClientFlags, AvahiClientCallback callback, void* data, int* error)
{
    AvahiClient* const made = make<AvahiClient>(Client, callback, data, clientCallback);
    if (!made)
        *error = AVAHI_ERR_NO_MEMORY;
    else if (tellsAtOnce)
        clientIs(AVAHI_CLIENT_S_RUNNING);
    return made;
}

void avahi_client_free(AvahiClient*)
{
    opened = {};
}

int avahi_client_errno(AvahiClient*)
{
    return refused == KINDS ? AVAHI_OK : AVAHI_ERR_NO_MEMORY;
}

AvahiServiceBrowser* avahi_service_browser_new(AvahiClient*, AvahiIfIndex, AvahiProtocol, const char*, const char*,
                                               AvahiLookupFlags, AvahiServiceBrowserCallback callback, void* data)
{
    return make<AvahiServiceBrowser>(Browser, callback, data, browserCallback);
}

int avahi_service_browser_free(AvahiServiceBrowser*)
{
    --opened[Browser];
    return AVAHI_OK;
}

AvahiClient* avahi_service_browser_get_client(AvahiServiceBrowser*)
{
    return handle<AvahiClient>(Client);
}

AvahiServiceResolver* avahi_service_resolver_new(AvahiClient*, AvahiIfIndex, AvahiProtocol, const char*, const char*,
                                                 const char*, AvahiProtocol, AvahiLookupFlags,
                                                 AvahiServiceResolverCallback callback, void* data)
{
    return make<AvahiServiceResolver>(Resolver, callback, data, resolverCallback);
}

int avahi_service_resolver_free(AvahiServiceResolver*)
{
    --opened[Resolver];
    return AVAHI_OK;
}

AvahiRecordBrowser* avahi_record_browser_new(AvahiClient*, AvahiIfIndex, AvahiProtocol, const char*, uint16_t, uint16_t,
                                             AvahiLookupFlags, AvahiRecordBrowserCallback callback, void* data)
{
    return make<AvahiRecordBrowser>(RecordBrowser, callback, data, recordCallback);
}

int avahi_record_browser_free(AvahiRecordBrowser*)
{
    --opened[RecordBrowser];
    return AVAHI_OK;
}

AvahiClient* avahi_record_browser_get_client(AvahiRecordBrowser*)
{
    return handle<AvahiClient>(Client);
}

AvahiEntryGroup* avahi_entry_group_new(AvahiClient*, AvahiEntryGroupCallback callback, void* data)
{
    return make<AvahiEntryGroup>(Group, callback, data, groupCallback);
}

int avahi_entry_group_add_service_strlst(AvahiEntryGroup*, AvahiIfIndex, AvahiProtocol, AvahiPublishFlags, const char*,
                                         const char*, const char*, const char*, uint16_t, AvahiStringList*)
{
    ++services;
    return AVAHI_OK;
}

int avahi_entry_group_update_service_txt(AvahiEntryGroup*, AvahiIfIndex, AvahiProtocol, AvahiPublishFlags, const char*,
                                         const char*, const char*, ...)
{
    return AVAHI_OK;
}

int avahi_entry_group_commit(AvahiEntryGroup*)
{
    return AVAHI_OK;
}

int avahi_entry_group_reset(AvahiEntryGroup*)
{
    return AVAHI_OK;
}

int avahi_entry_group_free(AvahiEntryGroup*)
{
    --opened[Group];
    return AVAHI_OK;
}

} // extern "C"
