// SPDX-License-Identifier: MIT
#include "support/DiscoveryFixture.h"

namespace {

const char STARTING[] = "[1] AvahiServiceDiscovery::BrowseServices() -> starting to browse for Bonjour services";
const char NO_BROWSER[] = "[1] AvahiServiceDiscovery::BrowseServices() -> could not create Avahi Service Browser ";

} // namespace

class ClientAndBrowsingTest : public DiscoveryTest
{};

TEST_F(ClientAndBrowsingTest, NewObjectHoldsNothingAndCallsNothing)
{
    EXPECT_EQ(discovery().client, nullptr);
    EXPECT_TRUE(discovery().serviceBrowsers.isEmpty());
    EXPECT_EQ(discovery().longLiveResolver, nullptr);
    EXPECT_EQ(discovery().longLiveRecordBrowser, nullptr);
    EXPECT_TRUE(discovery().resolvers.isEmpty());
    EXPECT_EQ(discovery().entryGroup, nullptr);
    EXPECT_EQ(discovery().registeredName, "");
    EXPECT_EQ(discovery().registeredType, "");
    EXPECT_EQ(discovery().txtRecord, nullptr);
    EXPECT_FALSE(discovery().IsBrowsing());
    EXPECT_FALSE(discovery().IsRegistered());
    EXPECT_EQ(takeCalls(), Lines());
    EXPECT_EQ(takeLog(), Lines());
}

TEST_F(ClientAndBrowsingTest, HasTheMetaObjectOfItsBase)
{
    EXPECT_STREQ(discovery().metaObject()->className(), "vd::ServiceDiscovery");
}

TEST_F(ClientAndBrowsingTest, MembersStandInTheirOrder)
{
    const OpenDiscovery& d = discovery();
    const void* const members[] = {&d.services,         &d.recordQueue,           &d.nameList,       &d.queryTimer,
                                   &d.client,           &d.serviceBrowsers,       &d.longLiveResolver,
                                   &d.longLiveRecordBrowser, &d.resolvers,        &d.entryGroup,     &d.registeredName,
                                   &d.registeredType,   &d.txtRecord};
    EXPECT_TRUE(std::is_sorted(std::begin(members), std::end(members)));
}

TEST_F(ClientAndBrowsingTest, BrowsingMakesAClientAndABrowser)
{
    EXPECT_TRUE(discovery().BrowseServices("_axis-video._tcp"));
    EXPECT_EQ(takeCalls(),
              (Lines{"client_new(poll, 2) = client1",
                     "service_browser_new(client1, -1, -1, \"_axis-video._tcp\", null, 2) = browser1"}));
    EXPECT_EQ(takeLog(), Lines{STARTING});
    EXPECT_TRUE(discovery().IsBrowsing());
    EXPECT_EQ(discovery().client, avahi.client());
    EXPECT_EQ(discovery().serviceBrowsers, QList<AvahiServiceBrowser*>{avahi.browser()});
}

TEST_F(ClientAndBrowsingTest, ObjectIsTheUserDataOfEveryAvahiObject)
{
    startBrowsing();
    cameraFound("Cam", "cam.local", "10.0.0.1");
    const vd::AvahiServiceDiscovery* const self = &discovery();
    EXPECT_EQ(avahi.userData(), std::vector<void*>(4, const_cast<vd::AvahiServiceDiscovery*>(self)));
}

TEST_F(ClientAndBrowsingTest, OneClientServesEveryBrowser)
{
    startBrowsing("_http._tcp");
    EXPECT_TRUE(discovery().BrowseServices("_https._tcp"));
    EXPECT_EQ(takeCalls(), Lines{"service_browser_new(client1, -1, -1, \"_https._tcp\", null, 2) = browser2"});
    EXPECT_EQ(discovery().serviceBrowsers, (QList<AvahiServiceBrowser*>{avahi.browser(1), avahi.browser(2)}));
}

TEST_F(ClientAndBrowsingTest, BrowsingATypeAgainAddsAnotherBrowser)
{
    startBrowsing("_http._tcp");
    EXPECT_TRUE(discovery().BrowseServices("_http._tcp"));
    EXPECT_EQ(takeCalls(), Lines{"service_browser_new(client1, -1, -1, \"_http._tcp\", null, 2) = browser2"});
}

TEST_F(ClientAndBrowsingTest, FailedClientIsLoggedAndCleanedUp)
{
    discovery().services[QLatin1String("left over")] = vd::SServiceInfo();
    discovery().recordQueue.append(qMakePair(QString(), QString()));
    avahi.failNext("client_new", AVAHI_ERR_NO_DAEMON);
    EXPECT_FALSE(discovery().BrowseServices("_http._tcp"));
    EXPECT_EQ(takeCalls(), Lines{"client_new(poll, 2) = null"});
    EXPECT_EQ(takeLog(),
              (Lines{STARTING, "[1] AvahiServiceDiscovery::BrowseServices() ->  could not create Avahi client"}));
    EXPECT_FALSE(discovery().IsBrowsing());
    EXPECT_EQ(discovery().client, nullptr);
    EXPECT_EQ(table(), Lines());
    EXPECT_EQ(queue(), Lines());
}

