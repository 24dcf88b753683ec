// SPDX-License-Identifier: MIT
#include "support/ManagedFixture.h"

#include <QtCore/QTemporaryDir>

#include <fstream>

TEST_F(ManagedTest, StateTellsWhatBrowsingDoes)
{
    Lines states;
    QObject::connect(&discovery(), &vd::ManagedServiceDiscovery::stateChanged,
                     [&](vd::ManagedServiceDiscovery::State state) { states.push_back(std::to_string(state)); });
    EXPECT_EQ(discovery().state(), vd::ManagedServiceDiscovery::Unavailable);
    run();
    EXPECT_EQ(states, (Lines{"1", "2"}));
    EXPECT_EQ(discovery().property("state").toInt(), 2);
}

TEST_F(ManagedTest, BrowsingWithoutADaemonBeginsWhenItIsThere)
{
    daemonIsAway();
    avahi.failNext("service_browser_new", AVAHI_ERR_BAD_STATE);
    EXPECT_TRUE(discovery().BrowseServices(HTTP));
    EXPECT_TRUE(discovery().IsBrowsing());
    EXPECT_EQ(discovery().state(), vd::ManagedServiceDiscovery::Unavailable);
    takeCalls();
    turn(300);
    EXPECT_EQ(takeCalls(), Lines());
    avahi.fireClientState(AVAHI_CLIENT_S_RUNNING);
    turn();
    EXPECT_EQ(takeCalls(), Lines{"service_browser_new(client1, -1, -1, \"_http._tcp\", null, 2) = browser1"});
    EXPECT_EQ(discovery().state(), vd::ManagedServiceDiscovery::Running);
}

TEST_F(ManagedTest, BrowsingWithoutABusIsTriedAgain)
{
    avahi.failNext("client_new", AVAHI_ERR_DBUS_ERROR);
    EXPECT_TRUE(discovery().BrowseServices(HTTP));
    EXPECT_EQ(discovery().state(), vd::ManagedServiceDiscovery::Unavailable);
    takeCalls();
    daemonRuns();
    turn(50);
    EXPECT_EQ(takeCalls(), Lines());
    turn(500);
    EXPECT_EQ(discovery().state(), vd::ManagedServiceDiscovery::Running);
    EXPECT_TRUE(discovery().IsBrowsing());
}

TEST_F(ManagedTest, RetriesBackOff)
{
    for (int i = 0; i < 20; ++i) {
        avahi.failNext("client_new", AVAHI_ERR_DBUS_ERROR);
        discovery().BrowseServices(HTTP);
        turn(100);
    }
    // At 0, 250, 750 and 1750 ms.
    EXPECT_EQ(takeCalls(), Lines(4, "client_new(poll, 2) = null"));
}

TEST_F(ManagedTest, ReturnOfTheBusIsNoticed)
{
    const QTemporaryDir folder;
    const QByteArray socket = folder.filePath(QStringLiteral("bus")).toUtf8();
    qputenv("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=" + socket + ",guid=1;tcp:host=x");
    for (int i = 0; i < 3; ++i) {
        avahi.failNext("client_new", AVAHI_ERR_DBUS_ERROR);
        discovery().BrowseServices(HTTP);
        turn(i == 0 ? 0 : 300 * i);
    }
    takeCalls();
    daemonRuns();
    std::ofstream(socket.constData()) << "there";
    turn(600);
    qunsetenv("DBUS_SYSTEM_BUS_ADDRESS");
    EXPECT_EQ(discovery().state(), vd::ManagedServiceDiscovery::Running);
}

TEST_F(ManagedTest, EveryTypeIsBrowsedAgainAfterAFailure)
{
    run();
    discovery().BrowseServices(HTTPS);
    takeCalls();
    failClient();
    EXPECT_EQ(takeCalls(), Lines());
    turn();
    EXPECT_EQ(takeCalls(), (Lines{"service_browser_free(browser1)", "service_browser_free(browser2)",
                                  "client_free(client1)", "client_new(poll, 2) = client2",
                                  "service_browser_new(client2, -1, -1, \"_http._tcp\", null, 2) = browser3",
                                  "service_browser_new(client2, -1, -1, \"_https._tcp\", null, 2) = browser4"}));
    EXPECT_TRUE(discovery().IsBrowsing());
}

