// SPDX-License-Identifier: MIT
#include "support/DiscoveryFixture.h"

namespace {

const std::string PREFIX = "[1] AvahiServiceDiscovery::RecordBrowse() -> ";
const std::string TRYING = PREFIX + "trying to resolve records from cam.local";

const std::string KNOWN = "serviceType='_http._tcp' interfaceIndex=2";
const std::string CAMERA = " deviceKind=1 serviceName='Cam' hostName='cam.local' recordHostName='cam.local'";
const std::string REST = " serialNumber=66051 txtChecksum=" + std::to_string(crcOf("ser_no.vandrel.com=\x01\x02\x03"));

} // namespace

class RecordQueriesTest : public DiscoveryTest
{
protected:
    RecordQueriesTest()
    {
        startBrowsing();
        cameraFound("Cam", "cam.local", "10.0.0.1");
    }

    void startLongLived()
    {
        ASSERT_TRUE(discovery().StartQueryRecords("Cam", "_http._tcp", true));
        forgetAll();
    }

    std::string entry() { return describe(discovery().services[QStringLiteral("Cam")]); }
};

TEST_F(RecordQueriesTest, StartingAQueryIsLoggedAndResolvesAgainEverywhere)
{
    EXPECT_TRUE(discovery().StartQueryRecords("Cam", "_http._tcp", false));
    EXPECT_EQ(takeLog(),
              (Lines{"[1] AvahiServiceDiscovery::StartQueryRecords () -> Cam on cam.local longLiveQuery 0",
                     "[1] AvahiServiceDiscovery::ResolveService () -> trying to resolve service: Cam"}));
    EXPECT_EQ(takeCalls(),
              Lines{"service_resolver_new(client1, -1, -1, \"Cam\", \"_http._tcp\", \"local\", -1, 2) = resolver2"});
    EXPECT_FALSE(discovery().services[QStringLiteral("Cam")].longLiveQuery);
}

TEST_F(RecordQueriesTest, StartingALongLivedQueryMarksTheServiceBeforeItResolves)
{
    EXPECT_TRUE(discovery().StartQueryRecords("Cam", "_http._tcp", true));
    EXPECT_EQ(takeLog().front(), "[1] AvahiServiceDiscovery::StartQueryRecords () -> Cam on cam.local longLiveQuery 1");
    EXPECT_TRUE(discovery().services[QStringLiteral("Cam")].longLiveQuery);
    EXPECT_EQ(discovery().longLiveResolver, avahi.resolver(2));
}

TEST_F(RecordQueriesTest, StartingAQueryKeepsTheLongLivedMark)
{
    startLongLived();
    discovery().StartQueryRecords("Cam", "_http._tcp", false);
    EXPECT_TRUE(discovery().services[QStringLiteral("Cam")].longLiveQuery);
}

TEST_F(RecordQueriesTest, StartingAQueryReturnsWhatTheResolveReturns)
{
    avahi.failNext("service_resolver_new", AVAHI_ERR_TOO_MANY_OBJECTS);
    EXPECT_FALSE(discovery().StartQueryRecords("Cam", "_http._tcp", true));
    EXPECT_TRUE(discovery().services[QStringLiteral("Cam")].longLiveQuery);
}

TEST_F(RecordQueriesTest, LoggedQueryOfAnUnknownServiceInsertsItEvenWhenItFails)
{
    avahi.failNext("service_resolver_new", AVAHI_ERR_TOO_MANY_OBJECTS);
    discovery().StartQueryRecords("Unknown", "_http._tcp", false);
    EXPECT_EQ(takeLog().front(), "[1] AvahiServiceDiscovery::StartQueryRecords () -> Unknown on  longLiveQuery 0");
    EXPECT_TRUE(discovery().services.contains(QStringLiteral("Unknown")));
}

TEST_F(RecordQueriesTest, QueryOfAnUnknownServiceThatIsNotLoggedInsertsNothing)
{
    vd::LogQt::setLogLevel(2);
    avahi.failNext("service_resolver_new", AVAHI_ERR_TOO_MANY_OBJECTS);
    discovery().StartQueryRecords("Unknown", "_http._tcp", false);
    EXPECT_FALSE(discovery().services.contains(QStringLiteral("Unknown")));
}

TEST_F(RecordQueriesTest, LongLivedQueryOfAnUnknownServiceInsertsItWithoutALog)
{
    vd::LogQt::setLogLevel(2);
    avahi.failNext("service_resolver_new", AVAHI_ERR_TOO_MANY_OBJECTS);
    discovery().StartQueryRecords("Unknown", "_http._tcp", true);
    EXPECT_EQ(describe(discovery().services.value(QStringLiteral("Unknown"))), "longLiveQuery=true");
}

