// SPDX-License-Identifier: MIT
#include "support/AvahiStandIn.h"

#include <avahi-common/error.h>

#include <QtCore/QCoreApplication>
#include <QtCore/QElapsedTimer>

#include <gtest/gtest.h>

#include <cstdarg>
#include <cstdio>
#include <sstream>

namespace {

const int LONG_MS = 5000;

AvahiStandIn* theInstance = nullptr;

std::string quoted(const char* text)
{
    return text ? '"' + std::string(text) + '"' : "null";
}

// Bytes that are not printable ASCII appear as \xNN.
std::string visible(const uint8_t* bytes, size_t size)
{
    std::string text;
    for (size_t i = 0; i < size; ++i) {
        char escaped[5];
        std::snprintf(escaped, sizeof escaped, "\\x%02x", bytes[i]);
        text += bytes[i] > 0x1f && bytes[i] < 0x7f ? std::string(1, static_cast<char>(bytes[i])) : escaped;
    }
    return text;
}

std::string textOf(AvahiStringList* list)
{
    std::string text;
    for (; list; list = avahi_string_list_get_next(list)) {
        text += (text.empty() ? "" : " ")
                + visible(avahi_string_list_get_text(list), avahi_string_list_get_size(list));
    }
    return '[' + text + ']';
}

template <typename... Arguments>
std::string joined(const Arguments&... arguments)
{
    std::ostringstream out;
    ((out << ", " << arguments), ...);
    return out.str();
}

template <typename... Arguments>
std::string callText(const std::string& function, const Arguments&... arguments)
{
    std::ostringstream out;
    const char* separator = "";
    out << function << '(';
    ((out << separator << arguments, separator = ", "), ...);
    out << ')';
    return out.str();
}

AvahiStandIn& avahi()
{
    return AvahiStandIn::instance();
}

template <typename Opaque>
Opaque* opaque(AvahiStandIn::Handle* handle)
{
    return reinterpret_cast<Opaque*>(handle);
}

} // namespace

AvahiStandIn& AvahiStandIn::instance()
{
    return *theInstance;
}

AvahiStandIn::AvahiStandIn()
{
    theInstance = this;
}

AvahiStandIn::~AvahiStandIn()
{
    theInstance = nullptr;
    for (const std::string& handle : liveHandles())
        ADD_FAILURE() << handle << " left open";
}

std::vector<std::string> AvahiStandIn::takeCalls()
{
    const std::lock_guard<std::recursive_mutex> locker(m_mutex);
    std::vector<std::string> calls;
    calls.swap(m_calls);
    return calls;
}

void AvahiStandIn::record(const std::string& call)
{
    const std::lock_guard<std::recursive_mutex> locker(m_mutex);
    m_calls.push_back(call);
}

void AvahiStandIn::failNext(const std::string& function, int error)
{
    const std::lock_guard<std::recursive_mutex> locker(m_mutex);
    m_failures[function] = error;
}

void AvahiStandIn::forgetFailures()
{
    const std::lock_guard<std::recursive_mutex> locker(m_mutex);
    m_failures.clear();
    m_duringGroupNew = nullptr;
    m_duringCall.clear();
}

bool AvahiStandIn::isToFail(const std::string& function)
{
    const std::lock_guard<std::recursive_mutex> locker(m_mutex);
    const auto failure = m_failures.find(function);
    if (failure == m_failures.end())
        return false;
    m_error = failure->second;
    m_failures.erase(failure);
    return true;
}

AvahiStandIn::Handle* AvahiStandIn::create(Kind kind, Handle* client, void* userData)
{
    const std::lock_guard<std::recursive_mutex> locker(m_mutex);
    Handle* handle = m_reuseAddresses ? m_freedLast[kind] : nullptr;
    m_freedLast[kind] = nullptr;
    if (handle) {
        m_graveyard.push_back(std::make_unique<Handle>(*handle));
    } else {
        m_handles.push_back(std::make_unique<Handle>());
        handle = m_handles.back().get();
    }
    *handle = Handle{kind,    ++m_lastNumber[kind], true,    client,  userData, nullptr,
                     nullptr, nullptr,              nullptr, nullptr, nullptr,  nullptr};
    m_userData.push_back(userData);
    return handle;
}

