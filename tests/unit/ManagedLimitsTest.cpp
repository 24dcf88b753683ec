// SPDX-License-Identifier: MIT
#include "support/ManagedFixture.h"

/** Long-lived queries, and others beside them, with little room. */
class ManagedLimitsTest : public ManagedTest
{
protected:
    void keepOpen(const std::string& name, int number)
    {
        appears(name.c_str());
        discovery().StartQueryRecords(name.c_str(), HTTP, true);
        turn();
        resolved(number, name.c_str(), "cam.local", "10.0.0.1", cameraTxt);
        onlyAnswerIs(number, "10.0.0.1");
    }

    /** What is called when the address browser of a device that is found cannot be made. */
    Lines callsAfterNoAddressBrowserFor(int error)
    {
        run();
        appears("Cam");
        turn();
        avahi.failNext("record_browser_new", error);
        resolved(1, "Cam", "cam.local", "10.0.0.1", cameraTxt);
        turn(50);
        return takeCalls();
    }

    /** What is called when the resolver of a service cannot be made. */
    Lines callsAfterNoResolverFor(int error)
    {
        run();
        avahi.failNext("service_resolver_new", error);
        appears("Cam");
        turn(50);
        return takeCalls();
    }

    /** How often @p name was resolved since the calls were asked for last. */
    int resolvesOf(const std::string& name)
    {
        return count(takeCalls(), "service_resolver_new(client1, 2, 0, \"" + name + "\"");
    }
};

TEST_F(ManagedLimitsTest, TwoTypesAndLongLivedQueriesAtTheSmallestLimitLeaveRoomForAnother)
{
    discovery().setObjectLimit(8);
    run();
    discovery().BrowseServices(HTTPS);
    turn();
    keepOpen("A", 1);
    keepOpen("B", 2);
    keepOpen("C", 3);
    EXPECT_LE(discovery().openObjects(), 8);
    takeSignals();
    appears("New");
    turn(400);
    EXPECT_GE(resolvesOf("New"), 1);
}

TEST_F(ManagedLimitsTest, LoweredLimitLeavesRoomForOthers)
{
    run();
    for (int i = 1; i <= 10; ++i)
        keepOpen(camName(i), i);
    discovery().setObjectLimit(12);
    turn(300);
    EXPECT_LE(discovery().openObjects(), 12);
    takeCalls();
    appears("New");
    turn(400);
    EXPECT_GE(resolvesOf("New"), 1);
}

TEST_F(ManagedLimitsTest, DaemonThatAllowsLessLeavesRoomForOthers)
{
    run();
    for (int i = 1; i <= 9; ++i)
        keepOpen(camName(i), i);
    // 19 of 20 are open.
    appears("Cam10");
    discovery().StartQueryRecords("Cam10", HTTP, true);
    turn();
    EXPECT_EQ(discovery().openObjects(), 20);
    avahi.failNext("record_browser_new", AVAHI_ERR_TOO_MANY_OBJECTS);
    resolved(10, "Cam10", "cam.local", "10.0.0.1", cameraTxt);
    takeCalls();
    appears("New");
    for (int s = 0; s < 8; ++s)
        turn(1000);
    EXPECT_GE(resolvesOf("New"), 1);
}

TEST_F(ManagedLimitsTest, LossOfAKeptServiceThatHoldsNothingGivesItsRoomToAParkedOne)
{
    discovery().setObjectLimit(8);
    run();
    // Kept, but ignored: holds nothing.
    for (int i = 1; i <= 3; ++i) {
        appears(camName(i).c_str());
        discovery().StartQueryRecords(camName(i).c_str(), HTTP, true);
        turn();
        resolved(i, camName(i).c_str(), "cam.local", "10.0.0.1", Txt{"path=/"});
    }
    appears("Cam4");
    discovery().StartQueryRecords("Cam4", HTTP, true);
    turn();
    resolved(4, "Cam4", "cam.local", "10.0.0.1", cameraTxt);
    onlyAnswerIs(1, "10.0.0.1");
    EXPECT_EQ(liveCount("resolver"), 1);
    for (int i = 1; i <= 3; ++i)
        disappears(camName(i).c_str());
    turn(200);
    EXPECT_EQ(liveCount("resolver"), 1);
}

