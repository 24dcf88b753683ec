// SPDX-License-Identifier: MIT

// Orders of calls that would touch a freed or null Avahi object. The stand-in fails a test that does.

#include "support/DiscoveryFixture.h"
#include "support/OverridingDiscovery.h"

#include <QtCore/QCoreApplication>

#include <algorithm>

namespace {

const std::string SERIAL = "ser_no.vandrel.com=\x01\x02\x03";

std::string failedToCreate(const char* name, int error)
{
    return std::string("[1] AvahiServiceDiscovery::ResolveService() -> failed create AvahiServiceResolver ") + name
           + " error: " + avahi_strerror(error);
}

/** The signals of the discovery, each with the event that causes it. */
enum Event { Found, AddressByResolve, Text, Lost, AddressAdded, AddressRemoved };

std::string eventName(const testing::TestParamInfo<Event>& info)
{
    static const char* const names[] = {"Found", "AddressByResolve", "Text", "Lost", "AddressAdded", "AddressRemoved"};
    return names[info.param];
}

} // namespace

class GuardsTest : public DiscoveryTest
{
protected:
    const Txt camera = {SERIAL};
};

TEST_F(GuardsTest, ResolvingBeforeBrowsingFailsWithItsMessage)
{
    EXPECT_FALSE(discovery().ResolveService(2, "Cam", "_http._tcp", "local"));
    EXPECT_EQ(takeCalls(), Lines());
    EXPECT_EQ(takeLog(), (Lines{"[1] AvahiServiceDiscovery::ResolveService () -> trying to resolve service: Cam",
                                failedToCreate("Cam", AVAHI_ERR_BAD_STATE)}));
    EXPECT_EQ(table(), Lines());
}

TEST_F(GuardsTest, QueryingBeforeBrowsingFailsWithItsMessage)
{
    EXPECT_FALSE(discovery().StartQueryRecords("Cam", "_http._tcp", true));
    EXPECT_EQ(takeCalls(), Lines());
    EXPECT_EQ(takeLog().back(), failedToCreate("Cam", AVAHI_ERR_BAD_STATE));
    discovery().StopQueryRecords("Cam", "_http._tcp");
    EXPECT_EQ(takeCalls(), Lines());
}

TEST_F(GuardsTest, ResolvingAfterTerminateFails)
{
    startBrowsing();
    discovery().TerminateBrowsing();
    takeCalls();
    EXPECT_FALSE(discovery().ResolveService(2, "Cam", "_http._tcp", "local"));
    EXPECT_EQ(takeCalls(), Lines());
}

TEST_F(GuardsTest, TypesThatAvahiWouldAbortOnAreRefused)
{
    startBrowsing();
    for (const char* type : {static_cast<const char*>(nullptr), "_ht\xfftp._tcp", "\xc3"}) {
        EXPECT_FALSE(discovery().BrowseServices(type));
        EXPECT_EQ(takeLog().back(),
                  "[1] AvahiServiceDiscovery::BrowseServices() -> could not create Avahi Service Browser ");
        EXPECT_FALSE(discovery().ResolveService(2, "Cam", type, "local"));
        EXPECT_EQ(takeLog().back(), failedToCreate("Cam", AVAHI_ERR_INVALID_ARGUMENT));
    }
    EXPECT_EQ(takeCalls(), Lines());
}

TEST_F(GuardsTest, NamesAndDomainsThatAreNotUtf8AreRefused)
{
    startBrowsing();
    EXPECT_FALSE(discovery().ResolveService(2, "C\xe4m", "_http._tcp", "local"));
    EXPECT_FALSE(discovery().ResolveService(2, "Cam", "_http._tcp", "l\xe4" "cal"));
    EXPECT_FALSE(discovery().StartQueryRecords("C\xe4m", "_http._tcp", false));
    EXPECT_EQ(takeCalls(), Lines());
}

TEST_F(GuardsTest, AnyUtf8NameIsHandedOver)
{
    startBrowsing();
    for (const char* name : {"K\xc3\xbc" "che", "\xef\xbb\xbf" "mark", "\xf0\x9f\x93\xb7", ""})
        EXPECT_TRUE(discovery().ResolveService(2, name, "_http._tcp", "local")) << name;
    EXPECT_TRUE(discovery().ResolveService(2, nullptr, "_http._tcp", "local"));
    EXPECT_EQ(takeCalls().back(),
              "service_resolver_new(client1, 2, -1, null, \"_http._tcp\", \"local\", -1, 2) = resolver5");
}