TEST_F(RecordQueriesTest, StoppingAQueryClearsTheMarkAndFreesTheResolver)
{
    startLongLived();
    discovery().StopQueryRecords("Cam", "_http._tcp");
    EXPECT_EQ(takeLog(),
              Lines{"[1] AvahiServiceDiscovery::StopQueryRecords () -> unregistering long live query: Cam"});
    EXPECT_EQ(takeCalls(), Lines{"service_resolver_free(resolver2)"});
    EXPECT_EQ(discovery().longLiveResolver, nullptr);
    EXPECT_FALSE(discovery().services[QStringLiteral("Cam")].longLiveQuery);
}

TEST_F(RecordQueriesTest, StoppingAQueryTouchesNeitherRecordBrowserNorQueueNorResolverList)
{
    startLongLived();
    resolved(2, "Cam", "cam.local", "10.0.0.1", Txt{"ser_no.vandrel.com=\x01\x02\x03"});
    discovery().resolvers.append(vd::SResolverInfo());
    forgetAll();
    discovery().StopQueryRecords("Cam", "_http._tcp");
    EXPECT_EQ(takeCalls(), Lines{"service_resolver_free(resolver2)"});
    EXPECT_EQ(discovery().longLiveRecordBrowser, avahi.recordBrowser(2));
    EXPECT_EQ(discovery().resolvers.size(), 1);
    EXPECT_EQ(queue(), (Lines{"Cam, _http._tcp", "Cam, _http._tcp"}));
}

TEST_F(RecordQueriesTest, StoppingAnUnknownServiceInsertsNothingAndFreesTheResolverOfAnother)
{
    startLongLived();
    discovery().StopQueryRecords("Unknown", nullptr);
    EXPECT_EQ(takeLog(),
              Lines{"[1] AvahiServiceDiscovery::StopQueryRecords () -> unregistering long live query: Unknown"});
    EXPECT_EQ(takeCalls(), Lines{"service_resolver_free(resolver2)"});
    EXPECT_EQ(discovery().longLiveResolver, nullptr);
    EXPECT_FALSE(discovery().services.contains(QStringLiteral("Unknown")));
    EXPECT_TRUE(discovery().services[QStringLiteral("Cam")].longLiveQuery);
}

TEST_F(RecordQueriesTest, StoppingWithoutAHeldResolverFreesNothing)
{
    discovery().StopQueryRecords("Cam", "_http._tcp");
    EXPECT_EQ(takeCalls(), Lines());
}

TEST_F(RecordQueriesTest, OnlyTheResolverKeptLastIsFreed)
{
    startLongLived();
    startLongLived();
    discovery().StopQueryRecords("Cam", "_http._tcp");
    EXPECT_EQ(takeCalls(), Lines{"service_resolver_free(resolver3)"});
    discovery().StopQueryRecords("Cam", "_http._tcp");
    EXPECT_EQ(takeCalls(), Lines());
}

TEST_F(RecordQueriesTest, NewAddressIsAppendedAndSignalled)
{
    record(1, AVAHI_BROWSER_NEW, "cam.local", "10.0.0.2");
    EXPECT_EQ(takeSignals(), Lines{"address " + KNOWN + CAMERA + " addresses=[10.0.0.1,10.0.0.2]" + REST});
    EXPECT_EQ(takeLog(), (Lines{TRYING, PREFIX + "cam.local found inetAddr: 10.0.0.2"}));
    EXPECT_EQ(takeCalls(), Lines());
    EXPECT_EQ(entry(), KNOWN + CAMERA + " addresses=[10.0.0.1,10.0.0.2]" + REST);
}

TEST_F(RecordQueriesTest, AddressIsLoggedAfterItWasSignalled)
{
    Lines during;
    inNextSlot([&] { during = takeLog(); });
    record(1, AVAHI_BROWSER_NEW, "cam.local", "10.0.0.2");
    EXPECT_EQ(during, Lines{TRYING});
}

TEST_F(RecordQueriesTest, KnownAddressIsOnlyLogged)
{
    record(1, AVAHI_BROWSER_NEW, "cam.local", "10.0.0.2");
    forgetAll();
    record(1, AVAHI_BROWSER_NEW, "cam.local", "10.0.0.2");
    EXPECT_EQ(takeSignals(), Lines());
    EXPECT_EQ(takeLog(), (Lines{TRYING, PREFIX + "cam.local found inetAddr: 10.0.0.2"}));
    EXPECT_EQ(entry(), KNOWN + CAMERA + " addresses=[10.0.0.1,10.0.0.2]" + REST);
}

