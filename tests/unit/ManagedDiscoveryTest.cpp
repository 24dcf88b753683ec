// SPDX-License-Identifier: MIT
#include "support/ManagedFixture.h"

#include <algorithm>

// What it does as the class that it stands in for.

TEST_F(ManagedTest, FoundDeviceIsSignalledAndHoldsNothingOpen)
{
    run();
    appears("Cam");
    EXPECT_EQ(takeCalls(), Lines());
    turn();
    EXPECT_EQ(takeCalls(), Lines{newResolver("Cam", 1)});
    resolved(1, "Cam", "cam.local", "10.0.0.1", cameraTxt);
    EXPECT_EQ(takeSignals(), Lines{"found " + camera("Cam", "cam.local", "addresses=[10.0.0.1] " + known)});
    EXPECT_EQ(takeCalls(), (Lines{"service_resolver_free(resolver1)",
                                  "record_browser_new(client1, -1, -1, \"cam.local\", 1, 1, 2) = recordBrowser1"}));
    record(1, AVAHI_BROWSER_NEW, "cam.local", "10.0.0.1");
    record(1, AVAHI_BROWSER_CACHE_EXHAUSTED, "cam.local", nullptr);
    EXPECT_EQ(takeCalls(), Lines());
    record(1, AVAHI_BROWSER_ALL_FOR_NOW, "cam.local", nullptr);
    EXPECT_EQ(takeCalls(), Lines{"record_browser_free(recordBrowser1)"});
    EXPECT_EQ(takeSignals(), Lines());
    EXPECT_EQ(avahi.liveHandles(), (Lines{"client1", "browser1"}));
    EXPECT_EQ(table(), Lines{"\"Cam\": " + camera("Cam", "cam.local", "addresses=[10.0.0.1] " + known)});
    EXPECT_EQ(queue(), Lines{"Cam, _http._tcp"});
}

TEST_F(ManagedTest, LostDeviceIsSignalledAndForgotten)
{
    run();
    found();
    disappears("Cam");
    EXPECT_EQ(takeSignals(), Lines{"lost " + camera("Cam", "cam.local", "addresses=[10.0.0.1] " + known)});
    EXPECT_EQ(table(), Lines());
    EXPECT_EQ(queue(), Lines());
}

TEST_F(ManagedTest, ServicesOfOtherTypesAreNotEvenResolved)
{
    run("_printer._tcp");
    appears("Printer", "_printer._tcp");
    turn();
    EXPECT_EQ(takeCalls(), Lines());
    disappears("Printer", "_printer._tcp");
    EXPECT_EQ(takeSignals(), Lines());
}

TEST_F(ManagedTest, WebServicesOfOthersHoldNothing)
{
    run();
    appears("Printer");
    turn();
    resolved(1, "Printer", "printer.local", "10.0.0.9", Txt{"path=/"});
    EXPECT_EQ(avahi.liveHandles(), (Lines{"client1", "browser1"}));
    EXPECT_EQ(table(), Lines());
    EXPECT_EQ(queue(), Lines());
    EXPECT_EQ(signalsOf([this] { disappears("Printer"); }), Lines());
}

// Seen in several places.

TEST_F(ManagedTest, DeviceStaysWhileItIsSeenAnywhere)
{
    run();
    found();
    appearsOn("Cam", 2, AVAHI_PROTO_INET6);
    appearsOn("Cam", 3);
    turn();
    EXPECT_EQ(signalsOf([this] {
                  disappearsOn("Cam", 2);
                  disappearsOn("Cam", 3);
              }),
              Lines());
    EXPECT_EQ(signalsOf([this] { disappearsOn("Cam", 2, AVAHI_PROTO_INET6); }).size(), 1u);
}

TEST_F(ManagedTest, InterfaceThatFlapsLosesNothing)
{
    run();
    found();
    appearsOn("Cam", 3);
    for (int i = 0; i < 10; ++i) {
        disappearsOn("Cam", 3);
        appearsOn("Cam", 3);
    }
    turn();
    EXPECT_EQ(takeSignals(), Lines());
    EXPECT_EQ(table().size(), 1u);
}

TEST_F(ManagedTest, OtherProtocolOfTheSameInterfaceIsNotResolvedAgain)
{
    run();
    found();
    appearsOn("Cam", 2, AVAHI_PROTO_INET6);
    turn();
    EXPECT_EQ(takeCalls(), Lines());
}

TEST_F(ManagedTest, AnotherInterfaceIsResolvedAgain)
{
    run();
    found();
    appearsOn("Cam", 3);
    turn();
    EXPECT_EQ(takeCalls().size(), 1u);
}

TEST_F(ManagedTest, DeviceWithTwoTypesIsLostWithTheLast)
{
    foundAndSeenSecure();
    resolved(2, "Cam", "cam.local", "10.0.0.1", cameraTxt, HTTPS, 443);
    EXPECT_EQ(signalsOf([this] { disappears("Cam"); }), Lines());
    EXPECT_EQ(queue(), Lines{"Cam, _https._tcp"});
    EXPECT_EQ(signalsOf([this] { disappearsOn("Cam", 2, AVAHI_PROTO_INET, HTTPS, 2); }).size(), 1u);
    EXPECT_EQ(table(), Lines());
}

TEST_F(ManagedTest, LossOfTheTypeThatTheRecordTellsOfResolvesTheOther)
{
    run();
    discovery().BrowseServices(HTTPS);
    appearsOn("Cam", 2, AVAHI_PROTO_INET, HTTPS, 2);
    turn();
    resolved(1, "Cam", "cam.local", "10.0.0.1", cameraTxt, HTTPS, 443);
    appears("Cam");
    turn();
    resolved(2, "Cam", "cam.local", "10.0.0.1", cameraTxt);
    forgetAll();
    disappears("Cam");
    turn();
    EXPECT_EQ(takeCalls().back(),
              newResolver("Cam", 3, HTTPS));
}

