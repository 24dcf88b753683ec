/* SPDX-License-Identifier: MIT
 *
 * What library-client does, with nothing between it and Avahi: a resolver for each device at its first NEW, at its
 * answer the TXT strings are read, the resolver is freed and a record browser for the host's A records opened; the
 * record browser is freed at ALL_FOR_NOW. With --window N at most N resolvers are open at a time, and the record
 * browser is freed at its first address. A resolver that the daemon refuses, as too many objects are open, is tried
 * again when one is freed; one that timed out is left open, as its answer may still come. Prints what it took to
 * resolve COUNT devices, and to have the address of each, as one JSON line.
 */
#include <avahi-client/client.h>
#include <avahi-client/lookup.h>
#include <avahi-common/defs.h>
#include <avahi-common/error.h>
#include <avahi-common/malloc.h>
#include <avahi-common/simple-watch.h>

#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/resource.h>
#include <sys/time.h>
#include <time.h>

enum { TIMEOUT_S = 60, NAME_SIZE = 256 };

struct device {
    char name[NAME_SIZE];
    AvahiIfIndex interface;
    int has_address;
};

static AvahiSimplePoll* poll_api;
static AvahiClient* client;
static struct timespec start;
static int wanted;
static int found;
static int addresses;
static int window;
static int open_resolvers;
static double last_found_ms;
static double last_found_cpu_ms;
/* In order of their appearance, with the next to be resolved. */
static struct device* devices;
static int seen;
static int next_in_line;
static const char* browsed_type;
static int has_failed;

static void resolve_next(void);

static void fail(void)
{
    has_failed = 1;
    avahi_simple_poll_quit(poll_api);
}

/* 0 for what is none. */
static int number(const char* text)
{
    const long value = strtol(text, NULL, 10);
    return value > 0 && value <= 1000000 ? (int)value : 0;
}

static double elapsed_ms(void)
{
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return (double)(now.tv_sec - start.tv_sec) * 1e3 + (double)(now.tv_nsec - start.tv_nsec) / 1e6;
}