TEST_F(ManagedLimitsTest, KeptQueryThatIsNotAnsweredGivesItsRoomToAParkedOneAndGetsItBack)
{
    discovery().setObjectLimit(8);
    run();
    keepOpen("A", 1);
    keepOpen("B", 2);
    keepOpen("C", 3);
    keepOpen("Waiting", 4);
    EXPECT_EQ(avahi.liveHandles(), (Lines{"client1", "browser1", "resolver1", "recordBrowser1", "resolver2",
                                          "recordBrowser2", "resolver3", "recordBrowser3"}));
    takeCalls();
    resolveFails(2, "B", AVAHI_ERR_TIMEOUT);
    turn();
    EXPECT_EQ(resolvesOf("Waiting"), 1);
    resolved(5, "Waiting", "cam.local", "10.0.0.1", cameraTxt);
    onlyAnswerIs(5, "10.0.0.1");
    EXPECT_EQ(avahi.liveHandles(), (Lines{"client1", "browser1", "resolver1", "recordBrowser1", "resolver3",
                                          "recordBrowser3", "resolver5", "recordBrowser5"}));
    disappears("Waiting");
    EXPECT_EQ(resolvesOf("B"), 1);
}

TEST_F(ManagedLimitsTest, QueryThatGaveItsRoomAwayBeforeItsAnswerIsResolvedWithoutIt)
{
    discovery().setObjectLimit(8);
    run();
    keepOpen("A", 1);
    keepOpen("B", 2);
    appears("Late");
    discovery().StartQueryRecords("Late", HTTP, true);
    turn();
    appears("Parked");
    discovery().StartQueryRecords("Parked", HTTP, true);
    turn();
    resolved(4, "Parked", "cam.local", "10.0.0.1", cameraTxt);
    onlyAnswerIs(3, "10.0.0.1");
    resolveFails(3, "Late", AVAHI_ERR_TIMEOUT);
    turn();
    EXPECT_EQ(resolvesOf("Parked"), 2);
    resolved(5, "Parked", "cam.local", "10.0.0.1", cameraTxt);
    onlyAnswerIs(4, "10.0.0.1");
    turn(5500);
    EXPECT_EQ(resolvesOf("Late"), 1);
    resolved(6, "Late", "late.local", "10.0.0.9", cameraTxt);
    EXPECT_TRUE(discovery().services.contains("Late"));
    EXPECT_LE(discovery().openObjects(), 8);
}

TEST_F(ManagedLimitsTest, ThereIsRoomForOneServiceBesideAsManyTypesAsTheLimit)
{
    discovery().setObjectLimit(8);
    run();
    for (int i = 1; i < 8; ++i)
        EXPECT_TRUE(discovery().BrowseServices(("_t" + std::to_string(i) + "._sub._http._tcp").c_str()));
    found();
    EXPECT_EQ(table().size(), 1u);
    EXPECT_EQ(discovery().openObjects(), 8);
}

TEST_F(ManagedLimitsTest, AddressBrowserIsClosedAtItsFirstAddressWhileManyAreOpen)
{
    run();
    for (int number = 1; number <= 33; ++number) {
        appears(camName(number).c_str());
        turn();
        resolved(number, camName(number).c_str(), "cam.local", "10.0.0.1", cameraTxt);
    }
    forgetAll();
    record(33, AVAHI_BROWSER_NEW, "cam.local", "10.0.0.1");
    record(33, AVAHI_BROWSER_CACHE_EXHAUSTED, "cam.local", nullptr);
    EXPECT_EQ(takeCalls(), Lines{"record_browser_free(recordBrowser33)"});
    record(32, AVAHI_BROWSER_NEW, "cam.local", "10.0.0.1");
    record(32, AVAHI_BROWSER_CACHE_EXHAUSTED, "cam.local", nullptr);
    EXPECT_EQ(takeCalls(), Lines());
}