// Records.

TEST_F(ManagedTest, NewAddressIsSignalledWithAllThatAreKnown)
{
    run();
    appears("Cam");
    turn();
    resolved(1, "Cam", "cam.local", "10.0.0.1", cameraTxt);
    takeSignals();
    record(1, AVAHI_BROWSER_NEW, "cam.local", "10.0.0.2");
    EXPECT_EQ(takeSignals(),
              Lines{"address " + camera("Cam", "cam.local", "addresses=[10.0.0.1,10.0.0.2] " + known)});
}

TEST_F(ManagedTest, RemovedAddressIsSignalledAloneAndTheOthersRemain)
{
    run();
    appears("Cam");
    turn();
    resolved(1, "Cam", "cam.local", "10.0.0.1", cameraTxt);
    record(1, AVAHI_BROWSER_NEW, "cam.local", "10.0.0.1");
    record(1, AVAHI_BROWSER_NEW, "cam.local", "10.0.0.2");
    takeSignals();
    record(1, AVAHI_BROWSER_REMOVE, "cam.local", "10.0.0.1");
    EXPECT_EQ(takeSignals(),
              Lines{"address " + camera("Cam", "cam.local", "addresses=[10.0.0.1] " + known, "addressRemoved=true ")});
    EXPECT_EQ(table(), Lines{"\"Cam\": "
                             + camera("Cam", "cam.local", "addresses=[10.0.0.2] " + known, "addressRemoved=true ")});
}

TEST_F(ManagedTest, LastAddressMayGoAndANewOneIsNoNewDevice)
{
    run();
    appears("Cam");
    turn();
    resolved(1, "Cam", "cam.local", "10.0.0.1", cameraTxt);
    record(1, AVAHI_BROWSER_NEW, "cam.local", "10.0.0.1");
    record(1, AVAHI_BROWSER_REMOVE, "cam.local", "10.0.0.1");
    EXPECT_EQ(table(), Lines{"\"Cam\": " + camera("Cam", "cam.local", known, "addressRemoved=true ")});
    takeSignals();
    record(1, AVAHI_BROWSER_NEW, "cam.local", "10.0.0.7");
    EXPECT_EQ(takeSignals(), Lines{"address " + camera("Cam", "cam.local", "addresses=[10.0.0.7] " + known)});
}

TEST_F(ManagedTest, AddressSeenOverTwoProtocolsIsRemovedWithTheSecond)
{
    run();
    appears("Cam");
    turn();
    resolved(1, "Cam", "cam.local", "10.0.0.1", cameraTxt);
    takeSignals();
    const quint8 address[] = {10, 0, 0, 1};
    record(1, AVAHI_BROWSER_NEW, "cam.local", "10.0.0.1");
    avahi.fireRecord(avahi.recordBrowser(1), AVAHI_BROWSER_NEW, "cam.local", address, 4, 3);
    record(1, AVAHI_BROWSER_REMOVE, "cam.local", "10.0.0.1");
    EXPECT_EQ(takeSignals(), Lines());
    avahi.fireRecord(avahi.recordBrowser(1), AVAHI_BROWSER_REMOVE, "cam.local", address, 4, 3);
    EXPECT_EQ(takeSignals().size(), 1u);
}

TEST_F(ManagedTest, AddressThatTheNetworkNoLongerHasIsRemoved)
{
    run();
    found();
    discovery().StartQueryRecords("Cam", HTTP, false);
    turn();
    resolved(2, "Cam", "cam.local", "10.0.0.2", cameraTxt);
    EXPECT_EQ(takeSignals(),
              Lines{"address " + camera("Cam", "cam.local", "addresses=[10.0.0.1,10.0.0.2] " + known)});
    onlyAnswerIs(2, "10.0.0.2");
    // An answer may have been lost for once.
    EXPECT_EQ(takeSignals(), Lines());
    queryAgain(3, "10.0.0.2");
    EXPECT_EQ(takeSignals(),
              Lines{"address " + camera("Cam", "cam.local", "addresses=[10.0.0.1] " + known, "addressRemoved=true ")});
}

TEST_F(ManagedTest, AddressThatIsMissingInOneAnswerStays)
{
    run();
    found();
    queryAgain(2, "10.0.0.2");
    queryAgain(3, "10.0.0.1");
    takeSignals();
    queryAgain(4, "10.0.0.2");
    EXPECT_EQ(takeSignals(), Lines());
    EXPECT_EQ(table(), Lines{"\"Cam\": " + camera("Cam", "cam.local", "addresses=[10.0.0.1,10.0.0.2] " + known)});
}

TEST_F(ManagedTest, AddressThatWentDuringARestartGoesThoughTheDeviceIsFollowedForLong)
{
    run();
    found();
    discovery().StartQueryRecords("Cam", HTTP, true);
    failClient();
    turn();
    appearsOn("Cam", 2, AVAHI_PROTO_INET, HTTP, 2);
    turn();
    resolved(2, "Cam", "cam.local", "10.0.0.2", cameraTxt);
    onlyAnswerIs(2, "10.0.0.2");
    takeSignals();
    turn(3400);
    resolved(3, "Cam", "cam.local", "10.0.0.2", cameraTxt);
    onlyAnswerIs(3, "10.0.0.2");
    EXPECT_EQ(takeSignals().size(), 1u);
    EXPECT_EQ(discovery().services.value(QStringLiteral("Cam")).addresses, QStringList{"10.0.0.2"});
    EXPECT_EQ(avahi.liveHandles(), (Lines{"client2", "browser2", "resolver3", "recordBrowser3"}));
}

TEST_F(ManagedTest, MissingAddressIsLookedUpAgainSoon)
{
    run();
    found();
    queryAgain(2, "10.0.0.2");
    takeCalls();
    turn(3400);
    EXPECT_EQ(takeCalls(), Lines{newResolver("Cam", 3)});
}