TEST_F(RecordQueriesTest, RemovedAddressIsSignalledAndKeptAlone)
{
    record(1, AVAHI_BROWSER_NEW, "cam.local", "10.0.0.2");
    record(1, AVAHI_BROWSER_NEW, "cam.local", "10.0.0.3");
    forgetAll();
    record(1, AVAHI_BROWSER_REMOVE, "cam.local", "10.0.0.2");
    const std::string after = KNOWN + " addressRemoved=true" + CAMERA + " addresses=[10.0.0.2]" + REST;
    EXPECT_EQ(takeSignals(), Lines{"address " + after});
    EXPECT_EQ(takeLog(), (Lines{TRYING, PREFIX + "cam.local removing inetAddr: 10.0.0.2"}));
    EXPECT_EQ(takeCalls(), Lines());
    EXPECT_EQ(entry(), after);
}

TEST_F(RecordQueriesTest, RemovalIsLoggedAfterItWasSignalled)
{
    Lines during;
    inNextSlot([&] { during = takeLog(); });
    record(1, AVAHI_BROWSER_REMOVE, "cam.local", "10.0.0.1");
    EXPECT_EQ(during, Lines{TRYING});
}

TEST_F(RecordQueriesTest, RemovalOfAnAddressThatIsNotListedDoesNothing)
{
    record(1, AVAHI_BROWSER_REMOVE, "cam.local", "10.0.0.9");
    EXPECT_EQ(takeSignals(), Lines());
    EXPECT_EQ(takeLog(), Lines{TRYING});
    EXPECT_EQ(entry(), KNOWN + CAMERA + " addresses=[10.0.0.1]" + REST);
}

TEST_F(RecordQueriesTest, TheRemovedAddressComingBackIsStillListedAndOnlyLogged)
{
    record(1, AVAHI_BROWSER_REMOVE, "cam.local", "10.0.0.1");
    forgetAll();
    record(1, AVAHI_BROWSER_NEW, "cam.local", "10.0.0.1");
    EXPECT_EQ(takeSignals(), Lines());
    EXPECT_EQ(takeLog(), (Lines{TRYING, PREFIX + "cam.local found inetAddr: 10.0.0.1"}));
    EXPECT_TRUE(discovery().services[QStringLiteral("Cam")].addressRemoved);
}

TEST_F(RecordQueriesTest, ADifferentAddressClearsTheRemovedMark)
{
    record(1, AVAHI_BROWSER_REMOVE, "cam.local", "10.0.0.1");
    forgetAll();
    record(1, AVAHI_BROWSER_NEW, "cam.local", "10.0.0.2");
    EXPECT_EQ(takeSignals(), Lines{"address " + KNOWN + CAMERA + " addresses=[10.0.0.1,10.0.0.2]" + REST});
}

TEST_F(RecordQueriesTest, AllForNowEndsTheQuery)
{
    record(1, AVAHI_BROWSER_ALL_FOR_NOW, "cam.local", nullptr);
    EXPECT_EQ(takeLog(), Lines{TRYING});
    EXPECT_EQ(takeCalls(), Lines{"record_browser_free(recordBrowser1)"});
    EXPECT_EQ(takeSignals(), Lines());
    EXPECT_EQ(entry(), KNOWN + CAMERA + " addresses=[10.0.0.1]" + REST);
}

TEST_F(RecordQueriesTest, CacheExhaustedIsLoggedAndEndsTheQuery)
{
    record(1, AVAHI_BROWSER_CACHE_EXHAUSTED, "cam.local", nullptr);
    EXPECT_EQ(takeLog(), (Lines{TRYING, PREFIX + "cam.local avahi cache exhausted  - service restarting might help!"}));
    EXPECT_EQ(takeCalls(), Lines{"record_browser_free(recordBrowser1)"});
}

TEST_F(RecordQueriesTest, FailureIsLoggedWithAvahisTextAndEndsTheQuery)
{
    avahi.setError(AVAHI_ERR_DBUS_ERROR);
    record(1, AVAHI_BROWSER_FAILURE, "cam.local", nullptr);
    EXPECT_EQ(takeLog(), (Lines{TRYING, PREFIX + "Avahi Browser error: " + avahi_strerror(AVAHI_ERR_DBUS_ERROR)}));
    EXPECT_EQ(takeCalls(), (Lines{"record_browser_get_client(recordBrowser1)", "client_errno(client1)",
                                  "record_browser_free(recordBrowser1)"}));
}