TEST_F(ClientAndBrowsingTest, ClientIsTriedAgainAfterItFailed)
{
    avahi.failNext("client_new", AVAHI_ERR_NO_DAEMON);
    EXPECT_FALSE(discovery().BrowseServices("_http._tcp"));
    EXPECT_TRUE(discovery().BrowseServices("_http._tcp"));
}

TEST_F(ClientAndBrowsingTest, FailedBrowserIsLoggedAndTheClientStays)
{
    avahi.failNext("service_browser_new", AVAHI_ERR_BAD_STATE);
    EXPECT_FALSE(discovery().BrowseServices("_http._tcp"));
    EXPECT_EQ(takeCalls(), (Lines{"client_new(poll, 2) = client1",
                                  "service_browser_new(client1, -1, -1, \"_http._tcp\", null, 2) = null"}));
    EXPECT_EQ(takeLog(), (Lines{STARTING, NO_BROWSER}));
    EXPECT_FALSE(discovery().IsBrowsing());
    EXPECT_EQ(discovery().client, avahi.client());
}

TEST_F(ClientAndBrowsingTest, FailedBrowserLeavesEarlierBrowsersAndWhatIsKnown)
{
    startBrowsing();
    cameraFound("Cam", "cam.local", "10.0.0.1");
    avahi.failNext("service_browser_new", AVAHI_ERR_TOO_MANY_OBJECTS);
    EXPECT_FALSE(discovery().BrowseServices("_https._tcp"));
    EXPECT_TRUE(discovery().IsBrowsing());
    EXPECT_EQ(discovery().serviceBrowsers.size(), 1);
    EXPECT_EQ(table().size(), 2u);
    EXPECT_EQ(queue(), Lines{"Cam, _http._tcp"});
}

TEST_F(ClientAndBrowsingTest, TerminateOnAFreshObjectOnlyLogs)
{
    EXPECT_TRUE(discovery().TerminateBrowsing());
    EXPECT_EQ(takeLog(), Lines{"[1] AvahiServiceDiscovery::TerminateBrowsing"});
    EXPECT_EQ(takeCalls(), Lines());
    EXPECT_FALSE(discovery().IsBrowsing());
}

TEST_F(ClientAndBrowsingTest, TerminateFreesBrowsersInOrderAndThenTheClient)
{
    startBrowsing("_http._tcp");
    discovery().BrowseServices("_https._tcp");
    forgetAll();
    EXPECT_TRUE(discovery().TerminateBrowsing());
    EXPECT_EQ(takeCalls(),
              (Lines{"service_browser_free(browser1)", "service_browser_free(browser2)", "client_free(client1)"}));
    EXPECT_EQ(takeLog(), Lines{"[1] AvahiServiceDiscovery::TerminateBrowsing"});
    EXPECT_FALSE(discovery().IsBrowsing());
    EXPECT_EQ(discovery().client, nullptr);
}

TEST_F(ClientAndBrowsingTest, TerminateForgetsServicesAndQueue)
{
    startBrowsing();
    cameraFound("Cam", "cam.local", "10.0.0.1");
    discovery().TerminateBrowsing();
    EXPECT_EQ(table(), Lines());
    EXPECT_EQ(queue(), Lines());
    EXPECT_EQ(takeSignals(), Lines());
}

TEST_F(ClientAndBrowsingTest, TerminateFreesTheTxtRecord)
{
    discovery().txtRecord = avahi_string_list_new("key=value", nullptr);
    discovery().TerminateBrowsing();
    EXPECT_EQ(discovery().txtRecord, nullptr);
}

TEST_F(ClientAndBrowsingTest, TerminateLeavesTheValuesOfWhatTheClientTookWithIt)
{
    startBrowsing();
    AvahiEntryGroup* const group = reinterpret_cast<AvahiEntryGroup*>(this);
    AvahiServiceResolver* const resolver = reinterpret_cast<AvahiServiceResolver*>(this);
    AvahiRecordBrowser* const recordBrowser = reinterpret_cast<AvahiRecordBrowser*>(this);
    discovery().entryGroup = group;
    discovery().longLiveResolver = resolver;
    discovery().longLiveRecordBrowser = recordBrowser;
    discovery().resolvers.append(vd::SResolverInfo());
    discovery().nameList.append(QStringLiteral("name"));
    discovery().registeredName = "name";
    discovery().registeredType = "type";
    discovery().TerminateBrowsing();
    EXPECT_EQ(discovery().entryGroup, group);
    EXPECT_TRUE(discovery().IsRegistered());
    EXPECT_EQ(discovery().longLiveResolver, resolver);
    EXPECT_EQ(discovery().longLiveRecordBrowser, recordBrowser);
    EXPECT_EQ(discovery().resolvers.size(), 1);
    EXPECT_EQ(discovery().nameList.size(), 1);
    EXPECT_EQ(discovery().registeredName, "name");
    EXPECT_EQ(discovery().registeredType, "type");
}