TEST_F(ManagedTest, AnswerWithoutAnyAddressRemovesNone)
{
    run();
    found();
    discovery().StartQueryRecords("Cam", HTTP, false);
    turn();
    resolved(2, "Cam", "cam.local", "10.0.0.1", cameraTxt);
    record(2, AVAHI_BROWSER_ALL_FOR_NOW, "cam.local", nullptr);
    EXPECT_EQ(takeSignals(), Lines());
    EXPECT_EQ(table(), Lines{"\"Cam\": " + camera("Cam", "cam.local", "addresses=[10.0.0.1] " + known)});
}

TEST_F(ManagedTest, FailedResolveChangesNothing)
{
    run();
    found();
    const Lines before = table();
    discovery().StartQueryRecords("Cam", HTTP, false);
    turn();
    resolveFails(2, "Cam", AVAHI_ERR_NOT_FOUND);
    EXPECT_EQ(table(), before);
    EXPECT_EQ(takeSignals(), Lines());
}

TEST_F(ManagedTest, ResolverThatTimedOutMayStillBeAnswered)
{
    run();
    appears("Cam");
    turn();
    resolveFails(1, "Cam", AVAHI_ERR_TIMEOUT);
    EXPECT_EQ(avahi.liveHandles(), (Lines{"client1", "browser1", "resolver1"}));
    resolved(1, "Cam", "cam.local", "10.0.0.1", cameraTxt);
    EXPECT_EQ(takeSignals().size(), 1u);
}

TEST_F(ManagedTest, EveryStringOfTheTextCounts)
{
    run();
    appears("Cam");
    turn();
    resolved(1, "Cam", "cam.local", "10.0.0.1", Txt{SERIAL, "error.vandrel.com="});
    takeSignals();
    discovery().StartQueryRecords("Cam", HTTP, false);
    turn();
    resolved(2, "Cam", "cam.local", "10.0.0.1", Txt{SERIAL, "error.vandrel.com=hot"});
    EXPECT_EQ(takeSignals(), Lines{"text "
                                   + camera("Cam", "cam.local",
                                            "addresses=[10.0.0.1] serialNumber=66051 errorText='hot' txtChecksum="
                                                + std::to_string(crcOf(SERIAL)))});
}

TEST_F(ManagedTest, UnchangedTextIsNotSignalled)
{
    run();
    found();
    discovery().StartQueryRecords("Cam", HTTP, false);
    turn();
    resolved(2, "Cam", "cam.local", "10.0.0.1", cameraTxt);
    EXPECT_EQ(takeSignals(), Lines());
}

TEST_F(ManagedTest, TextThatChangesWithTheAddressIsSignalledToo)
{
    run();
    found();
    discovery().StartQueryRecords("Cam", HTTP, false);
    turn();
    resolved(2, "Cam", "cam.local", "10.0.0.2", Txt{SERIAL, "error.vandrel.com=hot"});
    const Lines told = takeSignals();
    ASSERT_EQ(told.size(), 2u);
    EXPECT_EQ(told[0].substr(0, 8), "address ");
    EXPECT_EQ(told[1].substr(0, 5), "text ");
}

// Queries.

TEST_F(ManagedTest, EveryDeviceIsQueriedInItsTurn)
{
    run();
    const char* const names[] = {"A", "B", "C", "D"};
    for (int i = 0; i < 4; ++i)
        found(names[i], "host.local", "10.0.0.1", i + 1);
    Lines asked;
    for (int i = 0; i < 8; ++i) {
        ASSERT_TRUE(QMetaObject::invokeMethod(&discovery(), "queryNextInTurn"));
        turn();
        const std::string call = takeCalls().back();
        asked.push_back(call.substr(call.find('"') + 1, 1));
        resolved(5 + i, asked.back().c_str(), "host.local", "10.0.0.1", cameraTxt);
        record(5 + i, AVAHI_BROWSER_ALL_FOR_NOW, "host.local", nullptr);
    }
    EXPECT_EQ(asked, (Lines{"A", "B", "C", "D", "A", "B", "C", "D"}));
    EXPECT_EQ(queue().size(), 4u);
    EXPECT_EQ(discovery().queryTimer.interval(), 200);
}

TEST_F(ManagedTest, TheTimerOfQueriesReachesTheManagedOneOnly)
{
    run();
    found("A", "a.local", "10.0.0.1", 1);
    found("B", "b.local", "10.0.0.2", 2);
    found("C", "c.local", "10.0.0.3", 3);
    discovery().StartQueryAllRecords();
    discovery().queryTimer.setInterval(0);
    turn();
    discovery().StopQueryAllRecords();
    EXPECT_EQ(queue(), (Lines{"B, _http._tcp", "C, _http._tcp", "A, _http._tcp"}));
}

TEST_F(ManagedTest, LongLivedQueryHoldsOneResolverAndOneAddressBrowser)
{
    run();
    found();
    for (int i = 0; i < 3; ++i) {
        EXPECT_TRUE(discovery().StartQueryRecords("Cam", HTTP, true));
        turn();
        resolved(2 + i, "Cam", "cam.local", "10.0.0.1", cameraTxt);
        record(2, AVAHI_BROWSER_ALL_FOR_NOW, "cam.local", nullptr);
    }
    EXPECT_EQ(avahi.liveHandles(), (Lines{"client1", "browser1", "recordBrowser2", "resolver4"}));
    EXPECT_EQ(takeSignals(), Lines());
    EXPECT_EQ(table(), Lines{"\"Cam\": "
                             + camera("Cam", "cam.local", "addresses=[10.0.0.1] " + known, "longLiveQuery=true ")});
}