TEST_F(ManagedTest, DevicesThatComeBackUnchangedCauseNoSignal)
{
    run();
    found();
    const Lines before = table();
    failClient();
    turn();
    EXPECT_EQ(table(), before);
    appearsOn("Cam", 2, AVAHI_PROTO_INET, HTTP, 2);
    turn();
    resolved(2, "Cam", "cam.local", "10.0.0.1", cameraTxt);
    record(2, AVAHI_BROWSER_NEW, "cam.local", "10.0.0.1");
    record(2, AVAHI_BROWSER_ALL_FOR_NOW, "cam.local", nullptr);
    EXPECT_EQ(takeSignals(), Lines());
    EXPECT_EQ(table(), before);
    EXPECT_EQ(queue(), Lines{"Cam, _http._tcp"});
}

TEST_F(ManagedTest, DevicesThatDoNotComeBackAreLostOnceAfterTheGracePeriod)
{
    discovery().setGracePeriod(400);
    run();
    found("Cam", "cam.local", "10.0.0.1", 1);
    found("Gone", "gone.local", "10.0.0.2", 2);
    failClient();
    turn();
    appearsOn("Cam", 2, AVAHI_PROTO_INET, HTTP, 2);
    turn(50);
    EXPECT_EQ(takeSignals(), Lines());
    turn(600);
    EXPECT_EQ(takeSignals(), Lines{"lost " + camera("Gone", "gone.local", "addresses=[10.0.0.2] " + known)});
    turn(500);
    EXPECT_EQ(takeSignals(), Lines());
    EXPECT_EQ(table().size(), 1u);
}

TEST_F(ManagedTest, QueriesWithoutADaemonMakeNoClients)
{
    run();
    found();
    daemonIsAway();
    avahi.failNext("service_browser_new", AVAHI_ERR_BAD_STATE);
    failClient();
    turn();
    takeCalls();
    for (int i = 0; i < 5; ++i) {
        QMetaObject::invokeMethod(&discovery(), "queryNextInTurn");
        turn(10);
    }
    EXPECT_EQ(takeCalls(), Lines());
}

TEST_F(ManagedTest, DaemonThatFailsAgainAndAgainIsNotTriedWithoutAPause)
{
    run();
    for (int i = 1; i <= 20; ++i) {
        if (liveCount("client"))
            failClient(liveClient());
        turn(25);
    }
    int clients = 0;
    for (const std::string& call : takeCalls())
        clients += call.rfind("client_new", 0) == 0 ? 1 : 0;
    EXPECT_LE(clients, 4);
}

TEST_F(ManagedTest, FurtherTypeThatFailsOnceIsBrowsedLater)
{
    run();
    avahi.failNext("service_browser_new", AVAHI_ERR_TOO_MANY_OBJECTS);
    EXPECT_TRUE(discovery().BrowseServices(HTTPS));
    turn(400);
    EXPECT_EQ(discovery().state(), vd::ManagedServiceDiscovery::Running);
    EXPECT_EQ(liveCount("browser"), 2);
}

TEST_F(ManagedTest, QueryWithoutABusIsMadeWhenThereIsOne)
{
    avahi.failNext("client_new", AVAHI_ERR_DBUS_ERROR);
    discovery().BrowseServices(HTTP);
    EXPECT_TRUE(discovery().StartQueryRecords("Cam", HTTP, true));
    daemonRuns();
    turn(400);
    EXPECT_EQ(answerResolvers(), Lines{"Cam"});
}

TEST_F(ManagedTest, LongLivedQueryOfAServiceThatIsNotBrowsedIsResumed)
{
    discovery().setGracePeriod(50);
    run();
    discovery().StartQueryRecords("Cam", HTTPS, true);
    turn();
    resolved(1, "Cam", "cam.local", "10.0.0.1", cameraTxt, HTTPS, 443);
    forgetAll();
    failClient();
    turn();
    EXPECT_EQ(takeCalls().back(),
              "service_resolver_new(client2, -1, -1, \"Cam\", \"_https._tcp\", \"local\", 0, 2) = resolver2");
    turn(100);
    EXPECT_EQ(takeSignals(), Lines());
}