TEST_F(GuardsTest, StoppingAfterTerminateLeavesTheDeadResolverAlone)
{
    startBrowsing();
    discovery().StartQueryRecords("Cam", "_http._tcp", true);
    discovery().TerminateBrowsing();
    forgetAll();
    EXPECT_EQ(discovery().longLiveResolver, avahi.resolver(1));
    discovery().StopQueryRecords("Cam", "_http._tcp");
    EXPECT_EQ(takeCalls(), Lines());
    EXPECT_EQ(discovery().longLiveResolver, nullptr);
}

TEST_F(GuardsTest, StoppingAfterBrowsingAgainLeavesTheDeadResolverAlone)
{
    avahi.reuseAddresses();
    startBrowsing();
    discovery().StartQueryRecords("Cam", "_http._tcp", true);
    discovery().TerminateBrowsing();
    startBrowsing();
    // This one gets the address of the dead one, and nobody asked to stop it.
    discovery().ResolveService(2, "Other", "_http._tcp", "local");
    takeCalls();
    discovery().StopQueryRecords("Cam", "_http._tcp");
    EXPECT_EQ(takeCalls(), Lines());
}

TEST_F(GuardsTest, ResolverKeptAfterBrowsingAgainIsFreedByStop)
{
    avahi.reuseAddresses();
    startBrowsing();
    discovery().StartQueryRecords("Cam", "_http._tcp", true);
    discovery().TerminateBrowsing();
    startBrowsing();
    discovery().StartQueryRecords("Cam", "_http._tcp", true);
    takeCalls();
    discovery().StopQueryRecords("Cam", "_http._tcp");
    EXPECT_EQ(takeCalls(), Lines{"service_resolver_free(resolver2)"});
}

TEST_F(GuardsTest, ResolverThatEndedWithItsServiceIsNotFreedAgainByStop)
{
    startBrowsing();
    cameraFound("Cam", "cam.local", "10.0.0.1");
    discovery().StartQueryRecords("Cam", "_http._tcp", true);
    disappears("Cam");
    takeCalls();
    // The mark went with the entry, so this resolve ends as any other.
    resolved(2, "Cam", "cam.local", "10.0.0.1", camera);
    EXPECT_EQ(takeCalls().back(), "service_resolver_free(resolver2)");
    EXPECT_EQ(discovery().longLiveResolver, avahi.resolver(2));
    discovery().StopQueryRecords("Cam", "_http._tcp");
    EXPECT_EQ(takeCalls(), Lines());
    EXPECT_EQ(discovery().longLiveResolver, nullptr);
}

TEST_F(GuardsTest, StoppingAQueryInItsOwnCallbackFreesItsResolverOnce)
{
    startBrowsing();
    discovery().StartQueryRecords("Cam", "_http._tcp", true);
    takeCalls();
    inNextSlot([this] { discovery().StopQueryRecords("Cam", "_http._tcp"); });
    resolved(1, "Cam", "cam.local", "10.0.0.1", camera);
    EXPECT_EQ(takeCalls(), (Lines{"service_resolver_free(resolver1)",
                                  "record_browser_new(client1, 2, 0, \"cam.local\", 1, 1, 0) = recordBrowser1"}));
    EXPECT_EQ(discovery().longLiveResolver, nullptr);
    EXPECT_EQ(discovery().longLiveRecordBrowser, nullptr);
    EXPECT_EQ(queue(), Lines{"Cam, _http._tcp"});
}

TEST_F(GuardsTest, AResolverMadeInTheSlotIsNotTakenForTheOneThatCalledBack)
{
    avahi.reuseAddresses();
    startBrowsing();
    discovery().StartQueryRecords("Cam", "_http._tcp", true);
    inNextSlot([this] {
        discovery().StopQueryRecords("Cam", "_http._tcp");
        discovery().ResolveService(2, "Other", "_http._tcp", "local");
    });
    resolved(1, "Cam", "cam.local", "10.0.0.1", camera);
    EXPECT_EQ(avahi.liveHandles(), (Lines{"client1", "browser1", "resolver2", "recordBrowser1"}));
}