TEST_F(ManagedTest, StoppingAQueryEndsThatServicesAndNoOther)
{
    run();
    found("A", "a.local", "10.0.0.1", 1);
    found("B", "b.local", "10.0.0.2", 2);
    discovery().StartQueryRecords("A", HTTP, true);
    discovery().StartQueryRecords("B", HTTP, true);
    turn();
    resolved(3, "A", "a.local", "10.0.0.1", cameraTxt);
    resolved(4, "B", "b.local", "10.0.0.2", cameraTxt);
    onlyAnswerIs(3, "10.0.0.1");
    onlyAnswerIs(4, "10.0.0.2");
    forgetAll();
    discovery().StopQueryRecords("A", HTTP);
    turn();
    EXPECT_EQ(takeCalls(), (Lines{"service_resolver_free(resolver3)", "record_browser_free(recordBrowser3)"}));
    EXPECT_FALSE(discovery().services.value(QStringLiteral("A")).longLiveQuery);
    EXPECT_TRUE(discovery().services.value(QStringLiteral("B")).longLiveQuery);
}

TEST_F(ManagedTest, EverythingOfALostServiceIsFreed)
{
    run();
    found();
    discovery().StartQueryRecords("Cam", HTTP, true);
    turn();
    resolved(2, "Cam", "cam.local", "10.0.0.1", cameraTxt);
    disappears("Cam");
    EXPECT_EQ(avahi.liveHandles(), (Lines{"client1", "browser1"}));
}

// The number of open objects.

TEST_F(ManagedTest, AFewResolversAreMadeAtATime)
{
    run();
    for (int i = 0; i < 40; ++i)
        appears(camName(i).c_str());
    turn();
    const int made = liveCount("resolver");
    EXPECT_GE(made, 1);
    EXPECT_LE(made, 16);
}

TEST_F(ManagedTest, ResolversThatWaitForTheNetworkHoldUpNobody)
{
    run();
    for (int i = 0; i < 40; ++i)
        appears(("Cam" + std::to_string(i)).c_str());
    turn(200);
    EXPECT_EQ(takeCalls().size(), 40u);
}

TEST_F(ManagedTest, OpenObjectsStayUnderTheLimitAndNobodyIsDropped)
{
    discovery().setObjectLimit(10);
    run();
    for (int i = 0; i < 30; ++i)
        appears(("Cam" + std::to_string(i)).c_str());
    turn(100);
    EXPECT_EQ(avahi.liveHandles().size(), 11u);
    EXPECT_EQ(discovery().openObjects(), 10);
    for (int i = 1; i <= 30; ++i) {
        const std::string name = "Cam" + std::to_string(i - 1), host = name + ".local";
        resolved(i, name.c_str(), host.c_str(), "10.0.0.1", cameraTxt);
        record(i, AVAHI_BROWSER_NEW, host.c_str(), "10.0.0.1");
        record(i, AVAHI_BROWSER_ALL_FOR_NOW, host.c_str(), nullptr);
        EXPECT_LE(avahi.liveHandles().size(), 11u);
        turn(2);
    }
    EXPECT_EQ(table().size(), 30u);
}

TEST_F(ManagedTest, ResolversThatAreNeverAnsweredGiveWay)
{
    discovery().setObjectLimit(8);
    run();
    for (int i = 0; i < 14; ++i)
        appears(("Ghost" + std::to_string(i)).c_str());
    turn(1300);
    Lines calls = takeCalls();
    EXPECT_NE(std::find(calls.begin(), calls.end(),
                        newResolver("Ghost13", 14)),
              calls.end());
    EXPECT_LE(avahi.liveHandles().size(), 9u);
}

TEST_F(ManagedTest, TooManyObjectsOfTheDaemonsSlowDownAndLoseNothing)
{
    run();
    avahi.failNext("service_resolver_new", AVAHI_ERR_TOO_MANY_OBJECTS);
    appears("Cam");
    turn(100);
    EXPECT_EQ(avahi.liveHandles(), (Lines{"client1", "browser1"}));
    turn(1100);
    EXPECT_EQ(avahi.liveHandles(), (Lines{"client1", "browser1", "resolver1"}));
    EXPECT_EQ(discovery().state(), vd::ManagedServiceDiscovery::Running);
}

TEST_F(ManagedTest, LongLivedQueriesLeaveRoomForOthers)
{
    discovery().setObjectLimit(8);
    run();
    for (int i = 0; i < 6; ++i)
        found(camName(i).c_str(), "cam.local", "10.0.0.1", i + 1);
    for (int i = 0; i < 6; ++i)
        discovery().StartQueryRecords(camName(i).c_str(), HTTP, true);
    appears("Late");
    Lines asked;
    for (int round = 0; round < 8; ++round) {
        turn();
        for (const std::string& name : answerResolvers())
            asked.push_back(name);
        EXPECT_LE(discovery().openObjects(), 8);
    }
    EXPECT_EQ(asked, (Lines{"Cam0", "Cam1", "Cam2", "Cam3", "Cam4", "Cam5", "Late"}));
    EXPECT_EQ(liveCount("resolver"), 3);
    EXPECT_EQ(table().size(), 7u);
}

TEST_F(ManagedTest, QueryThatFoundNoRoomIsKeptOpenOnceThereIsSome)
{
    discovery().setObjectLimit(8);
    run();
    for (int i = 0; i < 4; ++i)
        found(camName(i).c_str(), "cam.local", "10.0.0.1", i + 1);
    for (int i = 0; i < 4; ++i) {
        discovery().StartQueryRecords(camName(i).c_str(), HTTP, true);
        turn();
        answerResolvers();
    }
    EXPECT_EQ(liveCount("resolver"), 3);
    discovery().StopQueryRecords("Cam0", HTTP);
    turn();
    EXPECT_EQ(answerResolvers(), Lines{"Cam3"});
    EXPECT_EQ(liveCount("resolver"), 3);
}