TEST_F(ManagedLimitsTest, AddressBrowserIsClosedAtItsFirstAddressWhileManyStandInLine)
{
    run();
    appears("Cam");
    turn();
    resolved(1, "Cam", "cam.local", "10.0.0.1", cameraTxt);
    for (int number = 1; number <= 33; ++number)
        appears(camName(number).c_str());
    takeCalls();
    const unsigned char address[] = {10, 0, 0, 1};
    avahi.fireRecord(avahi.recordBrowser(1), AVAHI_BROWSER_NEW, "cam.local", address, sizeof address);
    avahi.fireRecord(avahi.recordBrowser(1), AVAHI_BROWSER_CACHE_EXHAUSTED, "cam.local", nullptr, 0);
    turn();
    EXPECT_EQ(count(takeCalls(), "record_browser_free(recordBrowser1)"), 1);
}

TEST_F(ManagedLimitsTest, SilentServicesGiveWayToATypeForWhichTheDaemonHasNoRoom)
{
    run();
    appears("Silent");
    appears("Other");
    turn(1100);
    takeCalls();
    avahi.failNext("service_browser_new", AVAHI_ERR_TOO_MANY_OBJECTS);
    EXPECT_TRUE(discovery().BrowseServices(HTTPS));
    turn();
    EXPECT_EQ(count(takeCalls(), "service_resolver_free(resolver1)"), 1);
    turn(400);
    EXPECT_EQ(discovery().state(), vd::ManagedServiceDiscovery::Running);
    EXPECT_EQ(liveCount("browser"), 2);
}

TEST_F(ManagedLimitsTest, SilentServicesGiveWayToAPublicationForWhichTheDaemonHasNoRoom)
{
    run();
    appears("Silent");
    turn(1100);
    takeCalls();
    avahi.failNext("entry_group_new", AVAHI_ERR_TOO_MANY_OBJECTS);
    EXPECT_FALSE(discovery().RegisterService("Setup", HTTP, vd::SReconfigInfo()));
    turn();
    EXPECT_EQ(count(takeCalls(), "service_resolver_free(resolver1)"), 1);
}

// Avahi's last error may be an old one.
TEST_F(ManagedLimitsTest, NothingGivesWayToATextThatNoTxtRecordHolds)
{
    run();
    for (const char* name : {"One", "Two", "Three"})
        appears(name);
    turn(1100);
    avahi.failNext("entry_group_new", AVAHI_ERR_TOO_MANY_OBJECTS);
    EXPECT_FALSE(discovery().RegisterService("Setup", HTTP, vd::SReconfigInfo()));
    turn();
    takeCalls();
    vd::SReconfigInfo info = vd::SReconfigInfo();
    info.userName = QString(256, QLatin1Char('u'));
    EXPECT_FALSE(discovery().RegisterService("Setup", HTTP, info));
    turn();
    EXPECT_EQ(count(takeCalls(), "service_resolver_free"), 0);
}

TEST_F(ManagedLimitsTest, NothingGivesWayToATypeThatIsRefusedForAnotherReason)
{
    run();
    appears("Silent");
    turn(1100);
    takeCalls();
    avahi.failNext("service_browser_new", AVAHI_ERR_INVALID_SERVICE_TYPE);
    EXPECT_TRUE(discovery().BrowseServices(HTTPS));
    turn();
    EXPECT_EQ(count(takeCalls(), "service_resolver_free"), 0);
}

TEST_F(ManagedLimitsTest, LimitIsHalfOfTheDaemonsUnlessItIsSet)
{
    EXPECT_EQ(discovery().objectLimit(), 512);
}

TEST_F(ManagedLimitsTest, AddressBrowserThatTheDaemonDoesNotAnswerForEndsTheConnection)
{
    EXPECT_EQ(count(callsAfterNoAddressBrowserFor(AVAHI_ERR_DBUS_ERROR), "client_free(client1)"), 1);
}

