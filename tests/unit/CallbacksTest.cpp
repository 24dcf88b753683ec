// SPDX-License-Identifier: MIT
#include <vd/AvahiServiceDiscovery.h>

#include <gtest/gtest.h>

#include <cstdint>
#include <string>

namespace {

/** A pointer that is told from others by its number and never followed. */
template <typename Object>
Object* pointer(std::uintptr_t number)
{
    return reinterpret_cast<Object*>(number);
}

/** Writes down which of its handlers was called, and with what. */
class HandlerRecorder : public vd::AvahiServiceDiscovery
{
public:
    using AvahiServiceDiscovery::SAvahiClientStateChanged_callback;
    using AvahiServiceDiscovery::SAvahiRecordBrowser_callback;
    using AvahiServiceDiscovery::SEntryGroup_callback;
    using AvahiServiceDiscovery::SServiceBrowse_callback;
    using AvahiServiceDiscovery::SServiceResolve_callback;

    void* userData() { return static_cast<vd::AvahiServiceDiscovery*>(this); }

    std::string handled;

protected:
    void AvahiClientStateChanged(AvahiClient* changed, AvahiClientState state, void* userdata) override
    {
        note("client", changed, state, userdata);
    }

    void ServiceBrowse(AvahiServiceBrowser* browser, int interface, int protocol, AvahiBrowserEvent event,
                       const char* name, const char* type, const char* domain, AvahiLookupResultFlags flags,
                       void* userdata) override
    {
        note("browse", browser, interface, protocol, event, name, type, domain, flags, userdata);
    }

    void ServiceResolve(AvahiServiceResolver* resolver, int interface, int protocol, AvahiResolverEvent event,
                        const char* name, const char* type, const char* domain, const char* host_name,
                        const AvahiAddress* address, unsigned short port, AvahiStringList* txt,
                        AvahiLookupResultFlags flags, void* userdata) override
    {
        note("resolve", resolver, interface, protocol, event, name, type, domain, host_name, address, port, txt,
             flags, userdata);
    }

    void RecordBrowse(AvahiRecordBrowser* browser, int interface, int protocol, AvahiBrowserEvent event,
                      const char* name, unsigned short clazz, unsigned short type, const void* rdata,
                      unsigned long size, AvahiLookupResultFlags flags, void* userdata) override
    {
        note("record", browser, interface, protocol, event, name, clazz, type, rdata, size, flags, userdata);
    }

    void AvahiEntryGroupChanged(AvahiEntryGroup* group, AvahiEntryGroupState state, void* userdata) override
    {
        note("group", group, state, userdata);
    }

private:
    template <typename Object>
    std::string textOf(Object* argument)
    {
        return argument == userData() ? "object" : std::to_string(reinterpret_cast<std::uintptr_t>(argument));
    }
    template <typename Number>
    std::string textOf(Number argument)
    {
        return std::to_string(argument);
    }

    template <typename... Arguments>
    void note(const char* handler, Arguments... arguments)
    {
        handled += handler;
        ((handled += ' ' + textOf(arguments)), ...);
    }
};

class CallbacksTest : public testing::Test
{
protected:
    HandlerRecorder recorder;
};

} // namespace

TEST_F(CallbacksTest, ClientStateReachesItsHandlerAsItIs)
{
    HandlerRecorder::SAvahiClientStateChanged_callback(pointer<AvahiClient>(1), AVAHI_CLIENT_FAILURE,
                                                       recorder.userData());
    EXPECT_EQ(recorder.handled, "client 1 100 object");
}

TEST_F(CallbacksTest, BrowseEventReachesItsHandlerAsItIs)
{
    HandlerRecorder::SServiceBrowse_callback(pointer<AvahiServiceBrowser>(1), 2, 3, AVAHI_BROWSER_FAILURE,
                                             pointer<char>(5), pointer<char>(6), pointer<char>(7),
                                             AVAHI_LOOKUP_RESULT_LOCAL, recorder.userData());
    EXPECT_EQ(recorder.handled, "browse 1 2 3 4 5 6 7 8 object");
}

TEST_F(CallbacksTest, ResolveEventReachesItsHandlerAsItIs)
{
    HandlerRecorder::SServiceResolve_callback(pointer<AvahiServiceResolver>(10), 2, 3, AVAHI_RESOLVER_FAILURE,
                                              pointer<char>(4), pointer<char>(5), pointer<char>(6),
                                              pointer<char>(7), pointer<AvahiAddress>(9), 65535,
                                              pointer<AvahiStringList>(11), AVAHI_LOOKUP_RESULT_LOCAL,
                                              recorder.userData());
    EXPECT_EQ(recorder.handled, "resolve 10 2 3 1 4 5 6 7 9 65535 11 8 object");
}

TEST_F(CallbacksTest, RecordEventReachesItsHandlerAsItIs)
{
    HandlerRecorder::SAvahiRecordBrowser_callback(pointer<AvahiRecordBrowser>(1), 2, 3, AVAHI_BROWSER_FAILURE,
                                                  pointer<char>(5), 6, 7, pointer<void>(9), 10,
                                                  AVAHI_LOOKUP_RESULT_LOCAL, recorder.userData());
    EXPECT_EQ(recorder.handled, "record 1 2 3 4 5 6 7 9 10 8 object");
}

TEST_F(CallbacksTest, EntryGroupStateReachesItsHandlerAsItIs)
{
    HandlerRecorder::SEntryGroup_callback(pointer<AvahiEntryGroup>(1), AVAHI_ENTRY_GROUP_COLLISION,
                                          recorder.userData());
    EXPECT_EQ(recorder.handled, "group 1 3 object");
}