TEST_F(ManagedTest, ResolversThatTheDaemonHasNoRoomForMakeOldOnesGiveWay)
{
    run();
    for (int i = 0; i < 4; ++i)
        appears(camName(i).c_str());
    turn(1100);
    avahi.failNext("service_resolver_new", AVAHI_ERR_TOO_MANY_OBJECTS);
    appears("Late");
    takeCalls();
    turn(1300);
    const Lines calls = takeCalls();
    EXPECT_NE(std::find(calls.begin(), calls.end(), "service_resolver_free(resolver1)"), calls.end());
}

TEST_F(ManagedTest, RefusedAddressBrowserIsNoBusyLoop)
{
    run();
    appears("Cam");
    turn();
    avahi.failNext("record_browser_new", AVAHI_ERR_TOO_MANY_OBJECTS);
    resolved(1, "Cam", "cam.local", "10.0.0.1", cameraTxt);
    takeCalls();
    turn(100);
    EXPECT_EQ(takeCalls(), Lines());
}

TEST_F(ManagedTest, QueryThatIsStoppedBeforeItsAnswerLosesNoDevice)
{
    run();
    appears("Cam");
    discovery().StartQueryRecords("Cam", HTTP, true);
    turn();
    discovery().StopQueryRecords("Cam", HTTP);
    resolved(1, "Cam", "cam.local", "10.0.0.1", cameraTxt);
    EXPECT_EQ(takeSignals().size(), 1u);
    record(1, AVAHI_BROWSER_ALL_FOR_NOW, "cam.local", nullptr);
    EXPECT_EQ(avahi.liveHandles(), (Lines{"client1", "browser1"}));
}

TEST_F(ManagedTest, DeviceWithoutItsSerialForOnceIsLostAsAnyOther)
{
    run();
    found();
    discovery().StartQueryRecords("Cam", HTTP, false);
    turn();
    resolved(2, "Cam", "cam.local", "10.0.0.1", Txt{"path=/"});
    EXPECT_EQ(table().size(), 1u);
    EXPECT_EQ(signalsOf([this] { disappears("Cam"); }).size(), 1u);
    EXPECT_EQ(table(), Lines());
}

TEST_F(ManagedTest, QueryForATypeThatIsNotSeenHidesNoLoss)
{
    run();
    found();
    discovery().StartQueryRecords("Cam", HTTPS, true);
    turn();
    EXPECT_EQ(signalsOf([this] { disappears("Cam"); }).size(), 1u);
    EXPECT_EQ(avahi.liveHandles(), (Lines{"client1", "browser1"}));
}

TEST_F(ManagedTest, ServicesOfOtherTypesAreIgnoredWhoeverAsksForThem)
{
    run();
    EXPECT_TRUE(discovery().ResolveService(2, "Cam", "_printer._tcp", "local"));
    turn();
    resolved(1, "Cam", "cam.local", "10.0.0.1", cameraTxt, "_printer._tcp");
    EXPECT_EQ(takeSignals(), Lines());
    EXPECT_EQ(avahi.liveHandles(), (Lines{"client1", "browser1"}));
}

TEST_F(ManagedTest, ServiceIsQueriedInTheDomainWhereItIsSeen)
{
    run();
    avahi.fireBrowse(avahi.browser(), AVAHI_BROWSER_NEW, 2, AVAHI_PROTO_INET, "Cam", HTTP, "example.net");
    turn();
    resolved(1, "Cam", "cam.local", "10.0.0.1", cameraTxt);
    takeCalls();
    discovery().StartQueryRecords("Cam", HTTP, false);
    turn();
    EXPECT_EQ(takeCalls(), Lines{"service_resolver_new(client1, 2, 0, \"Cam\", \"_http._tcp\", \"example.net\", 0, "
                                 "2) = resolver2"});
}

TEST_F(ManagedTest, ServiceOfTwoDomainsIsQueriedInBothAndLostWithTheLast)
{
    run();
    found();
    fireInDomain(AVAHI_BROWSER_NEW, "example.net");
    turn();
    resolved(2, "Cam", "cam.local", "10.0.0.1", cameraTxt);
    onlyAnswerIs(2, "10.0.0.1");
    forgetAll();
    discovery().StartQueryRecords("Cam", HTTP, false);
    turn();
    EXPECT_EQ(takeCalls(),
              (Lines{"service_resolver_new(client1, 2, 0, \"Cam\", \"_http._tcp\", \"example.net\", 0, 2) = resolver3",
                     newResolver("Cam", 4)}));
    const std::string record = camera("Cam", "cam.local", "addresses=[10.0.0.1] " + known);
    fireInDomain(AVAHI_BROWSER_REMOVE, "local");
    EXPECT_EQ(takeSignals(), Lines());
    EXPECT_EQ(table(), Lines{"\"Cam\": " + record});
    EXPECT_EQ(queue(), Lines{"Cam, _http._tcp"});
    fireInDomain(AVAHI_BROWSER_REMOVE, "example.net");
    EXPECT_EQ(takeSignals(), Lines{"lost " + record});
    EXPECT_EQ(table(), Lines());
    EXPECT_EQ(queue(), Lines());
}

TEST_F(ManagedTest, ServiceThatIsNoDeviceIsNotQueriedForItsTwinInAnotherDomain)
{
    run();
    found();
    fireInDomain(AVAHI_BROWSER_NEW, "example.net");
    turn();
    resolved(2, "Cam", "cam.local", "10.0.0.1", Txt{"a=b"});
    fireInDomain(AVAHI_BROWSER_REMOVE, "local");
    EXPECT_EQ(table(), Lines());
    EXPECT_EQ(queue(), Lines());
}