AvahiStandIn::Handle* AvahiStandIn::checked(const void* pointer, Kind kind, const std::string& function)
{
    const std::lock_guard<std::recursive_mutex> locker(m_mutex);
    if (!pointer) {
        ADD_FAILURE() << function << " was called with a null handle";
        return nullptr;
    }
    for (const std::unique_ptr<Handle>& handle : m_handles) {
        if (handle.get() != pointer)
            continue;
        if (handle->kind != kind || !handle->live) {
            ADD_FAILURE() << function << " was called with the freed or mistaken handle " << nameOf(handle.get());
            return nullptr;
        }
        return handle.get();
    }
    ADD_FAILURE() << function << " was called with a handle that was never given";
    return nullptr;
}

void AvahiStandIn::release(Handle* handle)
{
    const std::lock_guard<std::recursive_mutex> locker(m_mutex);
    handle->live = false;
    if (handle->timeout)
        handle->poll->timeout_free(handle->timeout);
    handle->timeout = nullptr;
    m_freedLast[handle->kind] = handle;
}

void AvahiStandIn::releaseChildren(Handle* client)
{
    const std::lock_guard<std::recursive_mutex> locker(m_mutex);
    for (const std::unique_ptr<Handle>& handle : m_handles) {
        if (handle->live && handle->client == client)
            release(handle.get());
    }
}

std::string AvahiStandIn::nameOf(const Handle* handle)
{
    static const char* const names[] = {"client", "browser", "resolver", "recordBrowser", "group"};
    return names[handle->kind] + std::to_string(handle->number);
}

void AvahiStandIn::waitOn(const AvahiPoll* poll, Handle* client)
{
    if (!m_usesEventLoop || !poll)
        return;
    client->poll = poll;
    client->timeout = poll->timeout_new(
        poll, nullptr,
        [](AvahiTimeout*, void* standIn) {
            std::function<void()> action;
            action.swap(static_cast<AvahiStandIn*>(standIn)->m_inCallback);
            if (action)
                action();
        },
        this);
}

void AvahiStandIn::inCallback(const std::function<void()>& action, int client)
{
    const Handle* const waiting = byNumber(Client, client);
    bool isOver = false;
    m_inCallback = [&] {
        action();
        isOver = true;
    };
    const timeval past = {1, 0};
    waiting->poll->timeout_update(waiting->timeout, &past);
    QElapsedTimer waited;
    waited.start();
    while (!isOver && waited.elapsed() < LONG_MS)
        QCoreApplication::processEvents();
    EXPECT_TRUE(isOver) << "what the client waits for did not happen";
}

void AvahiStandIn::runDuringClientNew(AvahiClient* client)
{
    if (m_duringClientNew)
        m_duringClientNew(client);
}

void AvahiStandIn::runDuringBrowserFree()
{
    std::function<void()> action;
    action.swap(m_duringBrowserFree);
    if (action)
        action();
}

void AvahiStandIn::runDuringClientFree()
{
    if (m_duringClientFree)
        m_duringClientFree();
}

void AvahiStandIn::runDuringGroupNew(AvahiEntryGroup* group)
{
    std::function<void(AvahiEntryGroup*)> action;
    action.swap(m_duringGroupNew);
    if (action)
        action(group);
}

int AvahiStandIn::callOnGroup(AvahiEntryGroup* group, const std::string& function, const std::string& arguments)
{
    Handle* handle = checked(group, Group, function);
    if (!handle)
        return AVAHI_ERR_BAD_STATE;
    record(function + '(' + nameOf(handle) + arguments + ')');
    const int error = isToFail(function) ? m_error : AVAHI_OK;
    runDuringCall(function);
    EXPECT_TRUE(handle->live) << function << " returns to a group that was freed meanwhile";
    return error;
}

void AvahiStandIn::runDuringCall(const std::string& function)
{
    std::function<void()> action;
    {
        const std::lock_guard<std::recursive_mutex> locker(m_mutex);
        action.swap(m_duringCall[function]);
    }
    if (action)
        action();
}

