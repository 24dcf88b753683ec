// SPDX-License-Identifier: MIT

// Avahi calls that cost nothing and change nothing: what is measured, or watched by a sanitizer, is the library.

#include <avahi-client/client.h>
#include <avahi-client/lookup.h>

namespace {

// Never looked into; only its address serves, as every handle.
char handle;

template <typename Opaque>
Opaque* anyHandle()
{
    return reinterpret_cast<Opaque*>(&handle);
}

} // namespace

extern "C" {

AvahiClient* avahi_client_new(const AvahiPoll*, AvahiClientFlags, AvahiClientCallback, void*, int*)
{
    return anyHandle<AvahiClient>();
}

void avahi_client_free(AvahiClient*) {}

int avahi_client_errno(AvahiClient*)
{
    return 0;
}

AvahiServiceBrowser* avahi_service_browser_new(AvahiClient*, AvahiIfIndex, AvahiProtocol, const char*, const char*,
                                               AvahiLookupFlags, AvahiServiceBrowserCallback, void*)
{
    return anyHandle<AvahiServiceBrowser>();
}

int avahi_service_browser_free(AvahiServiceBrowser*)
{
    return 0;
}

AvahiServiceResolver* avahi_service_resolver_new(AvahiClient*, AvahiIfIndex, AvahiProtocol, const char*,
                                                 const char*, const char*, AvahiProtocol, AvahiLookupFlags,
                                                 AvahiServiceResolverCallback, void*)
{
    return anyHandle<AvahiServiceResolver>();
}

int avahi_service_resolver_free(AvahiServiceResolver*)
{
    return 0;
}

AvahiRecordBrowser* avahi_record_browser_new(AvahiClient*, AvahiIfIndex, AvahiProtocol, const char*, uint16_t,
                                             uint16_t, AvahiLookupFlags, AvahiRecordBrowserCallback, void*)
{
    return anyHandle<AvahiRecordBrowser>();
}

int avahi_record_browser_free(AvahiRecordBrowser*)
{
    return 0;
}

} // extern "C"