TEST_F(ManagedTest, DeviceThatWasAskedForStaysWhenATwinThatIsNoneComesAndGoes)
{
    askedForBesideATwinThatIsNoDevice();
    fireInDomain(AVAHI_BROWSER_REMOVE, "example.net");
    const std::string record = camera("Cam", "cam.local", "addresses=[10.0.0.1] " + known);
    EXPECT_EQ(takeSignals(), Lines{"found " + record});
    EXPECT_EQ(table(), Lines{"\"Cam\": " + record});
    EXPECT_EQ(queue(), Lines{"Cam, _http._tcp"});
}

TEST_F(ManagedTest, DeviceThatWasAskedForTakesOverFromATwinAndIsQueried)
{
    run();
    discovery().ResolveService(2, "Cam", HTTP, "local");
    turn();
    resolved(1, "Cam", "cam.local", "10.0.0.1", cameraTxt);
    onlyAnswerIs(1, "10.0.0.1");
    fireInDomain(AVAHI_BROWSER_NEW, "example.net");
    turn();
    resolved(2, "Cam", "other.local", "10.0.0.2", cameraTxt);
    onlyAnswerIs(2, "10.0.0.2");
    fireInDomain(AVAHI_BROWSER_NEW, "example.org");
    fireInDomain(AVAHI_BROWSER_REMOVE, "example.net");
    forgetAll();
    fireInDomain(AVAHI_BROWSER_REMOVE, "example.org");
    EXPECT_EQ(count(takeSignals(), "address"), 1);
    turn();
    EXPECT_EQ(count(takeCalls(), resolverCall(1, -1, AVAHI_PROTO_INET, "Cam", HTTP)), 1);
    EXPECT_EQ(discovery().services.value(QStringLiteral("Cam")).addresses, QStringList{"10.0.0.1"});
}

TEST_F(ManagedTest, DeviceThatWasAskedForIsQueriedBesideATwinThatIsNone)
{
    askedForBesideATwinThatIsNoDevice();
    forgetAll();
    discovery().StartQueryRecords("Cam", HTTP, false);
    turn();
    EXPECT_EQ(count(takeCalls(), resolverCall(1, -1, AVAHI_PROTO_INET, "Cam", HTTP)), 1);
}

TEST_F(ManagedTest, DeviceWhoseServiceIsRefusedForGoodIsLost)
{
    run();
    found();
    avahi.failNext("service_resolver_new", AVAHI_ERR_INVALID_SERVICE_NAME);
    discovery().StartQueryRecords("Cam", HTTP, false);
    turn();
    EXPECT_EQ(takeSignals(), Lines{"lost " + camera("Cam", "cam.local", "addresses=[10.0.0.1] " + known)});
    EXPECT_EQ(table(), Lines());
    EXPECT_EQ(queue(), Lines());
}

TEST_F(ManagedTest, ObjectMayBeDeletedWhenADeviceIsLostAsItsServiceIsRefused)
{
    run();
    found();
    avahi.failNext("service_resolver_new", AVAHI_ERR_INVALID_SERVICE_NAME);
    discovery().StartQueryRecords("Cam", HTTP, false);
    runInSlotOf([this] { turn(); }, [this] { destroyDiscovery(); });
    EXPECT_EQ(avahi.liveHandles(), Lines());
}

TEST_F(ManagedTest, LossOnOneOfTwoInterfacesResolvesAgain)
{
    run();
    found();
    appearsOn("Cam", 3);
    turn();
    answerResolvers();
    disappearsOn("Cam", 2);
    turn();
    EXPECT_EQ(answerResolvers(), Lines{"Cam"});
}

TEST_F(ManagedTest, DeviceStaysQueuedByTheServiceThatMayStillBeIt)
{
    foundAndSeenSecure();
    // The heir, then an unanswered service beside it, which is all that is left when the heir has no key.
    disappears("Cam");
    appears("Cam");
    turn();
    resolved(3, "Cam", "cam.local", "10.0.0.1", Txt{"a=b"}, HTTPS);
    EXPECT_EQ(table().size(), 1u);
    EXPECT_EQ(queue(), Lines{"Cam, _http._tcp"});
}

TEST_F(ManagedTest, WebServiceThatGetsItsKeyLaterIsFound)
{
    run();
    appears("Cam");
    turn();
    resolved(1, "Cam", "cam.local", "10.0.0.1", Txt{"path=/"});
    EXPECT_EQ(avahi.liveHandles(), (Lines{"client1", "browser1"}));
    takeCalls();
    turn(5400);
    EXPECT_EQ(count(takeCalls(), "service_resolver_new"), 1);
    resolved(2, "Cam", "cam.local", "10.0.0.1", cameraTxt);
    EXPECT_EQ(takeSignals().size(), 1u);
}

TEST_F(ManagedTest, WebServiceWithoutAKeyIsLookedAtSoonAgainAfterARestart)
{
    run();
    appears("Cam");
    turn();
    for (int look = 1; look <= 2; ++look) {
        resolved(look, "Cam", "cam.local", "10.0.0.1", Txt{"path=/"});
        // The next one after this would follow in 10 s, and then in 20 s.
        turn(look == 1 ? 5400 : 0);
    }
    failClient();
    turn();
    appearsOn("Cam", 2, AVAHI_PROTO_INET, HTTP, 2);
    turn();
    resolved(3, "Cam", "cam.local", "10.0.0.1", Txt{"path=/"});
    takeCalls();
    turn(5400);
    EXPECT_EQ(count(takeCalls(), "service_resolver_new"), 1);
}

TEST_F(ManagedTest, WebServiceOfAnotherDoesNotHideTheLossOfADevice)
{
    foundAndSeenSecure();
    resolved(2, "Cam", "other.local", "10.0.0.9", Txt{"path=/"}, HTTPS, 443);
    EXPECT_EQ(signalsOf([this] { disappears("Cam"); }).size(), 1u);
    EXPECT_EQ(table(), Lines());
}