TEST_F(ClientAndBrowsingTest, TerminateTwiceFreesOnce)
{
    startBrowsing();
    discovery().TerminateBrowsing();
    takeCalls();
    EXPECT_TRUE(discovery().TerminateBrowsing());
    EXPECT_EQ(takeCalls(), Lines());
}

TEST_F(ClientAndBrowsingTest, CleanupItselfLogsNothing)
{
    startBrowsing();
    discovery().cleanupAvahiMembers();
    EXPECT_EQ(takeLog(), Lines());
}

TEST_F(ClientAndBrowsingTest, BrowsingAfterTerminateMakesANewClient)
{
    startBrowsing();
    discovery().TerminateBrowsing();
    takeCalls();
    EXPECT_TRUE(discovery().BrowseServices("_http._tcp"));
    EXPECT_EQ(takeCalls(), (Lines{"client_new(poll, 2) = client2",
                                  "service_browser_new(client2, -1, -1, \"_http._tcp\", null, 2) = browser2"}));
}

TEST_F(ClientAndBrowsingTest, DestructorFreesBrowsersAndThenTheClient)
{
    startBrowsing();
    destroyDiscovery();
    EXPECT_EQ(takeCalls(), (Lines{"service_browser_free(browser1)", "client_free(client1)"}));
    EXPECT_EQ(takeLog(), Lines());
}

TEST_F(ClientAndBrowsingTest, AnotherObjectsClientSurvivesTerminate)
{
    startBrowsing();
    OpenDiscovery other;
    other.BrowseServices("_http._tcp");
    discovery().TerminateBrowsing();
    EXPECT_TRUE(other.IsBrowsing());
    EXPECT_EQ(avahi.liveHandles(), (Lines{"client2", "browser2"}));
}

TEST_F(ClientAndBrowsingTest, ClientFailureOnlyLogs)
{
    startBrowsing();
    cameraFound("Cam", "cam.local", "10.0.0.1");
    const Lines before = table();
    avahi.fireClientState(AVAHI_CLIENT_FAILURE);
    EXPECT_EQ(takeLog(), Lines{"[1] AvahiServiceDiscovery::SAvahiClient_callback() -> Avahi client failure"});
    EXPECT_EQ(takeCalls(), Lines());
    EXPECT_EQ(takeSignals(), Lines());
    EXPECT_EQ(table(), before);
    EXPECT_TRUE(discovery().IsBrowsing());
}

TEST_F(ClientAndBrowsingTest, OtherClientStatesAreIgnored)
{
    startBrowsing();
    const int states[] = {AVAHI_CLIENT_S_REGISTERING, AVAHI_CLIENT_S_RUNNING, AVAHI_CLIENT_S_COLLISION,
                          AVAHI_CLIENT_CONNECTING};
    for (const int state : states)
        avahi.fireClientState(static_cast<AvahiClientState>(state));
    EXPECT_EQ(takeLog(), Lines());
    EXPECT_EQ(takeCalls(), Lines());
}

TEST_F(ClientAndBrowsingTest, ClientFailureInsideItsCreationIsLogged)
{
    avahi.duringClientNew([this](AvahiClient*) { avahi.fireClientState(AVAHI_CLIENT_FAILURE); });
    EXPECT_TRUE(discovery().BrowseServices("_http._tcp"));
    EXPECT_EQ(takeLog(),
              (Lines{STARTING, "[1] AvahiServiceDiscovery::SAvahiClient_callback() -> Avahi client failure"}));
}

TEST_F(ClientAndBrowsingTest, WhatIsKnownIsForgottenOnlyAfterTheClientWasFreed)
{
    startBrowsing();
    cameraFound("Cam", "cam.local", "10.0.0.1");
    discovery().txtRecord = avahi_string_list_new("key=value", nullptr);
    Lines tableDuring;
    Lines queueDuring;
    AvahiStringList* txtDuring = nullptr;
    avahi.duringClientFree([&] {
        tableDuring = table();
        queueDuring = queue();
        txtDuring = discovery().txtRecord;
    });
    discovery().TerminateBrowsing();
    EXPECT_EQ(tableDuring.size(), 2u);
    EXPECT_EQ(queueDuring, Lines{"Cam, _http._tcp"});
    EXPECT_NE(txtDuring, nullptr);
}