TEST_F(GuardsTest, StoppingAnotherQueryInACallbackLeavesTheRunningResolverToTheHandler)
{
    startBrowsing();
    discovery().StartQueryRecords("Other", "_http._tcp", true);
    appears("Cam");
    takeCalls();
    inNextSlot([this] { discovery().StopQueryRecords("Other", "_http._tcp"); });
    resolved(2, "Cam", "cam.local", "10.0.0.1", camera);
    EXPECT_EQ(takeCalls(), (Lines{"service_resolver_free(resolver1)",
                                  "record_browser_new(client1, 2, 0, \"cam.local\", 1, 1, 0) = recordBrowser1",
                                  "service_resolver_free(resolver2)"}));
}

TEST_F(GuardsTest, MissingHostGivesAFailedRecordBrowser)
{
    startBrowsing();
    appears("Cam");
    takeLog();
    takeCalls();
    resolved(1, "Cam", nullptr, "10.0.0.1", camera);
    EXPECT_EQ(takeCalls(), (Lines{"client_errno(client1)", "service_resolver_free(resolver1)"}));
    EXPECT_EQ(takeLog().back(),
              std::string("[1] AvahiServiceDiscovery::ServiceResolve() -> failed to create record browser Cam error: ")
                  + avahi_strerror(AVAHI_OK));
}

TEST_F(GuardsTest, FailureWithNothingButAResolverIsSurvived)
{
    startBrowsing();
    appears("Cam");
    avahi.setError(AVAHI_ERR_NOT_FOUND);
    avahi.fireResolve(avahi.resolver(), AVAHI_RESOLVER_FAILURE, -1, -1, nullptr, nullptr, nullptr, nullptr, nullptr, 0,
                      nullptr);
    EXPECT_EQ(avahi.liveHandles(), (Lines{"client1", "browser1"}));
}

TEST_F(GuardsTest, EventsWithNothingButABrowserAreSurvived)
{
    startBrowsing();
    for (int event = 0; event <= 5; ++event) {
        avahi.fireBrowse(avahi.browser(), static_cast<AvahiBrowserEvent>(event), -1, -1, nullptr, nullptr, nullptr);
    }
    EXPECT_TRUE(discovery().IsBrowsing());
}

TEST_F(GuardsTest, RecordEventsWithNothingButABrowserAreSurvived)
{
    startBrowsing();
    cameraFound("Cam", "cam.local", "10.0.0.1");
    avahi.fireRecord(avahi.recordBrowser(), AVAHI_BROWSER_NEW, nullptr, nullptr, 4);
    avahi.fireRecord(avahi.recordBrowser(), AVAHI_BROWSER_REMOVE, nullptr, nullptr, 16);
    avahi.fireRecord(avahi.recordBrowser(), AVAHI_BROWSER_FAILURE, nullptr, nullptr, 0);
    EXPECT_EQ(avahi.liveHandles(), (Lines{"client1", "browser1"}));
}

TEST_F(GuardsTest, CallbacksThatArriveWhileTheClientIsFreedDoNothing)
{
    startBrowsing();
    discovery().StartQueryRecords("Cam", "_http._tcp", true);
    resolved(1, "Cam", "cam.local", "10.0.0.1", camera);
    forgetAll();
    avahi.duringClientFree([this] {
        avahi.fireResolve(avahi.resolver(), AVAHI_RESOLVER_FAILURE, 2, 0, "Cam", "_http._tcp", "local", nullptr, nullptr,
                          0, nullptr);
        resolved(1, "Cam", "cam.local", "10.0.0.2", camera);
        record(1, AVAHI_BROWSER_NEW, "cam.local", "10.0.0.3");
        record(1, AVAHI_BROWSER_FAILURE, "cam.local", nullptr);
        record(1, AVAHI_BROWSER_ALL_FOR_NOW, "cam.local", nullptr);
        avahi.fireClientState(AVAHI_CLIENT_FAILURE);
    });
    discovery().TerminateBrowsing();
    EXPECT_EQ(takeCalls(), (Lines{"service_browser_free(browser1)", "client_free(client1)"}));
    EXPECT_EQ(takeSignals(), Lines());
    EXPECT_EQ(takeLog(), (Lines{"[1] AvahiServiceDiscovery::TerminateBrowsing",
                                "[1] AvahiServiceDiscovery::SAvahiClient_callback() -> Avahi client failure"}));
    EXPECT_EQ(table(), Lines());
    EXPECT_EQ(queue(), Lines());
}