TEST_F(ManagedTest, WhatMightHaveBeenTheDeviceAndIsNotEndsIt)
{
    foundAndSeenSecure();
    EXPECT_EQ(signalsOf([this] { disappears("Cam"); }), Lines());
    EXPECT_EQ(signalsOf([this] { resolved(3, "Cam", "other.local", "10.0.0.9", Txt{"path=/"}, HTTPS, 443); }).size(),
              1u);
    EXPECT_EQ(table(), Lines());
}

/** One name on two hosts: a web service on the one, a secure one on the other. */
class ManagedTwinsTest : public ManagedTest
{
protected:
    void runTwins()
    {
        run();
        discovery().BrowseServices(HTTPS);
        found("Cam", "a.local", "10.0.0.1");
        appearsOn("Cam", 2, AVAHI_PROTO_INET, HTTPS, 2);
        turn();
        answer(2, true);
        forgetAll();
    }

    void answer(int number, bool isSecure)
    {
        const char* const host = isSecure ? "b.local" : "a.local";
        const char* const address = isSecure ? "10.0.0.2" : "10.0.0.1";
        resolved(number, "Cam", host, address, cameraTxt, isSecure ? HTTPS : HTTP, isSecure ? 443 : 80);
        record(number, AVAHI_BROWSER_NEW, host, address);
        record(number, AVAHI_BROWSER_ALL_FOR_NOW, host, nullptr);
    }

    QStringList addresses() { return discovery().services.value(QStringLiteral("Cam")).addresses; }
};

TEST_F(ManagedTwinsTest, QueriesOfBothChangeNothing)
{
    runTwins();
    for (int number = 3; number < 9; ++number) {
        const bool isSecure = number % 2 == 0;
        discovery().StartQueryRecords("Cam", isSecure ? HTTPS : HTTP, false);
        turn();
        answer(number, isSecure);
    }
    EXPECT_EQ(takeSignals(), Lines());
    EXPECT_EQ(addresses(), (QStringList{"10.0.0.1", "10.0.0.2"}));
}

TEST_F(ManagedTwinsTest, AddressGoesFromTheRecordThoughATwinOfThatHostIsNotFollowed)
{
    foundAndSeenSecure();
    resolved(2, "Cam", "cam.local", "10.0.0.1", cameraTxt, HTTPS, 443);
    onlyAnswerIs(2, "10.0.0.1");
    discovery().StartQueryRecords("Cam", HTTP, true);
    turn();
    resolved(3, "Cam", "cam.local", "10.0.0.1", cameraTxt);
    record(3, AVAHI_BROWSER_NEW, "cam.local", "10.0.0.1");
    record(3, AVAHI_BROWSER_NEW, "cam.local", "10.0.0.2");
    takeSignals();
    record(3, AVAHI_BROWSER_REMOVE, "cam.local", "10.0.0.1");
    EXPECT_EQ(takeSignals(), Lines{"address "
                                   + camera("Cam", "cam.local", "addresses=[10.0.0.1] " + known,
                                            "addressRemoved=true longLiveQuery=true ")});
    EXPECT_EQ(addresses(), QStringList{"10.0.0.2"});
}

TEST_F(ManagedTwinsTest, TurnOfTheRecordToTheOneThatIsLeftIsSignalled)
{
    runTwins();
    discovery().StartQueryRecords("Cam", HTTP, false);
    turn();
    answer(3, false);
    disappears("Cam");
    takeSignals();
    answer(4, true);
    const Lines told = takeSignals();
    ASSERT_EQ(told.size(), 1u);
    EXPECT_EQ(told[0].rfind("text serviceType='_https._tcp'", 0), 0u) << told[0];
    EXPECT_NE(told[0].find("port=443"), std::string::npos) << told[0];
}

TEST_F(ManagedTwinsTest, QueryOutlivesItsTypeWhileTheDeviceStays)
{
    runTwins();
    discovery().StartQueryRecords("Cam", HTTP, true);
    turn();
    answer(3, false);
    disappears("Cam");
    EXPECT_TRUE(discovery().services.value(QStringLiteral("Cam")).longLiveQuery);
    takeCalls();
    appears("Cam");
    turn();
    EXPECT_EQ(count(takeCalls(), resolverCall(1, 2, AVAHI_PROTO_INET, "Cam", HTTP)), 1);
    EXPECT_TRUE(discovery().services.value(QStringLiteral("Cam")).longLiveQuery);
    discovery().StopQueryRecords("Cam", HTTP);
    EXPECT_FALSE(discovery().services.value(QStringLiteral("Cam")).longLiveQuery);
}

TEST_F(ManagedTwinsTest, QueryEndsWithTheDevice)
{
    runTwins();
    discovery().StartQueryRecords("Cam", HTTP, true);
    turn();
    answer(3, false);
    disappears("Cam");
    disappearsOn("Cam", 2, AVAHI_PROTO_INET, HTTPS, 2);
    turn();
    EXPECT_EQ(table(), Lines());
    EXPECT_EQ(avahi.liveHandles(), (Lines{"client1", "browser1", "browser2"}));
}

TEST_F(ManagedTwinsTest, DeviceIsQueuedByTheOneThatMayStillBeIt)
{
    foundAndSeenSecure();
    disappears("Cam");
    EXPECT_EQ(table().size(), 1u);
    EXPECT_EQ(queue(), Lines{"Cam, _https._tcp"});
    turn();
    resolved(3, "Cam", "cam.local", "10.0.0.1", Txt{"a=b"}, HTTPS, 443);
    EXPECT_EQ(table(), Lines());
    EXPECT_EQ(queue(), Lines());
}

TEST_F(ManagedTwinsTest, WhatOnlyTheLostOneShowedGoes)
{
    runTwins();
    disappears("Cam");
    const Lines told = takeSignals();
    ASSERT_EQ(told.size(), 1u);
    EXPECT_NE(told[0].find("addresses=[10.0.0.1]"), std::string::npos) << told[0];
    EXPECT_EQ(addresses(), QStringList{"10.0.0.2"});
}

