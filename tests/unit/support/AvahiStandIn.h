// SPDX-License-Identifier: MIT
#pragma once

#include <avahi-client/client.h>
#include <avahi-client/lookup.h>
#include <avahi-client/publish.h>
#include <avahi-common/strlst.h>

#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

/**
 * Takes the place of libavahi-client in the test program.
 *
 * Every call is written down as one line that names its arguments and the handle it gave, such as
 * `service_resolver_new(client1, 2, -1, "Cam", "_http._tcp", "local", -1, 2) = resolver1`. Handles are
 * numbered by kind from 1. A call with a null, freed or unknown handle fails the running test.
 */
class AvahiStandIn
{
public:
    /** The one that the avahi_… functions talk to; there is at most one. */
    static AvahiStandIn& instance();

    AvahiStandIn();
    ~AvahiStandIn();

    /** What was called since the last time this was asked. */
    std::vector<std::string> takeCalls();

    /** Makes the next call of @p function ("service_resolver_new") fail with @p error. */
    void failNext(const std::string& function, int error);

    /** Nothing fails in calls to come, and nothing runs inside them. */
    void forgetFailures();

    /** What avahi_client_errno() answers from now on. */
    void setError(int error) { m_error = error; }

    /** Runs inside avahi_client_new(), once its callback could be called. */
    void duringClientNew(std::function<void(AvahiClient*)> action) { m_duringClientNew = std::move(action); }
    /** Runs inside avahi_service_browser_free(), while the browser still lives. */
    void duringBrowserFree(std::function<void()> action) { m_duringBrowserFree = std::move(action); }
    /** Runs inside avahi_client_free(), while the client and what hangs on it still live. */
    void duringClientFree(std::function<void()> action) { m_duringClientFree = std::move(action); }

    /** Runs inside the next avahi_entry_group_new(), once its callback could be called. */
    void duringGroupNew(std::function<void(AvahiEntryGroup*)> action) { m_duringGroupNew = std::move(action); }
    /** Runs inside the next call of @p function of a group, resolver or record browser, before it returns. */
    void duringCall(const std::string& function, std::function<void()> action)
    {
        const std::lock_guard<std::recursive_mutex> locker(m_mutex);
        m_duringCall[function] = std::move(action);
    }

    /**
     * Clients have the event loop wait for something from now on, as libavahi-client's do, so that whoever calls can
     * tell whether Avahi is at work.
     */
    void useEventLoop() { m_usesEventLoop = true; }
    /** Runs @p action in the event loop, as what the client of that number waits for. */
    void inCallback(const std::function<void()>& action, int client = 1);

    /** A new handle gets the address of the one of its kind that was freed last, as a real allocator may do. */
    void reuseAddresses() { m_reuseAddresses = true; }

    /** Handles by their number; a number that was never given fails the test and gives null. */
    AvahiClient* client(int number = 1) const;
    AvahiServiceBrowser* browser(int number = 1) const;
    AvahiServiceResolver* resolver(int number = 1) const;
    AvahiRecordBrowser* recordBrowser(int number = 1) const;
    AvahiEntryGroup* group(int number = 1) const;

    /** Names of the handles that live, in order of creation. */
    std::vector<std::string> liveHandles() const;

    /** The user data that was registered, in order of creation. */
    const std::vector<void*>& userData() const { return m_userData; }

    // Each calls the callback that was registered with the handle.
    void fireClientState(AvahiClientState state, int client = 1);
    void fireBrowse(AvahiServiceBrowser* browser, AvahiBrowserEvent event, int interface, int protocol,
                    const char* name, const char* type, const char* domain);
    void fireResolve(AvahiServiceResolver* resolver, AvahiResolverEvent event, int interface, int protocol,
                     const char* name, const char* type, const char* domain, const char* host,
                     const AvahiAddress* address, uint16_t port, AvahiStringList* txt);
    void fireRecord(AvahiRecordBrowser* browser, AvahiBrowserEvent event, const char* name, const void* data,
                    size_t size, int interface = 2);
    void fireGroupState(AvahiEntryGroupState state, int group = 1);

    // For the avahi_… functions.
    enum Kind { Client, Browser, Resolver, RecordBrowser, Group };
    struct Handle
    {
        Kind kind;
        int number;
        bool live;
        Handle* client;
        void* userData;
        AvahiClientCallback clientCallback;
        AvahiServiceBrowserCallback browserCallback;
        AvahiServiceResolverCallback resolverCallback;
        AvahiRecordBrowserCallback recordCallback;
        AvahiEntryGroupCallback groupCallback;
        const AvahiPoll* poll;
        AvahiTimeout* timeout;
    };

    void record(const std::string& call);
    /** Whether the call is to fail; sets the error if so. */
    bool isToFail(const std::string& function);
    Handle* create(Kind kind, Handle* client, void* userData);
    /** The handle at @p pointer if it may be used; fails the test otherwise. */
    Handle* checked(const void* pointer, Kind kind, const std::string& function);
    void release(Handle* handle);
    void releaseChildren(Handle* client);
    static std::string nameOf(const Handle* handle);
    int error() const { return m_error; }
    void waitOn(const AvahiPoll* poll, Handle* client);
    void runDuringClientNew(AvahiClient* client);
    void runDuringBrowserFree();
    void runDuringClientFree();
    void runDuringGroupNew(AvahiEntryGroup* group);
    void runDuringCall(const std::string& function);
    /** Records a call on the group and runs what is to run inside it; what Avahi is to answer. */
    int callOnGroup(AvahiEntryGroup* group, const std::string& function, const std::string& arguments = "");

private:
    Handle* byNumber(Kind kind, int number) const;

    // Clients may be used in several threads, each of them in one at a time. Nothing runs inside a call while it is held.
    mutable std::recursive_mutex m_mutex;
    std::vector<std::string> m_calls;
    std::vector<std::unique_ptr<Handle>> m_handles;
    std::vector<std::unique_ptr<Handle>> m_graveyard;
    std::map<Kind, int> m_lastNumber;
    std::map<Kind, Handle*> m_freedLast;
    std::map<std::string, int> m_failures;
    std::vector<void*> m_userData;
    std::function<void(AvahiClient*)> m_duringClientNew;
    std::function<void()> m_duringBrowserFree;
    std::function<void()> m_duringClientFree;
    std::function<void(AvahiEntryGroup*)> m_duringGroupNew;
    std::map<std::string, std::function<void()>> m_duringCall;
    std::function<void()> m_inCallback;
    int m_error = 0;
    bool m_reuseAddresses = false;
    bool m_usesEventLoop = false;
};