TEST_F(RecordQueriesTest, FailureTextIsNotFetchedWhenItIsNotLogged)
{
    vd::LogQt::setLogLevel(2);
    record(1, AVAHI_BROWSER_FAILURE, "cam.local", nullptr);
    EXPECT_EQ(takeCalls(), Lines{"record_browser_free(recordBrowser1)"});
}

TEST_F(RecordQueriesTest, UndefinedEventsEndTheQuery)
{
    int number = 0;
    for (const int event : {5, 7, -1, -100}) {
        SCOPED_TRACE(event);
        ++number;
        record(number, static_cast<AvahiBrowserEvent>(event), "cam.local", "10.0.0.7");
        EXPECT_EQ(takeLog(), Lines{TRYING});
        EXPECT_EQ(takeCalls(), Lines{"record_browser_free(recordBrowser" + std::to_string(number) + ")"});
        EXPECT_EQ(takeSignals(), Lines());
        cameraFound("Cam", "cam.local", "10.0.0.1", number + 1);
    }
}

TEST_F(RecordQueriesTest, LongLivedQueryStaysOpenUntilTheFirstEndAfterItWasStopped)
{
    startLongLived();
    resolved(2, "Cam", "cam.local", "10.0.0.1", Txt{"ser_no.vandrel.com=\x01\x02\x03"});
    forgetAll();
    for (const int event : {int(AVAHI_BROWSER_CACHE_EXHAUSTED), int(AVAHI_BROWSER_ALL_FOR_NOW), 7}) {
        record(2, static_cast<AvahiBrowserEvent>(event), "cam.local", nullptr);
        EXPECT_EQ(takeCalls(), Lines()) << event;
    }
    record(2, AVAHI_BROWSER_FAILURE, "cam.local", nullptr);
    EXPECT_EQ(takeCalls(), (Lines{"record_browser_get_client(recordBrowser2)", "client_errno(client1)"}));

    discovery().StopQueryRecords("Cam", "_http._tcp");
    takeCalls();
    record(2, AVAHI_BROWSER_ALL_FOR_NOW, "cam.local", nullptr);
    EXPECT_EQ(takeCalls(), Lines{"record_browser_free(recordBrowser2)"});
    EXPECT_EQ(discovery().longLiveRecordBrowser, avahi.recordBrowser(2));
}

TEST_F(RecordQueriesTest, ShortDataGivesAnEmptyAddressText)
{
    const unsigned char data[] = {10, 0, 0};
    avahi.fireRecord(avahi.recordBrowser(), AVAHI_BROWSER_NEW, "cam.local", data, sizeof data);
    EXPECT_EQ(takeSignals(), Lines{"address " + KNOWN + CAMERA + " addresses=[10.0.0.1,]" + REST});
    EXPECT_EQ(takeLog().back(), PREFIX + "cam.local found inetAddr: ");
}

TEST_F(RecordQueriesTest, ReservedAddressesAreTakenAsTheyCome)
{
    for (const char* address : {"0.0.0.0", "255.255.255.255", "127.0.0.1"})
        record(1, AVAHI_BROWSER_NEW, "cam.local", address);
    EXPECT_EQ(takeSignals().size(), 3u);
    EXPECT_EQ(entry(), KNOWN + CAMERA + " addresses=[10.0.0.1,0.0.0.0,255.255.255.255,127.0.0.1]" + REST);
}

TEST_F(RecordQueriesTest, RecordOfAnUnknownHostGoesToADefaultEntryUnderTheEmptyKey)
{
    record(1, AVAHI_BROWSER_NEW, "stranger.local", "10.0.0.5");
    EXPECT_EQ(takeSignals(), Lines{"address addresses=[10.0.0.5]"});
    ASSERT_EQ(table().size(), 4u);
    EXPECT_EQ(table().front(), "\"\": addresses=[10.0.0.5]");
    EXPECT_EQ(table().back(), "\"stranger.local\": ");
}

TEST_F(RecordQueriesTest, EndOfAQueryForAnUnknownHostInsertsBothEntriesToo)
{
    record(1, AVAHI_BROWSER_ALL_FOR_NOW, "stranger.local", nullptr);
    EXPECT_EQ(table().front(), "\"\": ");
    EXPECT_EQ(table().back(), "\"stranger.local\": ");
    EXPECT_EQ(takeCalls(), Lines{"record_browser_free(recordBrowser1)"});
}

