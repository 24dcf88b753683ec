// SPDX-License-Identifier: MIT
#include "support/DiscoveryFixture.h"

class BrowseEventsTest : public DiscoveryTest
{
protected:
    BrowseEventsTest() { startBrowsing(); }

    void fire(int event, const char* name = "Cam")
    {
        avahi.fireBrowse(avahi.browser(), static_cast<AvahiBrowserEvent>(event), 3, AVAHI_PROTO_INET6, name,
                         "_http._tcp", "local");
    }
};

TEST_F(BrowseEventsTest, NewServiceIsLoggedAndResolvedOnItsInterface)
{
    fire(AVAHI_BROWSER_NEW);
    EXPECT_EQ(takeLog(),
              (Lines{"[1] AvahiServiceDiscovery::ServiceBrowse() -> Browsing: Cam type: _http._tcp domain: local",
                     "[1] AvahiServiceDiscovery::ResolveService () -> trying to resolve service: Cam"}));
    EXPECT_EQ(takeCalls(),
              Lines{"service_resolver_new(client1, 3, -1, \"Cam\", \"_http._tcp\", \"local\", -1, 2) = resolver1"});
}

TEST_F(BrowseEventsTest, KnownServiceIsResolvedAgain)
{
    cameraFound("Cam", "cam.local", "10.0.0.1");
    appears("Cam", "_http._tcp", 2);
    EXPECT_EQ(takeCalls(),
              Lines{"service_resolver_new(client1, 2, -1, \"Cam\", \"_http._tcp\", \"local\", -1, 2) = resolver2"});
}

TEST_F(BrowseEventsTest, ServiceOnTwoInterfacesIsResolvedOnEach)
{
    appears("Cam", "_http._tcp", 2);
    appears("Cam", "_http._tcp", 3);
    EXPECT_EQ(takeCalls(),
              (Lines{"service_resolver_new(client1, 2, -1, \"Cam\", \"_http._tcp\", \"local\", -1, 2) = resolver1",
                     "service_resolver_new(client1, 3, -1, \"Cam\", \"_http._tcp\", \"local\", -1, 2) = resolver2"}));
}

TEST_F(BrowseEventsTest, ServiceOfATypeThatIsIgnoredLaterIsResolvedToo)
{
    appears("Printer", "_ipp._tcp");
    EXPECT_EQ(takeCalls(),
              Lines{"service_resolver_new(client1, 2, -1, \"Printer\", \"_ipp._tcp\", \"local\", -1, 2) = resolver1"});
}

TEST_F(BrowseEventsTest, LosingAnUnknownServiceIsSilent)
{
    discovery().recordQueue.append(qMakePair(QStringLiteral("Cam"), QStringLiteral("_http._tcp")));
    disappears("Cam");
    EXPECT_EQ(takeLog(), Lines());
    EXPECT_EQ(takeSignals(), Lines());
    EXPECT_EQ(takeCalls(), Lines());
    EXPECT_EQ(table(), Lines());
    EXPECT_EQ(queue(), Lines{"Cam, _http._tcp"});
}

TEST_F(BrowseEventsTest, LosingAKnownServiceSignalsTheRecordAsItStood)
{
    cameraFound("Cam", "cam.local", "10.0.0.1");
    disappears("Cam");
    EXPECT_EQ(takeSignals(),
              Lines{"lost serviceType='_http._tcp' interfaceIndex=2 deviceKind=1 serviceName='Cam' "
                    "hostName='cam.local' recordHostName='cam.local' addresses=[10.0.0.1] serialNumber=66051 "
                    "txtChecksum="
                    + std::to_string(crcOf("ser_no.vandrel.com=\x01\x02\x03"))});
    EXPECT_EQ(takeLog(), Lines{"[1] AvahiServiceDiscovery::ServiceBrowse() -> removing service: Cam "
                               "type: _http._tcp domain: local"});
    EXPECT_EQ(takeCalls(), Lines());
}