AvahiStandIn::Handle* AvahiStandIn::byNumber(Kind kind, int number) const
{
    const std::lock_guard<std::recursive_mutex> locker(m_mutex);
    for (const std::unique_ptr<Handle>& handle : m_handles) {
        if (handle->kind == kind && handle->number == number)
            return handle.get();
    }
    ADD_FAILURE() << "there is no handle " << number << " of kind " << kind;
    return nullptr;
}

AvahiClient* AvahiStandIn::client(int number) const
{
    return opaque<AvahiClient>(byNumber(Client, number));
}

AvahiServiceBrowser* AvahiStandIn::browser(int number) const
{
    return opaque<AvahiServiceBrowser>(byNumber(Browser, number));
}

AvahiServiceResolver* AvahiStandIn::resolver(int number) const
{
    return opaque<AvahiServiceResolver>(byNumber(Resolver, number));
}

AvahiRecordBrowser* AvahiStandIn::recordBrowser(int number) const
{
    return opaque<AvahiRecordBrowser>(byNumber(RecordBrowser, number));
}

AvahiEntryGroup* AvahiStandIn::group(int number) const
{
    return opaque<AvahiEntryGroup>(byNumber(Group, number));
}

std::vector<std::string> AvahiStandIn::liveHandles() const
{
    const std::lock_guard<std::recursive_mutex> locker(m_mutex);
    std::vector<std::string> names;
    for (const std::unique_ptr<Handle>& handle : m_handles) {
        if (handle->live)
            names.push_back(nameOf(handle.get()));
    }
    return names;
}

void AvahiStandIn::fireClientState(AvahiClientState state, int number)
{
    Handle* handle = checked(client(number), Client, "fireClientState");
    if (handle)
        handle->clientCallback(client(number), state, handle->userData);
}

void AvahiStandIn::fireBrowse(AvahiServiceBrowser* browser, AvahiBrowserEvent event, int interface, int protocol,
                              const char* name, const char* type, const char* domain)
{
    Handle* handle = checked(browser, Browser, "fireBrowse");
    if (handle) {
        handle->browserCallback(browser, interface, protocol, event, name, type, domain, AVAHI_LOOKUP_RESULT_MULTICAST,
                                handle->userData);
    }
}

void AvahiStandIn::fireResolve(AvahiServiceResolver* resolver, AvahiResolverEvent event, int interface, int protocol,
                               const char* name, const char* type, const char* domain, const char* host,
                               const AvahiAddress* address, uint16_t port, AvahiStringList* txt)
{
    Handle* handle = checked(resolver, Resolver, "fireResolve");
    if (handle) {
        handle->resolverCallback(resolver, interface, protocol, event, name, type, domain, host, address, port, txt,
                                 AVAHI_LOOKUP_RESULT_MULTICAST, handle->userData);
    }
}

void AvahiStandIn::fireRecord(AvahiRecordBrowser* browser, AvahiBrowserEvent event, const char* name,
                              const void* data, size_t size, int interface)
{
    Handle* handle = checked(browser, RecordBrowser, "fireRecord");
    if (handle) {
        handle->recordCallback(browser, interface, AVAHI_PROTO_INET, event, name, AVAHI_DNS_CLASS_IN, AVAHI_DNS_TYPE_A, data,
                               size, AVAHI_LOOKUP_RESULT_MULTICAST, handle->userData);
    }
}

void AvahiStandIn::fireGroupState(AvahiEntryGroupState state, int number)
{
    Handle* handle = checked(group(number), Group, "fireGroupState");
    if (handle)
        handle->groupCallback(group(number), state, handle->userData);
}