TEST_F(GuardsTest, ServicesThatAppearWhileTheClientIsFreedAreNotResolved)
{
    startBrowsing();
    OpenDiscovery* const d = &discovery();
    avahi.duringClientFree([d] { d->ResolveService(2, "Cam", "_http._tcp", "local"); });
    discovery().TerminateBrowsing();
    EXPECT_EQ(takeCalls(), (Lines{"service_browser_free(browser1)", "client_free(client1)"}));
}

TEST_F(GuardsTest, BrowseEventsThatArriveWhileTheClientIsFreedDoNothing)
{
    startBrowsing();
    cameraFound("Cam", "cam.local", "10.0.0.1");
    avahi.duringClientFree([this] {
        for (const AvahiBrowserEvent event : {AVAHI_BROWSER_NEW, AVAHI_BROWSER_REMOVE, AVAHI_BROWSER_FAILURE})
            discovery().ServiceBrowse(nullptr, 2, AVAHI_PROTO_INET, event, "Cam", "_http._tcp", "local",
                                      static_cast<AvahiLookupResultFlags>(0), nullptr);
    });
    discovery().TerminateBrowsing();
    EXPECT_EQ(takeLog(), Lines{"[1] AvahiServiceDiscovery::TerminateBrowsing"});
    EXPECT_EQ(takeSignals(), Lines());
}

TEST_F(GuardsTest, EventsBeforeBrowsingAreSurvived)
{
    AvahiAddress address;
    ASSERT_TRUE(avahi_address_parse("10.0.0.1", AVAHI_PROTO_INET, &address));
    const AvahiLookupResultFlags none = static_cast<AvahiLookupResultFlags>(0);
    discovery().ServiceBrowse(nullptr, 2, 0, AVAHI_BROWSER_FAILURE, nullptr, nullptr, nullptr, none, nullptr);
    discovery().ServiceResolve(nullptr, 2, 0, AVAHI_RESOLVER_FAILURE, "Cam", "_http._tcp", "local", nullptr,
                               nullptr, 0, nullptr, none, nullptr);
    discovery().ServiceResolve(nullptr, 2, 0, AVAHI_RESOLVER_FOUND, "Cam", "_http._tcp", "local", "cam.local",
                               &address, 80, camera, none, nullptr);
    discovery().RecordBrowse(nullptr, 2, 0, AVAHI_BROWSER_FAILURE, "cam.local", 1, 1, nullptr, 0, none, nullptr);
    EXPECT_EQ(takeCalls(), Lines());
    EXPECT_EQ(takeSignals().size(), 1u);
}

TEST_F(GuardsTest, EndOfDiscoveryInANestedHandlerEndsEveryHandler)
{
    startBrowsing();
    cameraFound("Other", "other.local", "10.0.0.2");
    appears("Cam");
    takeCalls();
    inNextSlot([this] {
        inNextSlot([this] { discovery().TerminateBrowsing(); });
        disappears("Other");
    });
    resolved(2, "Cam", "cam.local", "10.0.0.1", camera);
    EXPECT_EQ(takeCalls(), (Lines{"service_browser_free(browser1)", "client_free(client1)"}));
    EXPECT_EQ(table(), Lines());
    EXPECT_EQ(queue(), Lines());
}

TEST_F(GuardsTest, EndOfDiscoveryAfterANestedHandlerEndsTheOuterOne)
{
    startBrowsing();
    cameraFound("Other", "other.local", "10.0.0.2");
    appears("Cam");
    takeCalls();
    inNextSlot([this] {
        disappears("Other");
        discovery().TerminateBrowsing();
    });
    resolved(2, "Cam", "cam.local", "10.0.0.1", camera);
    EXPECT_EQ(takeCalls(), (Lines{"service_browser_free(browser1)", "client_free(client1)"}));
    EXPECT_EQ(table(), Lines());
    EXPECT_EQ(queue(), Lines());
}