TEST_F(BrowseEventsTest, LosingAServiceRemovesItsEntryItsHostAndItsQueueEntries)
{
    cameraFound("Cam", "cam.local", "10.0.0.1", 1);
    cameraFound("Cam", "cam.local", "10.0.0.1", 2);
    cameraFound("Other", "other.local", "10.0.0.2", 3);
    ASSERT_EQ(queue(), (Lines{"Cam, _http._tcp", "Cam, _http._tcp", "Other, _http._tcp"}));
    disappears("Cam");
    EXPECT_EQ(table().size(), 2u);
    EXPECT_TRUE(discovery().services.contains(QStringLiteral("Other")));
    EXPECT_TRUE(discovery().services.contains(QStringLiteral("other.local")));
    EXPECT_EQ(queue(), Lines{"Other, _http._tcp"});
}

TEST_F(BrowseEventsTest, EntriesAreStillThereDuringTheSignal)
{
    cameraFound("Cam", "cam.local", "10.0.0.1");
    Lines tableDuring;
    Lines queueDuring;
    Lines logDuring;
    inNextSlot([&] {
        tableDuring = table();
        queueDuring = queue();
        logDuring = takeLog();
    });
    disappears("Cam");
    EXPECT_EQ(tableDuring.size(), 2u);
    EXPECT_EQ(queueDuring, Lines{"Cam, _http._tcp"});
    EXPECT_EQ(logDuring.size(), 1u);
}

TEST_F(BrowseEventsTest, QueueEntriesOfAnotherTypeStay)
{
    cameraFound("Cam", "cam.local", "10.0.0.1");
    discovery().recordQueue.append(qMakePair(QStringLiteral("Cam"), QStringLiteral("_https._tcp")));
    disappears("Cam", "_http._tcp");
    EXPECT_EQ(queue(), Lines{"Cam, _https._tcp"});
}

TEST_F(BrowseEventsTest, LosingTheServiceOfAnotherTypeRemovesTheSharedEntry)
{
    cameraFound("Cam", "cam.local", "10.0.0.1");
    disappears("Cam", "_ipp._tcp");
    EXPECT_EQ(takeSignals().size(), 1u);
    EXPECT_EQ(table(), Lines());
    EXPECT_EQ(queue(), Lines{"Cam, _http._tcp"});
}

TEST_F(BrowseEventsTest, LosingADefaultEntrySignalsItAndRemovesAnEntryUnderTheEmptyKey)
{
    discovery().services[QStringLiteral("Printer")] = vd::SServiceInfo();
    discovery().services[QString()] = vd::SServiceInfo();
    disappears("Printer", "_ipp._tcp");
    EXPECT_EQ(takeSignals(), Lines{"lost "});
    EXPECT_EQ(takeLog(), Lines{"[1] AvahiServiceDiscovery::ServiceBrowse() -> removing service:  "
                               "type: _ipp._tcp domain: local"});
    EXPECT_EQ(table(), Lines());
}

TEST_F(BrowseEventsTest, ResolversAndRecordBrowsersOfALostServiceStay)
{
    const Txt noVendor = {"a=b"};
    appears("Cam");
    resolved(1, "Cam", "cam.local", "10.0.0.1", noVendor);
    appears("Cam");
    const Txt camera = {"ser_no.vandrel.com=\x01\x02\x03"};
    resolved(2, "Cam", "cam.local", "10.0.0.1", camera);
    takeCalls();
    disappears("Cam");
    EXPECT_EQ(takeCalls(), Lines());
    EXPECT_EQ(avahi.liveHandles(), (Lines{"client1", "browser1", "resolver1", "recordBrowser1"}));
}

TEST_F(BrowseEventsTest, CacheExhaustedIsOnlyLogged)
{
    fire(AVAHI_BROWSER_CACHE_EXHAUSTED, nullptr);
    EXPECT_EQ(takeLog(),
              Lines{"[1] AvahiServiceDiscovery::ServiceBrowse() -> cache exhausted - service restarting might help!"});
    EXPECT_EQ(takeCalls(), Lines());
}

TEST_F(BrowseEventsTest, AllForNowIsOnlyLogged)
{
    fire(AVAHI_BROWSER_ALL_FOR_NOW, nullptr);
    EXPECT_EQ(takeLog(), Lines{"[1] AvahiServiceDiscovery::ServiceBrowse() -> all for now"});
    EXPECT_EQ(takeCalls(), Lines());
}