namespace {

/** Makes what hangs on a client, unless that is to fail. */
template <typename Callback>
AvahiStandIn::Handle* makeOn(AvahiClient* client, AvahiStandIn::Kind kind, const std::string& function,
                             const std::string& arguments, Callback AvahiStandIn::Handle::*member, Callback callback,
                             void* userData)
{
    AvahiStandIn::Handle* owner = avahi().checked(client, AvahiStandIn::Client, function);
    if (!owner)
        return nullptr;
    const std::string call = function + '(' + AvahiStandIn::nameOf(owner) + arguments + ')';
    avahi().runDuringCall(function);
    if (avahi().isToFail(function)) {
        avahi().record(call + " = null");
        return nullptr;
    }
    AvahiStandIn::Handle* handle = avahi().create(kind, owner, userData);
    handle->*member = callback;
    avahi().record(call + " = " + AvahiStandIn::nameOf(handle));
    return handle;
}

/** Frees what hangs on a client, after @p before has run. */
int freeHandle(const void* pointer, AvahiStandIn::Kind kind, const std::string& function,
               void (AvahiStandIn::*before)() = nullptr)
{
    AvahiStandIn::Handle* handle = avahi().checked(pointer, kind, function);
    if (!handle)
        return AVAHI_ERR_BAD_STATE;
    avahi().record(callText(function, AvahiStandIn::nameOf(handle)));
    avahi().runDuringCall(function);
    if (before)
        (avahi().*before)();
    avahi().release(handle);
    return AVAHI_OK;
}

AvahiClient* clientOf(const void* pointer, AvahiStandIn::Kind kind, const std::string& function)
{
    AvahiStandIn::Handle* handle = avahi().checked(pointer, kind, function);
    if (!handle)
        return nullptr;
    avahi().record(callText(function, AvahiStandIn::nameOf(handle)));
    return opaque<AvahiClient>(handle->client);
}

} // namespace