TEST_F(RecordQueriesTest, HostileHostNameForgesNoLogLine)
{
    record(1, AVAHI_BROWSER_NEW, "a\n[1] forged", "10.0.0.5");
    EXPECT_EQ(takeLog(), (Lines{PREFIX + "trying to resolve records from a\\x0a[1] forged",
                                PREFIX + "a\\x0a[1] forged found inetAddr: 10.0.0.5"}));
}

TEST_F(RecordQueriesTest, StartIsLoggedWithTheHostWhoseRecordsAreFollowed)
{
    discovery().services[QStringLiteral("Cam")].hostName = QStringLiteral("other.local");
    discovery().StartQueryRecords("Cam", "_http._tcp", false);
    EXPECT_EQ(takeLog().front(),
              "[1] AvahiServiceDiscovery::StartQueryRecords () -> Cam on cam.local longLiveQuery 0");
}

TEST_F(RecordQueriesTest, HostileServiceForgesNoLogLine)
{
    discovery().services[QStringLiteral("n\n[1]")].recordHostName = QStringLiteral("h\x1b[2J");
    discovery().StartQueryRecords("n\n[1]", "_http._tcp", false);
    EXPECT_EQ(takeLog().front(),
              "[1] AvahiServiceDiscovery::StartQueryRecords () -> n\\x0a[1] on h\\x1b[2J longLiveQuery 0");
    discovery().StopQueryRecords("n\n[1]", "_http._tcp");
    EXPECT_EQ(takeLog(),
              Lines{"[1] AvahiServiceDiscovery::StopQueryRecords () -> unregistering long live query: n\\x0a[1]"});
}

TEST_F(RecordQueriesTest, StoppingAQueryLeavesThePeriodicQueriesRunning)
{
    discovery().StartQueryAllRecords();
    discovery().StopQueryRecords("Cam", "_http._tcp");
    EXPECT_TRUE(discovery().queryTimer.isActive());
}

TEST_F(RecordQueriesTest, EndOfAnotherResolveLeavesTheHeldResolverToStop)
{
    startLongLived();
    cameraFound("Other", "other.local", "10.0.0.2", 3);
    discovery().StopQueryRecords("Cam", "_http._tcp");
    EXPECT_EQ(takeCalls(), Lines{"service_resolver_free(resolver2)"});
}

TEST_F(RecordQueriesTest, RecordOfAnyKindIsReadAsAnIpv4Address)
{
    const unsigned char data[16] = {10, 0, 0, 2, 0xff};
    discovery().RecordBrowse(avahi.recordBrowser(), 9, AVAHI_PROTO_INET6, AVAHI_BROWSER_NEW, "cam.local", 255,
                             AVAHI_DNS_TYPE_AAAA, data, sizeof data, static_cast<AvahiLookupResultFlags>(0),
                             nullptr);
    EXPECT_EQ(takeSignals(), Lines{"address " + KNOWN + CAMERA + " addresses=[10.0.0.1,10.0.0.2]" + REST});
}

TEST_F(RecordQueriesTest, RemovalOfTheRemovedAddressIsSignalledAgain)
{
    record(1, AVAHI_BROWSER_REMOVE, "cam.local", "10.0.0.1");
    forgetAll();
    record(1, AVAHI_BROWSER_REMOVE, "cam.local", "10.0.0.1");
    EXPECT_EQ(takeSignals(),
              Lines{"address " + KNOWN + " addressRemoved=true" + CAMERA + " addresses=[10.0.0.1]" + REST});
}

TEST_F(RecordQueriesTest, HostNamesAreTakenAsTheyAreWritten)
{
    for (const char* host : {"cam.local.", "Cam.local", "cam"})
        record(1, AVAHI_BROWSER_NEW, host, "10.0.0.5");
    EXPECT_EQ(entry(), KNOWN + CAMERA + " addresses=[10.0.0.1]" + REST);
}

TEST_F(RecordQueriesTest, FailureWithoutABrowserIsLoggedWithTheClientsText)
{
    avahi.setError(AVAHI_ERR_DBUS_ERROR);
    discovery().RecordBrowse(nullptr, -1, -1, AVAHI_BROWSER_FAILURE, "cam.local", 1, 1, nullptr, 0,
                             static_cast<AvahiLookupResultFlags>(0), nullptr);
    EXPECT_EQ(takeLog(), (Lines{TRYING, PREFIX + "Avahi Browser error: " + avahi_strerror(AVAHI_ERR_DBUS_ERROR)}));
    EXPECT_EQ(takeCalls(), Lines{"client_errno(client1)"});
}