TEST_F(GuardsTest, StoppingAQueryInANestedHandlerFreesTheOuterHandlersResolverOnce)
{
    startBrowsing();
    discovery().StartQueryRecords("Cam", "_http._tcp", true);
    cameraFound("Other", "other.local", "10.0.0.2", 2);
    inNextSlot([this] {
        inNextSlot([this] { discovery().StopQueryRecords("Cam", "_http._tcp"); });
        disappears("Other");
    });
    resolved(1, "Cam", "cam.local", "10.0.0.1", camera);
    EXPECT_EQ(takeCalls(), (Lines{"service_resolver_free(resolver1)",
                                  "record_browser_new(client1, 2, 0, \"cam.local\", 1, 1, 0) = recordBrowser2"}));
}

TEST_F(GuardsTest, DeletingInANestedHandlerIsSurvived)
{
    startBrowsing();
    cameraFound("Other", "other.local", "10.0.0.2");
    appears("Cam");
    takeCalls();
    inNextSlot([this] {
        inNextSlot([this] { destroyDiscovery(); });
        disappears("Other");
    });
    resolved(2, "Cam", "cam.local", "10.0.0.1", camera);
    EXPECT_EQ(takeCalls(), (Lines{"service_browser_free(browser1)", "client_free(client1)"}));
}

TEST_F(GuardsTest, BrowsingInsideTheCreationOfTheClientIsRefused)
{
    bool nested = true;
    discovery().inNextHandler = [&] { nested = discovery().BrowseServices("_https._tcp"); };
    avahi.duringClientNew([this](AvahiClient*) { avahi.fireClientState(AVAHI_CLIENT_S_RUNNING); });
    EXPECT_TRUE(discovery().BrowseServices("_http._tcp"));
    EXPECT_FALSE(nested);
    EXPECT_EQ(takeCalls(), (Lines{"client_new(poll, 2) = client1",
                                  "service_browser_new(client1, -1, -1, \"_http._tcp\", null, 2) = browser1"}));
}

TEST_F(GuardsTest, EndingDiscoveryInsideTheCreationOfTheClientFreesItAfterwards)
{
    discovery().inNextHandler = [this] { discovery().TerminateBrowsing(); };
    avahi.duringClientNew([this](AvahiClient*) { avahi.fireClientState(AVAHI_CLIENT_S_RUNNING); });
    EXPECT_FALSE(discovery().BrowseServices("_http._tcp"));
    EXPECT_EQ(takeCalls(), (Lines{"client_new(poll, 2) = client1", "client_free(client1)"}));
    EXPECT_EQ(discovery().client, nullptr);
    EXPECT_FALSE(discovery().IsBrowsing());
}

TEST_F(GuardsTest, DeletingInsideTheCreationOfTheClientFreesItAfterwards)
{
    auto* const deleted = new Overriding<vd::AvahiServiceDiscovery>;
    deleted->onClientState = [deleted](AvahiClientState) { delete deleted; };
    avahi.duringClientNew([this](AvahiClient*) { avahi.fireClientState(AVAHI_CLIENT_S_RUNNING); });
    EXPECT_FALSE(deleted->BrowseServices("_http._tcp"));
    EXPECT_EQ(takeCalls(), (Lines{"client_new(poll, 2) = client1", "client_free(client1)"}));
}

TEST_F(GuardsTest, ResolvingInsideTheCreationOfTheClientFails)
{
    bool resolving = true;
    discovery().inNextHandler
        = [&] { resolving = discovery().ResolveService(2, "Cam", "_http._tcp", "local"); };
    avahi.duringClientNew([this](AvahiClient*) { avahi.fireClientState(AVAHI_CLIENT_S_RUNNING); });
    EXPECT_TRUE(discovery().BrowseServices("_http._tcp"));
    EXPECT_FALSE(resolving);
}