TEST_F(BrowseEventsTest, FailureIsLoggedWithAvahisTextAndTheBrowserStays)
{
    avahi.setError(AVAHI_ERR_DBUS_ERROR);
    fire(AVAHI_BROWSER_FAILURE, nullptr);
    EXPECT_EQ(takeLog(), Lines{std::string("[1] AvahiServiceDiscovery::ServiceBrowse() -> Avahi Browser error: ")
                               + avahi_strerror(AVAHI_ERR_DBUS_ERROR)});
    EXPECT_EQ(takeCalls(), (Lines{"service_browser_get_client(browser1)", "client_errno(client1)"}));
    EXPECT_TRUE(discovery().IsBrowsing());
}

TEST_F(BrowseEventsTest, FailureTextIsNotFetchedWhenItIsNotLogged)
{
    vd::LogQt::setLogLevel(2);
    fire(AVAHI_BROWSER_FAILURE, nullptr);
    EXPECT_EQ(takeCalls(), Lines());
}

TEST_F(BrowseEventsTest, EventsWithoutAServiceChangeNothing)
{
    cameraFound("Cam", "cam.local", "10.0.0.1");
    const Lines before = table();
    for (const int event : {2, 3, 4, 5, 7, -1}) {
        fire(event, "Cam");
        EXPECT_EQ(table(), before) << event;
        EXPECT_EQ(queue(), Lines{"Cam, _http._tcp"}) << event;
        EXPECT_EQ(takeSignals(), Lines()) << event;
    }
    EXPECT_TRUE(discovery().IsBrowsing());
}

TEST_F(BrowseEventsTest, UndefinedEventDoesNothing)
{
    for (const int event : {5, 7, -1, 1000}) {
        fire(event);
        EXPECT_EQ(takeLog(), Lines()) << event;
        EXPECT_EQ(takeCalls(), Lines()) << event;
    }
}

TEST_F(BrowseEventsTest, HostileNameForgesNoLogLine)
{
    fire(AVAHI_BROWSER_NEW, "a\n[1] forged\x1b[2J");
    EXPECT_EQ(takeLog().front(), "[1] AvahiServiceDiscovery::ServiceBrowse() -> Browsing: a\\x0a[1] forged\\x1b[2J "
                                 "type: _http._tcp domain: local");
}

TEST_F(BrowseEventsTest, NewServiceIsResolvedInItsOwnDomain)
{
    avahi.fireBrowse(avahi.browser(), AVAHI_BROWSER_NEW, 3, AVAHI_PROTO_INET, "Cam", "_http._tcp", "example.org");
    EXPECT_EQ(takeCalls(), Lines{"service_resolver_new(client1, 3, -1, \"Cam\", \"_http._tcp\", \"example.org\", "
                                 "-1, 2) = resolver1"});
}

TEST_F(BrowseEventsTest, FlagsOfAnEventAreIgnored)
{
    for (const AvahiLookupResultFlags flags : {AVAHI_LOOKUP_RESULT_CACHED, AVAHI_LOOKUP_RESULT_LOCAL,
                                               AVAHI_LOOKUP_RESULT_OUR_OWN, AVAHI_LOOKUP_RESULT_STATIC}) {
        discovery().ServiceBrowse(avahi.browser(), 2, AVAHI_PROTO_INET, AVAHI_BROWSER_NEW, "Cam", "_http._tcp",
                                  "local", flags, nullptr);
        EXPECT_EQ(takeCalls().size(), 1u) << flags;
    }
}

TEST_F(BrowseEventsTest, HostileTypeAndDomainForgeNoLogLine)
{
    avahi.fireBrowse(avahi.browser(), AVAHI_BROWSER_NEW, 2, AVAHI_PROTO_INET, "Cam", "t\n[1]", "d\x1b[2J");
    EXPECT_EQ(takeLog().front(),
              "[1] AvahiServiceDiscovery::ServiceBrowse() -> Browsing: Cam type: t\\x0a[1] domain: d\\x1b[2J");
}