TEST_F(ManagedLimitsTest, AddressBrowserThatIsRefusedForItsHostKeepsTheConnection)
{
    EXPECT_EQ(count(callsAfterNoAddressBrowserFor(AVAHI_ERR_INVALID_HOST_NAME), "client_free"), 0);
}

TEST_F(ManagedLimitsTest, ResolverForWhichTheClientIsInNoStateEndsTheConnection)
{
    EXPECT_EQ(count(callsAfterNoResolverFor(AVAHI_ERR_BAD_STATE), "client_free(client1)"), 1);
}

TEST_F(ManagedLimitsTest, RefusedServiceIsResolvedLater)
{
    EXPECT_EQ(count(callsAfterNoResolverFor(AVAHI_ERR_NO_MEMORY), "client_free"), 0);
    turn(5300);
    EXPECT_EQ(count(takeCalls(), newResolver("Cam", 1)), 1);
}

TEST_F(ManagedLimitsTest, LongLivedQueryThatIsRefusedForGoodIsGivenUp)
{
    run();
    found();
    avahi.failNext("service_resolver_new", AVAHI_ERR_INVALID_SERVICE_TYPE);
    discovery().StartQueryRecords("Cam", "_x._tcp", true);
    turn();
    EXPECT_EQ(count(takeCalls(), "service_resolver_new"), 1);
    EXPECT_EQ(table(), Lines{"\"Cam\": " + camera("Cam", "cam.local", "addresses=[10.0.0.1] " + known)});
}

TEST_F(ManagedLimitsTest, LongLivedQueryOfAnotherKindOfServiceIsGivenUp)
{
    run();
    found();
    discovery().StartQueryRecords("Cam", "_printer._tcp", true);
    turn();
    takeCalls();
    resolved(2, "Cam", "cam.local", "10.0.0.1", cameraTxt, "_printer._tcp");
    EXPECT_EQ(takeCalls(), Lines{"service_resolver_free(resolver2)"});
    EXPECT_EQ(table(), Lines{"\"Cam\": " + camera("Cam", "cam.local", "addresses=[10.0.0.1] " + known)});
}

TEST_F(ManagedLimitsTest, LongLivedQueryOutlivesAnAnswerWithoutAKey)
{
    run();
    discovery().StartQueryRecords("Cam", HTTPS, true);
    turn();
    resolved(1, "Cam", "cam.local", "10.0.0.1", Txt{"path=/"}, HTTPS, 443);
    EXPECT_EQ(avahi.liveHandles(), (Lines{"client1", "browser1"}));
    takeCalls();
    turn(5500);
    EXPECT_EQ(takeCalls(), Lines{newResolverAnywhere("Cam", 2, HTTPS)});
    resolved(2, "Cam", "cam.local", "10.0.0.1", cameraTxt, HTTPS, 443);
    EXPECT_EQ(table().size(), 1u);
}

TEST_F(ManagedLimitsTest, QueryOfAKeptServiceAtTheSmallestLimitHoldsUpNobody)
{
    discovery().setObjectLimit(8);
    run();
    keepOpen("A", 1);
    keepOpen("B", 2);
    keepOpen("C", 3);
    EXPECT_EQ(discovery().openObjects(), 7);
    takeCalls();
    discovery().StartQueryRecords("A", HTTP, false);
    appears("New");
    turn(3000);
    const Lines calls = takeCalls();
    EXPECT_GE(count(calls, "service_resolver_new(client1, 2, 0, \"A\""), 1);
    EXPECT_GE(count(calls, "service_resolver_new(client1, 2, 0, \"New\""), 1);
}