TEST_F(GuardsTest, EndingDiscoveryWhileTheClientIsFreedLeavesTheHandlersShut)
{
    startBrowsing();
    appears("Cam");
    takeCalls();
    avahi.duringClientFree([this] {
        discovery().inNextHandler = [this] { discovery().TerminateBrowsing(); };
        avahi.fireClientState(AVAHI_CLIENT_FAILURE);
        resolved(1, "Cam", "cam.local", "10.0.0.1", camera);
    });
    discovery().TerminateBrowsing();
    EXPECT_EQ(takeCalls(), (Lines{"service_browser_free(browser1)", "client_free(client1)"}));
    EXPECT_EQ(takeSignals(), Lines());
}

TEST_F(GuardsTest, EndingDiscoveryWhileABrowserIsFreedFreesNothingTwice)
{
    startBrowsing();
    discovery().BrowseServices("_https._tcp");
    takeCalls();
    avahi.duringBrowserFree([this] { discovery().TerminateBrowsing(); });
    discovery().TerminateBrowsing();
    EXPECT_EQ(takeCalls(),
              (Lines{"service_browser_free(browser1)", "service_browser_free(browser2)", "client_free(client1)"}));
}

TEST_F(GuardsTest, OverrideThatEndsDiscoveryLeavesTheResolveHandlerNothingToDo)
{
    startBrowsing();
    appears("Cam");
    takeCalls();
    discovery().inNextHandler = [this] { discovery().TerminateBrowsing(); };
    resolved(1, "Cam", "cam.local", "10.0.0.1", camera);
    EXPECT_EQ(takeCalls(), (Lines{"service_browser_free(browser1)", "client_free(client1)"}));
    EXPECT_EQ(takeSignals(), Lines());
    EXPECT_EQ(table(), Lines());
}

TEST_F(GuardsTest, OverrideThatStopsTheQueryLeavesItsResolverFreedOnce)
{
    startBrowsing();
    discovery().StartQueryRecords("Cam", "_http._tcp", true);
    takeCalls();
    discovery().inNextHandler = [this] { discovery().StopQueryRecords("Cam", "_http._tcp"); };
    resolved(1, "Cam", "cam.local", "10.0.0.1", camera);
    EXPECT_EQ(takeCalls(), (Lines{"service_resolver_free(resolver1)",
                                  "record_browser_new(client1, 2, 0, \"cam.local\", 1, 1, 0) = recordBrowser1"}));
    EXPECT_EQ(takeSignals().size(), 1u);
}

TEST_F(GuardsTest, OverrideThatEndsDiscoveryLeavesTheRecordHandlerNothingToFree)
{
    startBrowsing();
    cameraFound("Cam", "cam.local", "10.0.0.1");
    discovery().inNextHandler = [this] { discovery().TerminateBrowsing(); };
    record(1, AVAHI_BROWSER_ALL_FOR_NOW, "cam.local", nullptr);
    EXPECT_EQ(takeCalls(), (Lines{"service_browser_free(browser1)", "client_free(client1)"}));
    EXPECT_EQ(table(), Lines());
}

TEST_F(GuardsTest, OverrideThatEndsDiscoveryLeavesTheBrowseHandlerNothingToAsk)
{
    startBrowsing();
    discovery().inNextHandler = [this] { discovery().TerminateBrowsing(); };
    avahi.fireBrowse(avahi.browser(), AVAHI_BROWSER_FAILURE, 2, 0, nullptr, nullptr, nullptr);
    EXPECT_EQ(takeCalls(), (Lines{"service_browser_free(browser1)", "client_free(client1)"}));
}

/** Everything a slot may do, for each signal. */
class SlotGuardsTest : public GuardsTest, public testing::WithParamInterface<Event>
{
protected:
    /** Causes the signal, with @p action in its slot, and checks that it was signalled. */
    void cause(const std::function<void()>& action)
    {
        startBrowsing();
        if (GetParam() == Found)
            appears("Cam");
        else
            cameraFound("Cam", "cam.local", "10.0.0.1");
        if (GetParam() == AddressByResolve || GetParam() == Text)
            appears("Cam");
        runInSlotOf([this] { fire(); }, action);
    }

private:
    void fire()
    {
        switch (GetParam()) {
        case Found:
            resolved(1, "Cam", "cam.local", "10.0.0.1", camera);
            break;
        case AddressByResolve:
            resolved(2, "Cam", "cam.local", "10.0.0.2", camera);
            break;
        case Text:
            resolved(2, "Cam", "cam.local", "10.0.0.1", Txt{"ser_no.vandrel.com=XYZ"});
            break;
        case Lost:
            disappears("Cam");
            break;
        case AddressAdded:
            record(1, AVAHI_BROWSER_NEW, "cam.local", "10.0.0.2");
            break;
        case AddressRemoved:
            record(1, AVAHI_BROWSER_REMOVE, "cam.local", "10.0.0.1");
            break;
        }
    }
};