static double cpu_ms(void)
{
    struct rusage usage;
    getrusage(RUSAGE_SELF, &usage);
    return (double)(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) * 1e3
           + (double)(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e3;
}

static void note_address(struct device* device)
{
    if (device->has_address)
        return;
    device->has_address = 1;
    if (++addresses < wanted)
        return;
    printf("{\"found\": %d, \"lastFoundMs\": %.1f, \"lastAddressMs\": %.1f, \"cpuMs\": %.1f}\n", found,
           last_found_ms, elapsed_ms(), last_found_cpu_ms);
    avahi_simple_poll_quit(poll_api);
}

static void record_event(AvahiRecordBrowser* browser, AvahiIfIndex interface, AvahiProtocol protocol,
                         AvahiBrowserEvent event, const char* name, uint16_t clazz, uint16_t type,
                         const void* data, size_t size, AvahiLookupResultFlags flags, void* userdata)
{
    (void)interface, (void)protocol, (void)name, (void)clazz, (void)type, (void)data, (void)size, (void)flags;
    if (event == AVAHI_BROWSER_NEW)
        note_address(userdata);
    if (window ? event == AVAHI_BROWSER_NEW || event == AVAHI_BROWSER_FAILURE
               : event != AVAHI_BROWSER_NEW && event != AVAHI_BROWSER_REMOVE) {
        avahi_record_browser_free(browser);
        resolve_next();
    }
}

static void read_txt(AvahiStringList* txt)
{
    for (; txt; txt = avahi_string_list_get_next(txt)) {
        char* key = NULL;
        char* value = NULL;
        avahi_string_list_get_pair(txt, &key, &value, NULL);
        avahi_free(value);
        avahi_free(key);
    }
}

static void resolved(AvahiServiceResolver* resolver, AvahiIfIndex interface, AvahiProtocol protocol,
                     AvahiResolverEvent event, const char* name, const char* type, const char* domain,
                     const char* host, const AvahiAddress* address, uint16_t port, AvahiStringList* txt,
                     AvahiLookupResultFlags flags, void* userdata)
{
    (void)name, (void)type, (void)domain, (void)address, (void)port, (void)flags;
    if (event != AVAHI_RESOLVER_FOUND)
        return;
    read_txt(txt);
    if (++found == wanted) {
        last_found_ms = elapsed_ms();
        last_found_cpu_ms = cpu_ms();
    }
    /* Before the record browser is made, so that there is room for it. */
    avahi_service_resolver_free(resolver);
    open_resolvers--;
    if (!avahi_record_browser_new(client, interface, protocol, host, AVAHI_DNS_CLASS_IN, AVAHI_DNS_TYPE_A, 0,
                                  record_event, userdata)) {
        fprintf(stderr, "plain-client: no record browser for %s: %s\n", host,
                avahi_strerror(avahi_client_errno(client)));
        fail();
        return;
    }
    resolve_next();
}

static int resolve(struct device* device)
{
    AvahiServiceResolver* const resolver = avahi_service_resolver_new(
        client, window ? AVAHI_IF_UNSPEC : device->interface, AVAHI_PROTO_UNSPEC, device->name, browsed_type, "local",
        window ? AVAHI_PROTO_INET : AVAHI_PROTO_UNSPEC, AVAHI_LOOKUP_USE_MULTICAST, resolved, device);
    open_resolvers += resolver != NULL;
    return resolver != NULL;
}

static void resolve_next(void)
{
    while (next_in_line < seen && (!window || open_resolvers < window) && resolve(&devices[next_in_line]))
        next_in_line++;
}

/* A device is seen over IPv4 and IPv6 and counts once. */
static void appeared(const char* name, AvahiIfIndex interface)
{
    for (int i = 0; i < seen; i++)
        if (strcmp(devices[i].name, name) == 0)
            return;
    if (seen == wanted)
        return;
    struct device* const device = &devices[seen++];
    snprintf(device->name, NAME_SIZE, "%s", name);
    device->interface = interface;
    resolve_next();
}

static void browsed(AvahiServiceBrowser* browser, AvahiIfIndex interface, AvahiProtocol protocol,
                    AvahiBrowserEvent event, const char* name, const char* type, const char* domain,
                    AvahiLookupResultFlags flags, void* userdata)
{
    (void)browser, (void)protocol, (void)type, (void)domain, (void)flags, (void)userdata;
    if (event == AVAHI_BROWSER_NEW)
        appeared(name, interface);
}

static void client_state(AvahiClient* changed, AvahiClientState state, void* userdata)
{
    (void)changed, (void)state, (void)userdata;
}

static void timed_out(AvahiTimeout* timeout, void* userdata)
{
    (void)timeout, (void)userdata;
    fprintf(stderr, "plain-client: %d of %d devices, %d addresses after %d s\n", found, wanted, addresses, TIMEOUT_S);
    fail();
}

int main(int argc, char** argv)
{
    if (argc == 5 && strcmp(argv[1], "--window") == 0) {
        window = number(argv[2]);
        argc -= 2;
        argv += 2;
    }
    wanted = argc == 3 ? number(argv[2]) : 0;
    if (wanted < 1) {
        fprintf(stderr, "usage: plain-client [--window N] TYPE COUNT\n");
        return 2;
    }
    browsed_type = argv[1];
    devices = calloc((size_t)wanted, sizeof *devices);
    clock_gettime(CLOCK_MONOTONIC, &start);
    poll_api = avahi_simple_poll_new();
    const AvahiPoll* api = avahi_simple_poll_get(poll_api);
    int error;
    client = avahi_client_new(api, AVAHI_CLIENT_NO_FAIL, client_state, NULL, &error);
    AvahiServiceBrowser* browser = NULL;
    if (client)
        browser = avahi_service_browser_new(client, AVAHI_IF_UNSPEC, AVAHI_PROTO_UNSPEC, argv[1], NULL,
                                            AVAHI_LOOKUP_USE_MULTICAST, browsed, NULL);
    if (!browser) {
        fprintf(stderr, "plain-client: cannot browse; is avahi-daemon running?\n");
        return 3;
    }
    struct timeval until;
    gettimeofday(&until, NULL);
    until.tv_sec += TIMEOUT_S;
    AvahiTimeout* timeout = api->timeout_new(api, &until, timed_out, NULL);
    avahi_simple_poll_loop(poll_api);
    api->timeout_free(timeout);
    avahi_service_browser_free(browser);
    avahi_client_free(client);
    avahi_simple_poll_free(poll_api);
    free(devices);
    return has_failed;
}