TEST_F(ManagedLimitsTest, PublishedServiceHasItsRoomUnderTheLimit)
{
    discovery().setObjectLimit(8);
    run();
    for (int i = 1; i <= 12; ++i)
        appears(camName(i).c_str());
    turn();
    EXPECT_LE(discovery().openObjects(), 8);
    vd::SReconfigInfo info = vd::SReconfigInfo();
    EXPECT_TRUE(discovery().RegisterService("Me", "_x._tcp", info));
    turn(2500);
    EXPECT_LE(discovery().openObjects(), 8);
}

TEST_F(ManagedLimitsTest, StoppedQueryDoesNotKeepARestartFromBeingNoticed)
{
    run();
    found();
    discovery().StartQueryRecords("Cam", HTTP, true);
    turn();
    resolved(2, "Cam", "cam.local", "10.0.0.1", cameraTxt);
    onlyAnswerIs(2, "10.0.0.1");
    failClient();
    turn();
    appearsOn("Cam", 2, AVAHI_PROTO_INET, HTTP, 2);
    turn();
    discovery().StopQueryRecords("Cam", HTTP);
    takeCalls();
    turn(100);
    // Somebody must still ask for what changed meanwhile.
    EXPECT_EQ(liveCount("resolver"), 1);
}

TEST_F(ManagedLimitsTest, MissingAddressIsLookedUpAgainSoonThoughAPrinterIsLeftAlone)
{
    run();
    found();
    appears("Printer");
    turn();
    resolved(2, "Printer", "printer.local", "10.0.0.7", Txt{"path=/"});
    // 5 s for the printer
    askAndResolve(3, "10.0.0.2");
    onlyAnswerIs(2, "10.0.0.2");
    takeCalls();
    turn(3400);
    EXPECT_EQ(takeCalls(), Lines{newResolver("Cam", 4)});
}

TEST_F(ManagedLimitsTest, AddressSeenAfterItWasMissingIsNotTakenAwayAtTheNextMiss)
{
    run();
    found();
    discovery().StartQueryRecords("Cam", HTTP, true);
    turn();
    resolved(2, "Cam", "cam.local", "10.0.0.2", cameraTxt);
    onlyAnswerIs(2, "10.0.0.2");                              // 10.0.0.1 is missing once
    record(2, AVAHI_BROWSER_NEW, "cam.local", "10.0.0.1");    // it answers late
    takeSignals();
    turn(3400);                                               // looked up again
    resolved(3, "Cam", "cam.local", "10.0.0.2", cameraTxt);
    // The browser that is open will tell when the address goes.
    EXPECT_EQ(avahi.liveHandles(), (Lines{"client1", "browser1", "recordBrowser2", "resolver3"}));
    EXPECT_EQ(takeSignals(), Lines());
}

TEST_F(ManagedLimitsTest, LookAtTheAddressesGoesOnWhenItsQueryIsStopped)
{
    run();
    found();
    discovery().StartQueryRecords("Cam", HTTP, true);
    turn();
    resolved(2, "Cam", "cam.local", "10.0.0.2", cameraTxt);
    discovery().StopQueryRecords("Cam", HTTP);
    turn();
    EXPECT_EQ(avahi.liveHandles(), (Lines{"client1", "browser1", "recordBrowser2"}));
    onlyAnswerIs(2, "10.0.0.2");
    EXPECT_EQ(avahi.liveHandles(), (Lines{"client1", "browser1"}));
    turn(3400);
    resolved(3, "Cam", "cam.local", "10.0.0.2", cameraTxt);
    onlyAnswerIs(3, "10.0.0.2");
    EXPECT_EQ(discovery().services.value(QStringLiteral("Cam")).addresses, QStringList(QStringLiteral("10.0.0.2")));
}

TEST_F(ManagedLimitsTest, LookThatIsYetToBeginIsMadeThoughItsQueryIsStopped)
{
    run();
    found();
    discovery().StartQueryRecords("Cam", HTTP, true);
    turn();
    ManagedDiscoveryTest::resolved(2, "Cam", "cam.local", "10.0.0.2", cameraTxt);
    discovery().StopQueryRecords("Cam", HTTP);
    takeCalls();
    turn();
    EXPECT_EQ(takeCalls(), (Lines{"service_resolver_free(resolver2)",
                                  "record_browser_new(client1, -1, -1, \"cam.local\", 1, 1, 2) = recordBrowser2"}));
}