extern "C" {

AvahiClient* avahi_client_new(const AvahiPoll* poll, AvahiClientFlags flags, AvahiClientCallback callback,
                              void* userData, int* error)
{
    AvahiStandIn& standIn = avahi();
    const std::string call = callText("client_new", poll ? "poll" : "null", static_cast<int>(flags));
    standIn.runDuringCall("client_new");
    if (standIn.isToFail("client_new")) {
        *error = standIn.error();
        standIn.record(call + " = null");
        return nullptr;
    }
    AvahiStandIn::Handle* handle = standIn.create(AvahiStandIn::Client, nullptr, userData);
    handle->clientCallback = callback;
    standIn.waitOn(poll, handle);
    standIn.record(call + " = " + AvahiStandIn::nameOf(handle));
    standIn.runDuringClientNew(opaque<AvahiClient>(handle));
    return opaque<AvahiClient>(handle);
}

void avahi_client_free(AvahiClient* client)
{
    AvahiStandIn& standIn = avahi();
    AvahiStandIn::Handle* handle = standIn.checked(client, AvahiStandIn::Client, "client_free");
    if (!handle)
        return;
    standIn.record(callText("client_free", AvahiStandIn::nameOf(handle)));
    standIn.runDuringClientFree();
    standIn.releaseChildren(handle);
    standIn.release(handle);
}

int avahi_client_errno(AvahiClient* client)
{
    AvahiStandIn& standIn = avahi();
    AvahiStandIn::Handle* handle = standIn.checked(client, AvahiStandIn::Client, "client_errno");
    if (handle)
        standIn.record(callText("client_errno", AvahiStandIn::nameOf(handle)));
    return standIn.error();
}

AvahiServiceBrowser* avahi_service_browser_new(AvahiClient* client, AvahiIfIndex interface, AvahiProtocol protocol,
                                               const char* type, const char* domain, AvahiLookupFlags flags,
                                               AvahiServiceBrowserCallback callback, void* userData)
{
    const std::string arguments
        = joined(interface, protocol, quoted(type), quoted(domain), static_cast<int>(flags));
    return opaque<AvahiServiceBrowser>(makeOn(client, AvahiStandIn::Browser, "service_browser_new", arguments,
                                              &AvahiStandIn::Handle::browserCallback, callback, userData));
}

int avahi_service_browser_free(AvahiServiceBrowser* browser)
{
    return freeHandle(browser, AvahiStandIn::Browser, "service_browser_free", &AvahiStandIn::runDuringBrowserFree);
}

AvahiClient* avahi_service_browser_get_client(AvahiServiceBrowser* browser)
{
    return clientOf(browser, AvahiStandIn::Browser, "service_browser_get_client");
}

AvahiServiceResolver* avahi_service_resolver_new(AvahiClient* client, AvahiIfIndex interface, AvahiProtocol protocol,
                                                 const char* name, const char* type, const char* domain,
                                                 AvahiProtocol addressProtocol, AvahiLookupFlags flags,
                                                 AvahiServiceResolverCallback callback, void* userData)
{
    const std::string arguments = joined(interface, protocol, quoted(name), quoted(type), quoted(domain),
                                         addressProtocol, static_cast<int>(flags));
    return opaque<AvahiServiceResolver>(makeOn(client, AvahiStandIn::Resolver, "service_resolver_new", arguments,
                                               &AvahiStandIn::Handle::resolverCallback, callback, userData));
}

int avahi_service_resolver_free(AvahiServiceResolver* resolver)
{
    return freeHandle(resolver, AvahiStandIn::Resolver, "service_resolver_free");
}

AvahiRecordBrowser* avahi_record_browser_new(AvahiClient* client, AvahiIfIndex interface, AvahiProtocol protocol,
                                             const char* name, uint16_t clazz, uint16_t type, AvahiLookupFlags flags,
                                             AvahiRecordBrowserCallback callback, void* userData)
{
    const std::string arguments = joined(interface, protocol, quoted(name), clazz, type, static_cast<int>(flags));
    return opaque<AvahiRecordBrowser>(makeOn(client, AvahiStandIn::RecordBrowser, "record_browser_new", arguments,
                                             &AvahiStandIn::Handle::recordCallback, callback, userData));
}

int avahi_record_browser_free(AvahiRecordBrowser* browser)
{
    return freeHandle(browser, AvahiStandIn::RecordBrowser, "record_browser_free");
}

AvahiClient* avahi_record_browser_get_client(AvahiRecordBrowser* browser)
{
    return clientOf(browser, AvahiStandIn::RecordBrowser, "record_browser_get_client");
}

AvahiEntryGroup* avahi_entry_group_new(AvahiClient* client, AvahiEntryGroupCallback callback, void* userData)
{
    AvahiStandIn::Handle* handle = makeOn(client, AvahiStandIn::Group, "entry_group_new", "",
                                          &AvahiStandIn::Handle::groupCallback, callback, userData);
    if (!handle)
        return nullptr;
    avahi().runDuringGroupNew(opaque<AvahiEntryGroup>(handle));
    EXPECT_TRUE(handle->live) << "entry_group_new returns a group that was freed meanwhile";
    return opaque<AvahiEntryGroup>(handle);
}

int avahi_entry_group_add_service_strlst(AvahiEntryGroup* group, AvahiIfIndex interface, AvahiProtocol protocol,
                                         AvahiPublishFlags flags, const char* name, const char* type,
                                         const char* domain, const char* host, uint16_t port, AvahiStringList* txt)
{
    return avahi().callOnGroup(group, "entry_group_add_service_strlst",
                               joined(interface, protocol, static_cast<int>(flags), quoted(name), quoted(type),
                                      quoted(domain), quoted(host), port, textOf(txt)));
}

int avahi_entry_group_update_service_txt(AvahiEntryGroup* group, AvahiIfIndex interface, AvahiProtocol protocol,
                                         AvahiPublishFlags flags, const char* name, const char* type,
                                         const char* domain, ...)
{
    va_list strings;
    va_start(strings, domain);
    AvahiStringList* const txt = avahi_string_list_new_va(strings);
    va_end(strings);
    const std::string arguments = joined(interface, protocol, static_cast<int>(flags), quoted(name), quoted(type),
                                         quoted(domain), textOf(txt));
    avahi_string_list_free(txt);
    return avahi().callOnGroup(group, "entry_group_update_service_txt", arguments);
}

int avahi_entry_group_commit(AvahiEntryGroup* group)
{
    return avahi().callOnGroup(group, "entry_group_commit");
}

int avahi_entry_group_reset(AvahiEntryGroup* group)
{
    return avahi().callOnGroup(group, "entry_group_reset");
}

int avahi_entry_group_free(AvahiEntryGroup* group)
{
    const int error = avahi().callOnGroup(group, "entry_group_free");
    // As libavahi-client does, whatever the daemon answered.
    AvahiStandIn::Handle* handle = avahi().checked(group, AvahiStandIn::Group, "entry_group_free");
    if (handle)
        avahi().release(handle);
    return error;
}

} // extern "C"
