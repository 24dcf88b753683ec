// SPDX-License-Identifier: MIT
//
// Prints each use of the distribution's adapter. The functions below are found before those of the
// libraries, as a program's own symbols come first.
#include <vd/AvahiServiceDiscovery.h>

#include <QtCore/QCoreApplication>

#include <cstdio>

namespace {

AvahiPoll adapters[8];
int fetched = 0;

// Never looked into: the library only hands them back.
template <typename Handle>
Handle* handle()
{
    static int storage;
    return reinterpret_cast<Handle*>(&storage);
}

void step(const char* what)
{
    std::printf("%s:", what);
}

} // namespace

extern "C" const AvahiPoll* avahi_qt_poll_get()
{
    std::printf(" fetch %d", fetched);
    return &adapters[fetched++];
}

AvahiClient* avahi_client_new(const AvahiPoll* poll, AvahiClientFlags, AvahiClientCallback, void*, int*)
{
    std::printf(" client on %d", static_cast<int>(poll - adapters));
    return handle<AvahiClient>();
}

void avahi_client_free(AvahiClient*) {}

AvahiServiceBrowser* avahi_service_browser_new(AvahiClient*, AvahiIfIndex, AvahiProtocol, const char*, const char*,
                                               AvahiLookupFlags, AvahiServiceBrowserCallback, void*)
{
    return handle<AvahiServiceBrowser>();
}

int avahi_service_browser_free(AvahiServiceBrowser*)
{
    return 0;
}

int main(int argc, char** argv)
{
    QCoreApplication application(argc, argv);
    vd::AvahiServiceDiscovery first;
    vd::AvahiServiceDiscovery second;

    step("made");
    step("\nfirst browses");
    first.BrowseServices("_http._tcp");
    step("\nfirst browses again");
    first.BrowseServices("_https._tcp");
    step("\nsecond browses");
    second.BrowseServices("_http._tcp");
    step("\nfirst ends and browses");
    first.TerminateBrowsing();
    first.BrowseServices("_http._tcp");
    step("\nfirst browses again");
    first.BrowseServices("_https._tcp");
    step("\nsecond ends, first browses");
    second.TerminateBrowsing();
    first.BrowseServices("_http._tcp");
    step("\nsecond browses");
    second.BrowseServices("_http._tcp");
    std::printf("\n");
    return 0;
}