TEST_F(ManagedLimitsTest, LookAtTheAddressesGoesOnWhenItsQueryGivesUpItsRoom)
{
    discovery().setObjectLimit(12);
    run();
    for (int i = 1; i <= 4; ++i) {
        appears(camName(i).c_str());
        discovery().StartQueryRecords(camName(i).c_str(), HTTP, true);
        turn();
        resolved(i, camName(i).c_str(), "cam.local", "10.0.0.1", cameraTxt);
    }
    discovery().setObjectLimit(8);
    turn();
    EXPECT_EQ(avahi.liveHandles(), (Lines{"client1", "browser1", "resolver1", "recordBrowser1", "resolver2",
                                          "recordBrowser2", "resolver3", "recordBrowser3", "recordBrowser4"}));
    onlyAnswerIs(4, "10.0.0.1");
    EXPECT_EQ(avahi.liveHandles(), (Lines{"client1", "browser1", "resolver1", "recordBrowser1", "resolver2",
                                          "recordBrowser2", "resolver3", "recordBrowser3"}));
}

TEST_F(ManagedLimitsTest, MissingAddressIsLookedUpOnceMoreWhenNobodyAnswers)
{
    run();
    found();
    queryAgain(2, "10.0.0.2");
    turn(3400);
    resolved(3, "Cam", "cam.local", "10.0.0.2", cameraTxt);
    record(3, AVAHI_BROWSER_ALL_FOR_NOW, "cam.local", nullptr);
    takeCalls();
    turn(3400);
    EXPECT_EQ(takeCalls(), Lines{newResolver("Cam", 4)});
}

TEST_F(ManagedLimitsTest, LookThatNobodyAnswersIsNotRepeatedWhenNothingIsMissing)
{
    run();
    found();
    askAndResolve(2, "10.0.0.1");
    record(2, AVAHI_BROWSER_ALL_FOR_NOW, "cam.local", nullptr);
    takeCalls();
    turn(3400);
    EXPECT_EQ(takeCalls(), Lines());
}

TEST_F(ManagedLimitsTest, LookOfAKeptQueryThatFailsIsRepeated)
{
    run();
    found();
    keepOpen("Cam", 2);
    record(2, AVAHI_BROWSER_FAILURE, "cam.local", nullptr);
    takeCalls();
    turn(5600);
    EXPECT_EQ(takeCalls(), (Lines{"service_resolver_free(resolver2)",
                                  newResolver("Cam", 3)}));
}

TEST_F(ManagedLimitsTest, LookThatFailsIsNotRepeatedWhenNothingIsMissing)
{
    run();
    found();
    askAndResolve(2, "10.0.0.1");
    record(2, AVAHI_BROWSER_FAILURE, "cam.local", nullptr);
    takeCalls();
    turn(5600);
    EXPECT_EQ(takeCalls(), Lines());
}

TEST_F(ManagedLimitsTest, MissingAddressIsLookedUpOnceMoreWhenTheLookFails)
{
    run();
    found();
    queryAgain(2, "10.0.0.2");
    turn(3400);
    resolved(3, "Cam", "cam.local", "10.0.0.2", cameraTxt);
    record(3, AVAHI_BROWSER_FAILURE, "cam.local", nullptr);
    takeCalls();
    turn(5600);
    EXPECT_EQ(takeCalls(), Lines{newResolver("Cam", 4)});
}

TEST_F(ManagedLimitsTest, LookThatIsGoingOnIsNotBegunAnewWhileAnAddressIsMissing)
{
    run();
    found();
    queryAgain(2, "10.0.0.2");
    askAndResolve(3, "10.0.0.2");
    askAndResolve(4, "10.0.0.2");
    EXPECT_EQ(avahi.liveHandles(), (Lines{"client1", "browser1", "recordBrowser3"}));
    onlyAnswerIs(3, "10.0.0.2");
    EXPECT_EQ(discovery().services.value(QStringLiteral("Cam")).addresses, QStringList(QStringLiteral("10.0.0.2")));
}