TEST_F(ManagedTest, QueryOfOneTypeIsKeptThoughAnotherIsResolved)
{
    run();
    discovery().BrowseServices(HTTPS);
    found();
    discovery().StartQueryRecords("Cam", HTTP, true);
    turn();
    resolved(2, "Cam", "cam.local", "10.0.0.1", cameraTxt);
    appearsOn("Cam", 2, AVAHI_PROTO_INET, HTTPS, 2);
    turn();
    resolved(3, "Cam", "cam.local", "10.0.0.1", cameraTxt, HTTPS, 443);
    EXPECT_TRUE(discovery().services.value(QStringLiteral("Cam")).longLiveQuery);
}

TEST_F(ManagedTest, DeviceThatReturnsWhileItsLossIsToldIsFoundAnew)
{
    run();
    found();
    inNextSlot([this] {
        appears("Cam");
        turn();
        resolved(2, "Cam", "cam.local", "10.0.0.1", cameraTxt);
    });
    disappears("Cam");
    const Lines told = takeSignals();
    ASSERT_EQ(told.size(), 2u);
    EXPECT_EQ(told[0].substr(0, 5), "lost ");
    EXPECT_EQ(told[1].substr(0, 6), "found ");
    EXPECT_EQ(table().size(), 1u);
}

TEST_F(ManagedTest, AddressOfALostDeviceMakesNoRecord)
{
    run();
    appears("Cam");
    turn();
    resolved(1, "Cam", "cam.local", "10.0.0.1", cameraTxt);
    inNextSlot([this] { disappears("Cam"); });
    record(1, AVAHI_BROWSER_NEW, "cam.local", "10.0.0.2");
    EXPECT_EQ(table(), Lines());
}

TEST_F(ManagedTest, AnswerWithoutAnAddressIsAskedForAgainWhateverFailedBefore)
{
    run();
    appears("Cam");
    turn();
    resolveFails(1, "Cam", AVAHI_ERR_TIMEOUT);
    ManagedDiscoveryTest::resolved(1, "Cam", "cam.local", nullptr, cameraTxt);
    turn();
    EXPECT_EQ(liveCount("resolver"), 0);
    takeCalls();
    turn(5400);
    EXPECT_EQ(count(takeCalls(), "service_resolver_new"), 1);
}

TEST_F(ManagedTest, UnansweredServicesOverTheLimitCostLittle)
{
    discovery().setObjectLimit(20);
    run();
    for (int i = 0; i < 40; ++i)
        appears(camName(i).c_str());
    turn(2500);
    takeCalls();
    turn(3000);
    EXPECT_LE(count(takeCalls(), "service_resolver_new"), 30);
}

TEST_F(ManagedTest, RaisedLimitLetsQueriesBeKeptThatFoundNoRoom)
{
    discovery().setObjectLimit(8);
    run();
    for (int i = 0; i < 6; ++i)
        found(camName(i).c_str(), "cam.local", "10.0.0.1", i + 1);
    for (int i = 0; i < 6; ++i)
        discovery().StartQueryRecords(camName(i).c_str(), HTTP, true);
    for (int i = 0; i < 10; ++i) {
        turn();
        answerResolvers();
    }
    EXPECT_EQ(liveCount("resolver"), 3);
    discovery().setObjectLimit(512);
    for (int i = 0; i < 10; ++i) {
        turn();
        answerResolvers();
    }
    EXPECT_EQ(liveCount("resolver"), 6);
}

TEST_F(ManagedTest, QueriesOfAServiceWithoutRoomLeaveNothingBehind)
{
    discovery().setObjectLimit(8);
    run();
    for (int i = 0; i < 4; ++i)
        found(camName(i).c_str(), "cam.local", "10.0.0.1", i + 1);
    for (int i = 0; i < 4; ++i)
        discovery().StartQueryRecords(camName(i).c_str(), HTTP, true);
    for (int i = 0; i < 20; ++i) {
        discovery().StartQueryRecords("Cam3", HTTP, false);
        turn();
        answerResolvers();
    }
    disappears("Cam3");
    takeCalls();
    discovery().StopQueryRecords("Cam0", HTTP);
    turn(50);
    const Lines calls = takeCalls();
    EXPECT_EQ(count(calls, "service_resolver_new"), 0);
}

TEST_F(ManagedTest, WhatIsSeenAndResolvedIsLogged)
{
    run();
    takeLog();
    appears("Cam");
    turn();
    resolved(1, "Cam", "cam.local", "10.0.0.1", cameraTxt);
    Lines told = takeLog();
    told.erase(std::remove_if(told.begin(), told.end(),
                              [](const std::string& line) { return line.find("Managed") == std::string::npos; }),
               told.end());
    EXPECT_EQ(told, (Lines{"[1] ManagedServiceDiscovery::ServiceBrowse() -> seen: Cam type: _http._tcp interface: 2",
                           "[1] ManagedServiceDiscovery::ServiceResolve() -> resolved: Cam host: cam.local address: "
                           "10.0.0.1"}));
    disappears("Cam");
    EXPECT_EQ(takeLog(),
              (Lines{"[1] ManagedServiceDiscovery::ServiceBrowse() -> no longer seen: Cam type: _http._tcp interface: 2",
                     "[1] ManagedServiceDiscovery::ServiceBrowse() -> removing service: Cam"}));
}

TEST_F(ManagedTest, HostileNameForgesNoLogLine)
{
    run();
    takeLog();
    appears("Cam\n[4] forged");
    const Lines told = takeLog();
    ASSERT_EQ(told.size(), 1u);
    EXPECT_NE(told[0].find("Cam\\x0a[4] forged"), std::string::npos) << told[0];
}