TEST_F(ManagedTest, PublicationThatFailsIsTriedAgain)
{
    run();
    discovery().RegisterService("Setup", "_reconf._tcp", vd::SReconfigInfo());
    failClient();
    avahi.failNext("entry_group_new", AVAHI_ERR_BAD_STATE);
    takeCalls();
    turn(800);
    EXPECT_EQ(takeCalls().back(), "entry_group_commit(group2)");
    EXPECT_EQ(discovery().state(), vd::ManagedServiceDiscovery::Running);
}

TEST_F(ManagedTest, DeletingInsideARegistrationIsSurvived)
{
    run();
    avahi.duringGroupCall("entry_group_commit", [this] { destroyDiscovery(); });
    EXPECT_FALSE(discovery().RegisterService("Setup", "_reconf._tcp", vd::SReconfigInfo()));
    EXPECT_EQ(avahi.liveHandles(), Lines());
}

TEST_F(ManagedTest, DeletingInsideARepublicationIsSurvived)
{
    run();
    discovery().RegisterService("Setup", "_reconf._tcp", vd::SReconfigInfo());
    failClient();
    avahi.duringGroupCall("entry_group_commit", [this] { destroyDiscovery(); });
    turn();
    EXPECT_EQ(avahi.liveHandles(), Lines());
}

TEST_F(ManagedTest, TerminatingInsideARepublicationLeavesNothing)
{
    run();
    discovery().RegisterService("Setup", "_reconf._tcp", vd::SReconfigInfo());
    failClient();
    avahi.duringGroupCall("entry_group_commit", [this] { discovery().TerminateBrowsing(); });
    turn(20);
    EXPECT_EQ(avahi.liveHandles(), Lines());
    EXPECT_EQ(discovery().state(), vd::ManagedServiceDiscovery::Unavailable);
}

TEST_F(ManagedTest, PublishedServiceIsPublishedAgain)
{
    run();
    EXPECT_TRUE(discovery().RegisterService("Setup", "_reconf._tcp", vd::SReconfigInfo()));
    takeCalls();
    failClient();
    turn();
    const Lines calls = takeCalls();
    ASSERT_GE(calls.size(), 3u);
    EXPECT_EQ(calls[calls.size() - 3], "entry_group_new(client2) = group2");
    EXPECT_EQ(calls.back(), "entry_group_commit(group2)");
    EXPECT_TRUE(discovery().IsRegistered());
}

TEST_F(ManagedTest, ServiceRegisteredWithoutADaemonIsPublishedWhenItIsThere)
{
    daemonIsAway();
    avahi.failNext("service_browser_new", AVAHI_ERR_BAD_STATE);
    discovery().BrowseServices(HTTP);
    EXPECT_TRUE(discovery().RegisterService("Setup", "_reconf._tcp", vd::SReconfigInfo()));
    avahi.fireClientState(AVAHI_CLIENT_S_RUNNING);
    turn();
    EXPECT_EQ(takeCalls().back(), "entry_group_commit(group1)");
}

TEST_F(ManagedTest, WithdrawnServiceIsNotPublishedAgain)
{
    run();
    discovery().RegisterService("Setup", "_reconf._tcp", vd::SReconfigInfo());
    EXPECT_TRUE(discovery().TerminateRegistration());
    EXPECT_FALSE(discovery().IsRegistered());
    takeCalls();
    failClient();
    turn();
    for (const std::string& call : takeCalls())
        EXPECT_EQ(call.find("entry_group"), std::string::npos);
}

TEST_F(ManagedTest, TerminatingForgetsEverything)
{
    run();
    found();
    discovery().StartQueryRecords("Cam", HTTP, true);
    turn();
    EXPECT_TRUE(discovery().TerminateBrowsing());
    EXPECT_FALSE(discovery().IsBrowsing());
    EXPECT_EQ(discovery().state(), vd::ManagedServiceDiscovery::Unavailable);
    EXPECT_EQ(table(), Lines());
    EXPECT_EQ(queue(), Lines());
    EXPECT_EQ(avahi.liveHandles(), Lines());
    turn(300);
    EXPECT_EQ(avahi.liveHandles(), Lines());
}