TEST_F(BrowseEventsTest, HostileLostServiceForgesNoLogLine)
{
    discovery().services[QStringLiteral("Cam")].serviceName = QStringLiteral("n\n[1]");
    avahi.fireBrowse(avahi.browser(), AVAHI_BROWSER_REMOVE, 2, AVAHI_PROTO_INET, "Cam", "t\n[1]", "d\x1b[2J");
    EXPECT_EQ(takeLog(), Lines{"[1] AvahiServiceDiscovery::ServiceBrowse() -> removing service: n\\x0a[1] "
                               "type: t\\x0a[1] domain: d\\x1b[2J"});
}

TEST_F(BrowseEventsTest, LosingAServiceTakesItsNameWithItsCase)
{
    cameraFound("Cam", "cam.local", "10.0.0.1");
    disappears("cam");
    EXPECT_EQ(takeSignals(), Lines());
    EXPECT_EQ(table().size(), 2u);
}

TEST_F(BrowseEventsTest, LosingAServiceInAnotherDomainOnAnotherInterfaceRemovesTheSharedEntry)
{
    cameraFound("Cam", "cam.local", "10.0.0.1");
    avahi.fireBrowse(avahi.browser(), AVAHI_BROWSER_REMOVE, 9, AVAHI_PROTO_INET6, "Cam", "_http._tcp",
                     "example.org");
    EXPECT_EQ(takeSignals().size(), 1u);
    EXPECT_EQ(table(), Lines());
    EXPECT_EQ(queue(), Lines());
}

TEST_F(BrowseEventsTest, HostEntryIsFoundByTheRecordHostName)
{
    cameraFound("Cam", "cam.local", "10.0.0.1");
    discovery().services[QStringLiteral("Cam")].hostName = QStringLiteral("other.local");
    discovery().services[QStringLiteral("other.local")] = vd::SServiceInfo();
    disappears("Cam");
    EXPECT_EQ(table(), Lines{"\"other.local\": "});
}

TEST_F(BrowseEventsTest, HostEntryIsTheOneThatTheRecordNamesAfterTheSignal)
{
    cameraFound("Cam", "cam.local", "10.0.0.1");
    discovery().services[QStringLiteral("other.local")] = vd::SServiceInfo();
    inNextSlot(
        [this] { discovery().services[QStringLiteral("Cam")].recordHostName = QStringLiteral("other.local"); });
    disappears("Cam");
    EXPECT_EQ(table(), Lines{"\"cam.local\": serviceName='Cam'"});
}

TEST_F(BrowseEventsTest, EntryThatIsGoneAfterTheSignalCountsAsADefaultOne)
{
    cameraFound("Cam", "cam.local", "10.0.0.1");
    discovery().services[QString()] = vd::SServiceInfo();
    inNextSlot([this] { discovery().services.remove(QStringLiteral("Cam")); });
    disappears("Cam");
    EXPECT_EQ(table(), Lines{"\"cam.local\": serviceName='Cam'"});
    EXPECT_EQ(queue(), Lines());
}

TEST_F(BrowseEventsTest, QueueEntriesOfOtherNamesStay)
{
    cameraFound("Cam", "cam.local", "10.0.0.1");
    for (const char* name : {"cam", "Can", "Dam", "am", "XCam", "Cam "})
        discovery().recordQueue.append(qMakePair(QString::fromLatin1(name), QStringLiteral("_http._tcp")));
    disappears("Cam");
    EXPECT_EQ(queue(), (Lines{"cam, _http._tcp", "Can, _http._tcp", "Dam, _http._tcp", "am, _http._tcp",
                              "XCam, _http._tcp", "Cam , _http._tcp"}));
}

TEST_F(BrowseEventsTest, FailureWithoutABrowserIsLoggedWithTheClientsText)
{
    avahi.setError(AVAHI_ERR_DBUS_ERROR);
    discovery().ServiceBrowse(nullptr, -1, -1, AVAHI_BROWSER_FAILURE, nullptr, nullptr, nullptr,
                              static_cast<AvahiLookupResultFlags>(0), nullptr);
    EXPECT_EQ(takeLog(), Lines{std::string("[1] AvahiServiceDiscovery::ServiceBrowse() -> Avahi Browser error: ")
                               + avahi_strerror(AVAHI_ERR_DBUS_ERROR)});
    EXPECT_EQ(takeCalls(), Lines{"client_errno(client1)"});
}