INSTANTIATE_TEST_SUITE_P(EverySignal, SlotGuardsTest,
                         testing::Values(Found, AddressByResolve, Text, Lost, AddressAdded, AddressRemoved), eventName);

TEST_P(SlotGuardsTest, TerminatingLeavesNothingKnownAndCallsNothingMore)
{
    cause([this] { discovery().TerminateBrowsing(); });
    EXPECT_EQ(takeCalls(), (Lines{"service_browser_free(browser1)", "client_free(client1)"}));
    EXPECT_EQ(table(), Lines());
    EXPECT_EQ(queue(), Lines());
    EXPECT_FALSE(discovery().IsBrowsing());
}

TEST_P(SlotGuardsTest, StartingAnewInTheSlotTouchesNothingOfTheNewSession)
{
    avahi.reuseAddresses();
    cause([this] {
        discovery().TerminateBrowsing();
        discovery().BrowseServices("_http._tcp");
        discovery().ResolveService(2, "Cam", "_http._tcp", "local");
    });
    Lines kinds;
    for (const std::string& handle : avahi.liveHandles())
        kinds.push_back(handle.substr(0, 7));
    std::sort(kinds.begin(), kinds.end());
    EXPECT_EQ(kinds, (Lines{"browser", "client2", "resolve"}));
    EXPECT_EQ(table(), Lines{"\"Cam\": "});
    EXPECT_EQ(queue(), Lines());
}

TEST_P(SlotGuardsTest, BrowsingAnotherTypeInTheSlotAddsABrowser)
{
    cause([this] { discovery().BrowseServices("_https._tcp"); });
    EXPECT_EQ(takeCalls().front(), "service_browser_new(client1, -1, -1, \"_https._tcp\", null, 2) = browser2");
    EXPECT_EQ(discovery().serviceBrowsers.size(), 2);
}

TEST_P(SlotGuardsTest, QueryingTheServiceInTheSlotIsFine)
{
    cause([this] { EXPECT_TRUE(discovery().StartQueryRecords("Cam", "_http._tcp", true)); });
    EXPECT_EQ(takeCalls().front().substr(0, 20), "service_resolver_new");
}

TEST_P(SlotGuardsTest, StoppingALongLivedQueryInTheSlotFreesItsResolverOnce)
{
    cause([this] {
        ASSERT_TRUE(discovery().StartQueryRecords("Cam", "_http._tcp", true));
        takeCalls();
        discovery().StopQueryRecords("Cam", "_http._tcp");
        const Lines freed = takeCalls();
        ASSERT_EQ(freed.size(), 1u);
        EXPECT_EQ(freed.front().substr(0, 21), "service_resolver_free");
    });
    EXPECT_EQ(discovery().longLiveResolver, nullptr);
    for (const std::string& handle : avahi.liveHandles())
        EXPECT_NE(handle.substr(0, 8), "resolver");
}

TEST_P(SlotGuardsTest, DeletingLaterFreesEverythingOnce)
{
    OpenDiscovery* deleted = nullptr;
    cause([&] {
        deleted = releaseDiscovery();
        deleted->deleteLater();
    });
    QCoreApplication::sendPostedEvents(deleted, QEvent::DeferredDelete);
    EXPECT_EQ(avahi.liveHandles(), Lines());
}

TEST_P(SlotGuardsTest, DeletingAtOnceIsSurvived)
{
    cause([this] { destroyDiscovery(); });
    EXPECT_EQ(takeCalls(), (Lines{"service_browser_free(browser1)", "client_free(client1)"}));
}