TEST_F(ManagedLimitsTest, AddressThatAnUnansweredServiceWasGivenGoesWithTheDevices)
{
    foundAndSeenSecure();
    disappears("Cam");
    appears("Cam");
    turn();
    // Resolver 3 asks for the secure one again.
    resolved(4, "Cam", "cam.local", "10.0.0.7", cameraTxt);
    onlyAnswerIs(2, "10.0.0.7");
    turn(3400);
    resolved(5, "Cam", "cam.local", "10.0.0.7", cameraTxt);
    onlyAnswerIs(3, "10.0.0.7");
    EXPECT_EQ(discovery().services.value(QStringLiteral("Cam")).addresses, QStringList(QStringLiteral("10.0.0.7")));
}

TEST_F(ManagedLimitsTest, StoppedQueryOfAServiceThatIsNotThereHoldsNothing)
{
    run();
    discovery().StartQueryRecords("Gone", HTTP, true);
    turn();
    resolveFails(1, "Gone", AVAHI_ERR_TIMEOUT);
    turn();
    EXPECT_EQ(liveCount("resolver"), 1);
    discovery().StopQueryRecords("Gone", HTTP);
    turn();
    EXPECT_EQ(avahi.liveHandles(), (Lines{"client1", "browser1"}));
    failClient();
    turn(300);
    EXPECT_EQ(liveCount("resolver"), 0);
}

TEST_F(ManagedLimitsTest, ServiceThatWasAskedForAndIsNotThereHoldsNothing)
{
    run();
    discovery().StartQueryRecords("Gone", HTTP, false);
    turn();
    resolveFails(1, "Gone", AVAHI_ERR_TIMEOUT);
    turn();
    EXPECT_EQ(avahi.liveHandles(), (Lines{"client1", "browser1"}));
    failClient();
    turn(300);
    EXPECT_EQ(liveCount("resolver"), 0);
}

TEST_F(ManagedLimitsTest, ServiceThatWasAskedForAndAnswersNoMoreKeepsItsRecord)
{
    run();
    discovery().StartQueryRecords("Cam", HTTPS, false);
    turn();
    resolved(1, "Cam", "cam.local", "10.0.0.1", cameraTxt, HTTPS);
    onlyAnswerIs(1, "10.0.0.1");
    discovery().StartQueryRecords("Cam", HTTPS, false);
    turn();
    resolveFails(2, "Cam", AVAHI_ERR_TIMEOUT);
    turn();
    EXPECT_EQ(liveCount("resolver"), 0);
    EXPECT_EQ(discovery().services.value(QStringLiteral("Cam")).addresses, QStringList(QStringLiteral("10.0.0.1")));
    EXPECT_EQ(queue(), Lines{"Cam, _https._tcp"});
}

TEST_F(ManagedLimitsTest, HandlerThatBeginsAnewLeavesNothingOfTheOldEvent)
{
    run();
    daemonRuns();
    discovery().inNextHandler = [this] {
        discovery().TerminateBrowsing();
        daemonRuns();
        discovery().BrowseServices(HTTP);
    };
    appears("Cam");
    takeCalls();
    turn(100);
    EXPECT_EQ(count(takeCalls(), "service_resolver_new"), 0);
}

TEST_F(ManagedLimitsTest, IgnoredServiceThatIsNotAnsweredAgainHoldsNothing)
{
    run();
    appears("Printer");
    turn();
    resolved(1, "Printer", "printer.local", "10.0.0.7", Txt{"path=/"});
    turn(5600);
    EXPECT_EQ(liveCount("resolver"), 1);
    resolveFails(2, "Printer", AVAHI_ERR_TIMEOUT);
    turn(500);
    EXPECT_EQ(liveCount("resolver"), 0);
}
