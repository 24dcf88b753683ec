// SPDX-License-Identifier: MIT
#include "support/DiscoveryFixture.h"

namespace {

const std::string SERIAL = "ser_no.vandrel.com=\x01\x02\x03";
const std::string CRC = std::to_string(crcOf(SERIAL));
const std::string PREFIX = "[1] AvahiServiceDiscovery::ServiceResolve() -> ";

const char FOUND_CAMERA[] = "serviceType='_http._tcp' interfaceIndex=2 deviceKind=1 serviceName='Cam' "
                            "hostName='cam.local' recordHostName='cam.local' addresses=[10.0.0.1] "
                            "serialNumber=66051";

} // namespace

class ResolutionTest : public DiscoveryTest
{
protected:
    ResolutionTest() { startBrowsing(); }

    /** A new resolver, and what it took forgotten. */
    void resolve(const char* name, const char* type = "_http._tcp")
    {
        ASSERT_TRUE(discovery().ResolveService(2, name, type, "local"));
        forgetAll();
    }

    const Txt camera = {SERIAL};
    const Txt noVendor = {"path=/"};
};

TEST_F(ResolutionTest, RequestIsLoggedAndMadeOfTheGivenArguments)
{
    EXPECT_TRUE(discovery().ResolveService(5, "Cam", "_https._tcp", "example.org"));
    EXPECT_EQ(takeLog(), Lines{"[1] AvahiServiceDiscovery::ResolveService () -> trying to resolve service: Cam"});
    EXPECT_EQ(takeCalls(),
              Lines{"service_resolver_new(client1, 5, -1, \"Cam\", \"_https._tcp\", \"example.org\", -1, 2) = resolver1"});
}

TEST_F(ResolutionTest, UnspecifiedInterfaceIsHandedOverAsMinusOne)
{
    EXPECT_TRUE(discovery().ResolveService(0xffffffffu, "Cam", "_http._tcp", nullptr));
    EXPECT_EQ(takeCalls(),
              Lines{"service_resolver_new(client1, -1, -1, \"Cam\", \"_http._tcp\", null, -1, 2) = resolver1"});
}

TEST_F(ResolutionTest, RequestLeavesADefaultEntry)
{
    resolve("Cam");
    EXPECT_EQ(table(), Lines{"\"Cam\": "});
}

TEST_F(ResolutionTest, FailedRequestIsLoggedWithAvahisTextAndLeavesNoEntry)
{
    avahi.failNext("service_resolver_new", AVAHI_ERR_TOO_MANY_OBJECTS);
    EXPECT_FALSE(discovery().ResolveService(2, "Cam", "_http._tcp", "local"));
    EXPECT_EQ(takeLog(),
              (Lines{"[1] AvahiServiceDiscovery::ResolveService () -> trying to resolve service: Cam",
                     std::string("[1] AvahiServiceDiscovery::ResolveService() -> failed create AvahiServiceResolver "
                                 "Cam error: ")
                         + avahi_strerror(AVAHI_ERR_TOO_MANY_OBJECTS)}));
    EXPECT_EQ(takeCalls(),
              (Lines{"service_resolver_new(client1, 2, -1, \"Cam\", \"_http._tcp\", \"local\", -1, 2) = null",
                     "client_errno(client1)"}));
    EXPECT_EQ(table(), Lines());
}

TEST_F(ResolutionTest, ResolverOfALongLivedServiceIsKept)
{
    discovery().services[QStringLiteral("Cam")].longLiveQuery = true;
    resolve("Cam");
    EXPECT_EQ(discovery().longLiveResolver, avahi.resolver(1));
    resolve("Cam");
    EXPECT_EQ(discovery().longLiveResolver, avahi.resolver(2));
}

TEST_F(ResolutionTest, ResolverOfAnyOtherServiceIsNotKept)
{
    discovery().services[QStringLiteral("Other")].longLiveQuery = true;
    resolve("Cam");
    EXPECT_EQ(discovery().longLiveResolver, nullptr);
}

TEST_F(ResolutionTest, FailedRequestKeepsTheResolverThatIsHeld)
{
    discovery().services[QStringLiteral("Cam")].longLiveQuery = true;
    resolve("Cam");
    avahi.failNext("service_resolver_new", AVAHI_ERR_TOO_MANY_OBJECTS);
    discovery().ResolveService(2, "Cam", "_http._tcp", "local");
    EXPECT_EQ(discovery().longLiveResolver, avahi.resolver(1));
}

TEST_F(ResolutionTest, NewCameraIsFound)
{
    resolve("Cam");
    resolved(1, "Cam", "cam.local", "10.0.0.1", camera);
    EXPECT_EQ(takeSignals(), Lines{std::string("found ") + FOUND_CAMERA});
    EXPECT_EQ(takeLog(), (Lines{PREFIX + "resolving Vandrel service: Cam type: _http._tcp domain: local",
                                "[1] \t\tser_no_vandrel.com \\x01\\x02\\x03", PREFIX + "CHECKSUM " + CRC + "0"}));
    EXPECT_EQ(takeCalls(), (Lines{"record_browser_new(client1, 2, 0, \"cam.local\", 1, 1, 0) = recordBrowser1",
                                  "service_resolver_free(resolver1)"}));
    EXPECT_EQ(table(), (Lines{std::string("\"Cam\": ") + FOUND_CAMERA + " txtChecksum=" + CRC,
                              "\"cam.local\": serviceName='Cam'"}));
    EXPECT_EQ(queue(), Lines{"Cam, _http._tcp"});
}

TEST_F(ResolutionTest, TableDuringServiceFoundHasNeitherTheChecksumNorTheHostEntryNorTheQueueEntry)
{
    resolve("Cam");
    Lines tableDuring;
    Lines queueDuring;
    Lines callsDuring;
    inNextSlot([&] {
        tableDuring = table();
        queueDuring = queue();
        callsDuring = takeCalls();
    });
    resolved(1, "Cam", "cam.local", "10.0.0.1", camera);
    EXPECT_EQ(tableDuring, Lines{std::string("\"Cam\": ") + FOUND_CAMERA});
    EXPECT_EQ(queueDuring, Lines());
    EXPECT_EQ(callsDuring, Lines());
}

TEST_F(ResolutionTest, NewStorageServerIsFound)
{
    const std::string serial = "ser_no.snapserver.com=ABC";
    const Txt txt = {serial, "model.snapserver.com=Box"};
    resolve("Store", "_https._tcp");
    resolved(1, "Store", "store.local", "10.0.0.9", txt, "_https._tcp", 8443);
    const std::string record = "serviceType='_https._tcp' interfaceIndex=2 deviceKind=1024 serviceName='Store' "
                               "hostName='store.local' recordHostName='store.local' addresses=[10.0.0.9] port=8443 "
                               "https=true serialNumber=4276803 modelName='Box'";
    EXPECT_EQ(takeSignals(), Lines{"found " + record});
    EXPECT_EQ(takeLog(),
              (Lines{PREFIX + "resolving SNAP SERVER serviceStore type: _https._tcp domain: local",
                     "[1] \t\tser_no.snapserver.com ABC", "[1] TXTRecord parsed model.snapserver.com: Box",
                     PREFIX + "CHECKSUM " + std::to_string(crcOf(serial)) + "0"}));
    EXPECT_EQ(table().front(), "\"Store\": " + record + " txtChecksum=" + std::to_string(crcOf(serial)));
    EXPECT_EQ(queue(), Lines{"Store, _https._tcp"});
}

TEST_F(ResolutionTest, VandrelKeyWinsOverSnapServerKey)
{
    const Txt both = {"ser_no.snapserver.com=XYZ", SERIAL};
    resolve("Cam");
    resolved(1, "Cam", "cam.local", "10.0.0.1", both);
    EXPECT_EQ(discovery().services[QStringLiteral("Cam")].deviceKind, vd::DEVICE_KIND_VANDREL);
    EXPECT_EQ(discovery().services[QStringLiteral("Cam")].serialNumber, 0x010203u);
}

TEST_F(ResolutionTest, ABareSerialKeyTellsTheVendorToo)
{
    const Txt bare = {"SER_NO.VANDREL.COM"};
    resolve("Cam");
    resolved(1, "Cam", "cam.local", "10.0.0.1", bare);
    EXPECT_EQ(discovery().services[QStringLiteral("Cam")].deviceKind, vd::DEVICE_KIND_VANDREL);
    EXPECT_EQ(takeSignals().size(), 1u);
}

TEST_F(ResolutionTest, ServiceOfAnotherTypeLeavesADefaultEntryAndItsResolverIsFreed)
{
    int number = 0;
    for (const char* type : {"_ipp._tcp", "_axis-video._tcp", "_rtsp._tcp", "_http._tcp2", "_HTTP._tcp",
                             "_http._tc", "_https._udp", ""}) {
        SCOPED_TRACE(type);
        discovery().services.clear();
        resolve("Printer", type);
        ++number;
        resolved(number, "Printer", "printer.local", "10.0.0.3", camera, type);
        EXPECT_EQ(takeSignals(), Lines());
        EXPECT_EQ(takeLog(), Lines());
        EXPECT_EQ(takeCalls(), Lines{"service_resolver_free(resolver" + std::to_string(number) + ")"});
        EXPECT_EQ(table(), Lines{"\"Printer\": "});
        EXPECT_EQ(queue(), Lines());
    }
}

TEST_F(ResolutionTest, IgnoredServiceWithoutAnEntryGetsOne)
{
    resolve("Printer", "_ipp._tcp");
    discovery().services.clear();
    resolved(1, "Printer", "printer.local", "10.0.0.3", camera, "_ipp._tcp");
    EXPECT_EQ(table(), Lines{"\"Printer\": "});
}

TEST_F(ResolutionTest, WebServiceWithoutAVendorKeyGetsItsBasicFieldsAndKeepsItsResolver)
{
    resolve("Axis");
    resolved(1, "Axis", "axis.local", "10.0.0.4", noVendor, "_http._tcp", 8080);
    EXPECT_EQ(takeLog(), (Lines{PREFIX + "resolving AXIS service: Axis type: _http._tcp domain: local",
                                "[1] BTW: not yet implemented!"}));
    EXPECT_EQ(takeSignals(), Lines());
    EXPECT_EQ(takeCalls(), Lines());
    EXPECT_EQ(table(), Lines{"\"Axis\": serviceType='_http._tcp' interfaceIndex=2 serviceName='Axis' "
                             "hostName='axis.local' recordHostName='axis.local' port=8080"});
    EXPECT_EQ(queue(), Lines());
}

TEST_F(ResolutionTest, WebServiceWithoutATxtRecordIsTreatedAsOneWithoutAVendorKey)
{
    resolve("Axis", "_https._tcp");
    resolved(1, "Axis", "axis.local", "10.0.0.4", nullptr, "_https._tcp", 443);
    EXPECT_EQ(takeLog(), (Lines{PREFIX + "resolving AXIS service: Axis type: _https._tcp domain: local",
                                "[1] BTW: not yet implemented!"}));
    EXPECT_EQ(table(), Lines{"\"Axis\": serviceType='_https._tcp' interfaceIndex=2 serviceName='Axis' "
                             "hostName='axis.local' recordHostName='axis.local' port=443 https=true"});
}

TEST_F(ResolutionTest, LosingTheVendorKeyKeepsTheKind)
{
    cameraFound("Cam", "cam.local", "10.0.0.1");
    resolve("Cam");
    resolved(2, "Cam", "cam.local", "10.0.0.1", noVendor);
    EXPECT_EQ(discovery().services[QStringLiteral("Cam")].deviceKind, vd::DEVICE_KIND_VANDREL);
}

TEST_F(ResolutionTest, CameraWithoutAnAddressIsLoggedAsSeriousAndKeepsItsResolver)
{
    resolve("Cam");
    vd::LogQt::setLogLevel(4);
    resolved(1, "Cam", "cam.local", nullptr, camera);
    EXPECT_EQ(takeLog(), Lines{"[4] AvahiServiceDiscovery::ServiceResolve() -> resolved service without Ip-Address"});
    EXPECT_EQ(takeSignals(), Lines());
    EXPECT_EQ(takeCalls(), Lines());
    EXPECT_EQ(queue(), Lines());
    EXPECT_EQ(table(), Lines{"\"Cam\": serviceType='_http._tcp' interfaceIndex=2 deviceKind=1 serviceName='Cam' "
                             "hostName='cam.local' recordHostName='cam.local' serialNumber=66051"});
}

TEST_F(ResolutionTest, MissingAddressIsNotLoggedAboveTheThreshold)
{
    resolve("Cam");
    vd::LogQt::setLogLevel(5);
    resolved(1, "Cam", "cam.local", nullptr, camera);
    EXPECT_EQ(takeLog(), Lines());
}

TEST_F(ResolutionTest, SameAddressAndTextSignalNothing)
{
    cameraFound("Cam", "cam.local", "10.0.0.1");
    resolve("Cam");
    resolved(2, "Cam", "cam.local", "10.0.0.1", camera);
    EXPECT_EQ(takeSignals(), Lines());
    EXPECT_EQ(takeLog().back(), PREFIX + "CHECKSUM " + CRC + CRC);
}

TEST_F(ResolutionTest, ChangedHeadOfTheTextIsSignalledWithItsChecksum)
{
    cameraFound("Cam", "cam.local", "10.0.0.1");
    resolve("Cam");
    const std::string head = "ser_no.vandrel.com=\x01\x02\x04";
    resolved(2, "Cam", "cam.local", "10.0.0.1", Txt{head, "full_name.vandrel.com=New"});
    EXPECT_EQ(takeSignals(),
              Lines{"text serviceType='_http._tcp' interfaceIndex=2 deviceKind=1 serviceName='Cam' hostName='cam.local' "
                    "recordHostName='cam.local' addresses=[10.0.0.1] serialNumber=66052 modelName='New' txtChecksum="
                    + std::to_string(crcOf(head))});
    EXPECT_EQ(takeLog().back(), PREFIX + "CHECKSUM " + std::to_string(crcOf(head)) + CRC);
}

TEST_F(ResolutionTest, ChangeBehindTheHeadIsReadButNotSignalled)
{
    cameraFound("Cam", "cam.local", "10.0.0.1");
    resolve("Cam");
    resolved(2, "Cam", "cam.local", "10.0.0.1", Txt{SERIAL, "full_name.vandrel.com=New"});
    EXPECT_EQ(takeSignals(), Lines());
    EXPECT_EQ(discovery().services[QStringLiteral("Cam")].modelName, QLatin1String("New"));
}

TEST_F(ResolutionTest, ChecksumIsOverTheHeadsBytesIncludingNul)
{
    const std::string head("ser_no.vandrel.com=\0\xc1\xff", 22);
    resolve("Cam");
    resolved(1, "Cam", "cam.local", "10.0.0.1", Txt{head});
    EXPECT_EQ(discovery().services[QStringLiteral("Cam")].txtChecksum, crcOf(head));
}

TEST_F(ResolutionTest, NewAddressIsAppendedAndSignalledAndTheChecksumStays)
{
    cameraFound("Cam", "cam.local", "10.0.0.1");
    resolve("Cam");
    const Txt changed = {"ser_no.vandrel.com=\x01\x02\x04"};
    resolved(2, "Cam", "cam.local", "10.0.0.2", changed);
    const std::string record = "serviceType='_http._tcp' interfaceIndex=2 deviceKind=1 serviceName='Cam' "
                               "hostName='cam.local' recordHostName='cam.local' addresses=[10.0.0.1,10.0.0.2] "
                               "serialNumber=66052 txtChecksum=" + CRC;
    EXPECT_EQ(takeSignals(), Lines{"address " + record});
    EXPECT_EQ(table().front(), "\"Cam\": " + record);

    resolve("Cam");
    resolved(3, "Cam", "cam.local", "10.0.0.2", changed);
    const Lines signalled = takeSignals();
    ASSERT_EQ(signalled.size(), 1u);
    EXPECT_EQ(signalled.front().substr(0, 5), "text ");
}

TEST_F(ResolutionTest, AddressRemovedMarkIsLeftToTheAddressRecords)
{
    cameraFound("Cam", "cam.local", "10.0.0.1");
    discovery().services[QStringLiteral("Cam")].addressRemoved = true;
    resolve("Cam");
    resolved(2, "Cam", "cam.local", "10.0.0.2", camera);
    EXPECT_TRUE(discovery().services[QStringLiteral("Cam")].addressRemoved);
}

TEST_F(ResolutionTest, AnIpv6AddressIsTakenAsAvahiPrintsIt)
{
    resolve("Cam");
    resolved(1, "Cam", "cam.local", "fe80::77:2", camera);
    EXPECT_EQ(discovery().services[QStringLiteral("Cam")].addresses, QStringList(QStringLiteral("fe80::77:2")));
}

TEST_F(ResolutionTest, LongestAddressFits)
{
    resolve("Cam");
    const char longest[] = "1111:2222:3333:4444:5555:6666:7777:8888";
    resolved(1, "Cam", "cam.local", longest, camera);
    EXPECT_EQ(discovery().services[QStringLiteral("Cam")].addresses, QStringList(QString::fromLatin1(longest)));
}

TEST_F(ResolutionTest, AddressOfNoKnownFamilyGivesAnEmptyText)
{
    resolve("Cam");
    AvahiAddress address = AvahiAddress();
    address.proto = AVAHI_PROTO_UNSPEC;
    avahi.fireResolve(avahi.resolver(), AVAHI_RESOLVER_FOUND, 2, AVAHI_PROTO_INET, "Cam", "_http._tcp", "local",
                      "cam.local", &address, 80, camera);
    EXPECT_EQ(discovery().services[QStringLiteral("Cam")].addresses, QStringList(QString()));
}

TEST_F(ResolutionTest, EveryResolveQueuesAnotherPairAndOpensAnotherRecordBrowser)
{
    for (int i = 1; i <= 3; ++i) {
        resolve("Cam");
        resolved(i, "Cam", "cam.local", "10.0.0.1", camera);
        EXPECT_EQ(takeCalls(),
                  (Lines{"record_browser_new(client1, 2, 0, \"cam.local\", 1, 1, 0) = recordBrowser" + std::to_string(i),
                         "service_resolver_free(resolver" + std::to_string(i) + ")"}));
    }
    EXPECT_EQ(queue(), (Lines{"Cam, _http._tcp", "Cam, _http._tcp", "Cam, _http._tcp"}));
}

TEST_F(ResolutionTest, RecordBrowserIsOpenedOnTheInterfaceAndProtocolOfTheAnswer)
{
    resolve("Cam");
    AvahiAddress address;
    ASSERT_TRUE(avahi_address_parse("10.0.0.1", AVAHI_PROTO_INET, &address));
    avahi.fireResolve(avahi.resolver(), AVAHI_RESOLVER_FOUND, 7, AVAHI_PROTO_INET6, "Cam", "_http._tcp", "local",
                      "cam.local", &address, 80, camera);
    EXPECT_EQ(takeCalls().front(), "record_browser_new(client1, 7, 1, \"cam.local\", 1, 1, 0) = recordBrowser1");
    EXPECT_EQ(discovery().services[QStringLiteral("Cam")].interfaceIndex, 7);
}

TEST_F(ResolutionTest, FailedRecordBrowserIsLoggedAndTheRestGoesOn)
{
    resolve("Cam");
    avahi.failNext("record_browser_new", AVAHI_ERR_TOO_MANY_OBJECTS);
    resolved(1, "Cam", "cam.local", "10.0.0.1", camera);
    EXPECT_EQ(takeLog().back(),
              PREFIX + "failed to create record browser Cam error: " + avahi_strerror(AVAHI_ERR_TOO_MANY_OBJECTS));
    EXPECT_EQ(takeCalls(), (Lines{"record_browser_new(client1, 2, 0, \"cam.local\", 1, 1, 0) = null",
                                  "client_errno(client1)", "service_resolver_free(resolver1)"}));
    EXPECT_EQ(queue(), Lines{"Cam, _http._tcp"});
}

TEST_F(ResolutionTest, LongLivedServiceKeepsItsResolverAndNotesItsRecordBrowser)
{
    discovery().services[QStringLiteral("Cam")].longLiveQuery = true;
    resolve("Cam");
    resolved(1, "Cam", "cam.local", "10.0.0.1", camera);
    EXPECT_EQ(takeCalls(), Lines{"record_browser_new(client1, 2, 0, \"cam.local\", 1, 1, 0) = recordBrowser1"});
    EXPECT_EQ(discovery().longLiveRecordBrowser, avahi.recordBrowser(1));
    EXPECT_EQ(discovery().longLiveResolver, avahi.resolver(1));
}

TEST_F(ResolutionTest, LongLivedServiceNotesEvenAFailedRecordBrowser)
{
    discovery().services[QStringLiteral("Cam")].longLiveQuery = true;
    resolve("Cam");
    resolved(1, "Cam", "cam.local", "10.0.0.1", camera);
    avahi.failNext("record_browser_new", AVAHI_ERR_TOO_MANY_OBJECTS);
    resolved(1, "Cam", "cam.local", "10.0.0.1", camera);
    EXPECT_EQ(discovery().longLiveRecordBrowser, nullptr);
}

TEST_F(ResolutionTest, RecordBrowserOfAnyOtherServiceIsNotNoted)
{
    cameraFound("Cam", "cam.local", "10.0.0.1");
    EXPECT_EQ(discovery().longLiveRecordBrowser, nullptr);
}

TEST_F(ResolutionTest, HostEntryIsReplacedWhole)
{
    discovery().services[QStringLiteral("cam.local")].modelName = QStringLiteral("left over");
    cameraFound("Cam", "cam.local", "10.0.0.1");
    EXPECT_EQ(table().back(), "\"cam.local\": serviceName='Cam'");
    const vd::SServiceInfo hostEntry = discovery().services[QStringLiteral("cam.local")];
    EXPECT_TRUE(hostEntry.serviceType.isEmpty());
    EXPECT_EQ(hostEntry.deviceKind, 0u);
    EXPECT_EQ(hostEntry.port, 80);
}

TEST_F(ResolutionTest, HostOfTheSamePointerAsTheNameGetsNoEntry)
{
    resolve("cam.local");
    const char* const shared = "cam.local";
    resolved(1, shared, shared, "10.0.0.1", camera);
    ASSERT_EQ(table().size(), 1u);
    EXPECT_EQ(discovery().services[QStringLiteral("cam.local")].deviceKind, vd::DEVICE_KIND_VANDREL);
}

TEST_F(ResolutionTest, HostOfTheSameTextAsTheNameReplacesTheService)
{
    const std::string name = "cam.local";
    const std::string host = "cam.local";
    resolve(name.c_str());
    resolved(1, name.c_str(), host.c_str(), "10.0.0.1", camera);
    EXPECT_EQ(table(), Lines{"\"cam.local\": serviceName='cam.local'"});
}

TEST_F(ResolutionTest, TimeoutIsLoggedAndFreesTheResolver)
{
    resolve("Cam");
    resolveFails(1, "Cam", AVAHI_ERR_TIMEOUT);
    EXPECT_EQ(takeLog(), Lines{PREFIX + "failed to resolve service: Cam type: _http._tcp domain: local error: "
                               + avahi_strerror(AVAHI_ERR_TIMEOUT)});
    EXPECT_EQ(takeCalls(), (Lines{"client_errno(client1)", "client_errno(client1)", "service_resolver_free(resolver1)"}));
    EXPECT_EQ(takeSignals(), Lines());
    EXPECT_EQ(table(), Lines{"\"Cam\": "});
}

TEST_F(ResolutionTest, TimeoutOfALongLivedServiceKeepsTheResolver)
{
    discovery().services[QStringLiteral("Cam")].longLiveQuery = true;
    resolve("Cam");
    resolveFails(1, "Cam", AVAHI_ERR_TIMEOUT);
    EXPECT_EQ(takeCalls(), (Lines{"client_errno(client1)", "client_errno(client1)"}));
}

TEST_F(ResolutionTest, TimeoutLeavesTheRecordOfAKnownService)
{
    cameraFound("Cam", "cam.local", "10.0.0.1");
    const Lines before = table();
    resolve("Cam");
    resolveFails(2, "Cam", AVAHI_ERR_TIMEOUT);
    EXPECT_EQ(table(), before);
    EXPECT_EQ(queue(), Lines{"Cam, _http._tcp"});
}

TEST_F(ResolutionTest, TimeoutOfAHostThatHasAnEntryGoesOnAsIfResolved)
{
    cameraFound("Cam", "cam.local", "10.0.0.1");
    resolve("Cam");
    resolveFails(2, "Cam", AVAHI_ERR_TIMEOUT, "_http._tcp", "cam.local");
    EXPECT_EQ(takeLog().back(), "[1] BTW: not yet implemented!");
    EXPECT_EQ(discovery().services[QStringLiteral("Cam")].port, 0);
    EXPECT_EQ(takeCalls(), (Lines{"client_errno(client1)", "client_errno(client1)"}));
}

TEST_F(ResolutionTest, TimeoutWithoutAHostGoesOnWhenTheEmptyKeyHasAnEntry)
{
    discovery().services[QString()] = vd::SServiceInfo();
    resolve("Cam");
    resolveFails(1, "Cam", AVAHI_ERR_TIMEOUT);
    EXPECT_EQ(takeLog().back(), "[1] BTW: not yet implemented!");
}

TEST_F(ResolutionTest, AnyOtherFailureOfAWebServiceEmptiesItsBasicFieldsAndEndsAsWithoutAVendorKey)
{
    cameraFound("Cam", "cam.local", "10.0.0.1");
    resolve("Cam");
    resolveFails(2, "Cam", AVAHI_ERR_NOT_FOUND);
    EXPECT_EQ(takeLog(), (Lines{PREFIX + "failed to resolve service: Cam type: _http._tcp domain: local error: "
                                    + avahi_strerror(AVAHI_ERR_NOT_FOUND),
                                PREFIX + "resolving AXIS service: Cam type: _http._tcp domain: local",
                                "[1] BTW: not yet implemented!"}));
    EXPECT_EQ(takeSignals(), Lines());
    EXPECT_EQ(takeCalls(), (Lines{"client_errno(client1)", "client_errno(client1)"}));
    EXPECT_EQ(table().front(), "\"Cam\": serviceType='_http._tcp' interfaceIndex=2 deviceKind=1 serviceName='Cam' "
                               "addresses=[10.0.0.1] port=0 serialNumber=66051 txtChecksum=" + CRC);
    EXPECT_TRUE(discovery().services[QStringLiteral("Cam")].hostName.isNull());
}

TEST_F(ResolutionTest, AnyOtherFailureOfAnIgnoredTypeFreesTheResolver)
{
    resolve("Printer", "_ipp._tcp");
    resolveFails(1, "Printer", AVAHI_ERR_NOT_FOUND, "_ipp._tcp");
    EXPECT_EQ(takeCalls(), (Lines{"client_errno(client1)", "client_errno(client1)", "service_resolver_free(resolver1)"}));
}

TEST_F(ResolutionTest, FailureTextIsNotFetchedWhenItIsNotLogged)
{
    resolve("Cam");
    vd::LogQt::setLogLevel(2);
    resolveFails(1, "Cam", AVAHI_ERR_TIMEOUT);
    EXPECT_EQ(takeCalls(), (Lines{"client_errno(client1)", "service_resolver_free(resolver1)"}));
}

TEST_F(ResolutionTest, UndefinedEventCountsAsFound)
{
    resolve("Cam");
    // What a failure would be taken for.
    avahi.setError(AVAHI_ERR_TIMEOUT);
    AvahiAddress address;
    ASSERT_TRUE(avahi_address_parse("10.0.0.1", AVAHI_PROTO_INET, &address));
    volatile int undefined = 3;
    avahi.fireResolve(avahi.resolver(), static_cast<AvahiResolverEvent>(undefined), 2, AVAHI_PROTO_INET, "Cam", "_http._tcp",
                      "local", "cam.local", &address, 80, camera);
    EXPECT_EQ(takeSignals(), Lines{std::string("found ") + FOUND_CAMERA});
}

TEST_F(ResolutionTest, ChecksumsAreLoggedAsDecimalNumbersBackToBack)
{
    cameraFound("Cam", "cam.local", "10.0.0.1");
    discovery().services[QStringLiteral("Cam")].txtChecksum = 0xffff;
    resolve("Cam");
    resolved(2, "Cam", "cam.local", "10.0.0.1", camera);
    EXPECT_EQ(takeLog().back(), PREFIX + "CHECKSUM " + CRC + "65535");
}

TEST_F(ResolutionTest, FailedRequestsTextIsNotFetchedWhenItIsNotLogged)
{
    vd::LogQt::setLogLevel(2);
    avahi.failNext("service_resolver_new", AVAHI_ERR_TOO_MANY_OBJECTS);
    discovery().ResolveService(2, "Cam", "_http._tcp", "local");
    EXPECT_EQ(takeCalls(),
              Lines{"service_resolver_new(client1, 2, -1, \"Cam\", \"_http._tcp\", \"local\", -1, 2) = null"});
}

TEST_F(ResolutionTest, FailedRecordBrowsersTextIsNotFetchedWhenItIsNotLogged)
{
    resolve("Cam");
    vd::LogQt::setLogLevel(2);
    avahi.failNext("record_browser_new", AVAHI_ERR_TOO_MANY_OBJECTS);
    resolved(1, "Cam", "cam.local", "10.0.0.1", camera);
    EXPECT_EQ(takeCalls(), (Lines{"record_browser_new(client1, 2, 0, \"cam.local\", 1, 1, 0) = null",
                                  "service_resolver_free(resolver1)"}));
}

TEST_F(ResolutionTest, KeepingAnotherResolverFreesNone)
{
    discovery().services[QStringLiteral("Cam")].longLiveQuery = true;
    resolve("Cam");
    discovery().ResolveService(2, "Cam", "_http._tcp", "local");
    EXPECT_EQ(takeCalls(),
              Lines{
                  "service_resolver_new(client1, 2, -1, \"Cam\", \"_http._tcp\", \"local\", -1, 2) = resolver2"});
}

TEST_F(ResolutionTest, LongLivedServiceOfAnotherTypeKeepsItsResolver)
{
    discovery().services[QStringLiteral("Printer")].longLiveQuery = true;
    resolve("Printer", "_ipp._tcp");
    resolved(1, "Printer", "printer.local", "10.0.0.3", camera, "_ipp._tcp");
    EXPECT_EQ(takeCalls(), Lines());
}

TEST_F(ResolutionTest, HttpsFollowsTheTypeAndNotThePort)
{
    resolve("Cam", "_https._tcp");
    resolved(1, "Cam", "cam.local", "10.0.0.1", camera, "_https._tcp", 8443);
    EXPECT_TRUE(discovery().services[QStringLiteral("Cam")].https);
    resolve("Cam");
    resolved(2, "Cam", "cam.local", "10.0.0.1", camera, "_http._tcp", 443);
    EXPECT_FALSE(discovery().services[QStringLiteral("Cam")].https);
}

TEST_F(ResolutionTest, KindIsReplacedWhenTheVendorChanges)
{
    cameraFound("Cam", "cam.local", "10.0.0.1");
    resolve("Cam");
    resolved(2, "Cam", "cam.local", "10.0.0.1", Txt{"ser_no.snapserver.com=ABC"});
    EXPECT_EQ(discovery().services[QStringLiteral("Cam")].deviceKind, vd::DEVICE_KIND_SNAP_SERVER);
}

TEST_F(ResolutionTest, FlagsOfAnAnswerAreIgnored)
{
    resolve("Cam");
    AvahiAddress address;
    ASSERT_TRUE(avahi_address_parse("10.0.0.1", AVAHI_PROTO_INET, &address));
    discovery().ServiceResolve(avahi.resolver(), 2, AVAHI_PROTO_INET, AVAHI_RESOLVER_FOUND, "Cam", "_http._tcp",
                               "local", "cam.local", &address, 80, camera, AVAHI_LOOKUP_RESULT_CACHED, nullptr);
    EXPECT_EQ(takeSignals(), Lines{std::string("found ") + FOUND_CAMERA});
}

TEST_F(ResolutionTest, ChecksumsAreLoggedBeforeTheSignal)
{
    resolve("Cam");
    Lines during;
    inNextSlot([&] { during = takeLog(); });
    resolved(1, "Cam", "cam.local", "10.0.0.1", camera);
    ASSERT_FALSE(during.empty());
    EXPECT_EQ(during.back(), PREFIX + "CHECKSUM " + CRC + "0");
}

TEST_F(ResolutionTest, TableThatASlotCopiesStaysAsItWas)
{
    resolve("Cam");
    QMap<QString, vd::SServiceInfo> copy;
    inNextSlot([&] { copy = discovery().services; });
    resolved(1, "Cam", "cam.local", "10.0.0.1", camera);
    EXPECT_EQ(copy.value(QStringLiteral("Cam")).txtChecksum, 0);
    EXPECT_EQ(discovery().services.value(QStringLiteral("Cam")).txtChecksum, crcOf(SERIAL));
}

TEST_F(ResolutionTest, AddressRemovedMarkIsLeftAtTheFirstAddressToo)
{
    discovery().services[QStringLiteral("Cam")].addressRemoved = true;
    resolve("Cam");
    resolved(1, "Cam", "cam.local", "10.0.0.1", camera);
    EXPECT_TRUE(discovery().services[QStringLiteral("Cam")].addressRemoved);
}

TEST_F(ResolutionTest, AddressesAreComparedWithTheirCase)
{
    discovery().services[QStringLiteral("Cam")].addresses << QStringLiteral("FE80::77:2");
    resolve("Cam");
    resolved(1, "Cam", "cam.local", "fe80::77:2", camera);
    EXPECT_EQ(discovery().services[QStringLiteral("Cam")].addresses,
              (QStringList{QStringLiteral("FE80::77:2"), QStringLiteral("fe80::77:2")}));
}

TEST_F(ResolutionTest, HostileNameOfARequestForgesNoLogLine)
{
    avahi.failNext("service_resolver_new", AVAHI_ERR_TOO_MANY_OBJECTS);
    discovery().ResolveService(2, "n\n[1]", "_http._tcp", "local");
    EXPECT_EQ(takeLog(),
              (Lines{"[1] AvahiServiceDiscovery::ResolveService () -> trying to resolve service: n\\x0a[1]",
                     std::string("[1] AvahiServiceDiscovery::ResolveService() -> failed create "
                                 "AvahiServiceResolver n\\x0a[1] error: ")
                         + avahi_strerror(AVAHI_ERR_TOO_MANY_OBJECTS)}));
}

TEST_F(ResolutionTest, HostileFailureForgesNoLogLine)
{
    resolve("n\n[1]");
    avahi.setError(AVAHI_ERR_TIMEOUT);
    avahi.fireResolve(avahi.resolver(), AVAHI_RESOLVER_FAILURE, 2, AVAHI_PROTO_INET, "n\n[1]", "t\n[1]",
                      "d\x1b[2J", nullptr, nullptr, 0, nullptr);
    EXPECT_EQ(takeLog(),
              Lines{PREFIX + "failed to resolve service: n\\x0a[1] type: t\\x0a[1] domain: d\\x1b[2J error: "
                    + avahi_strerror(AVAHI_ERR_TIMEOUT)});
}

TEST_F(ResolutionTest, HostileAnswerForgesNoLogLine)
{
    AvahiAddress address;
    ASSERT_TRUE(avahi_address_parse("10.0.0.1", AVAHI_PROTO_INET, &address));
    resolve("n\n[1]");
    avahi.failNext("record_browser_new", AVAHI_ERR_TOO_MANY_OBJECTS);
    avahi.fireResolve(avahi.resolver(), AVAHI_RESOLVER_FOUND, 2, AVAHI_PROTO_INET, "n\n[1]", "_http._tcp",
                      "d\x1b[2J", "cam.local", &address, 80, camera);
    const Lines logged = takeLog();
    EXPECT_EQ(logged.front(), PREFIX + "resolving Vandrel service: n\\x0a[1] type: _http._tcp domain: d\\x1b[2J");
    EXPECT_EQ(logged.back(), PREFIX + "failed to create record browser n\\x0a[1] error: "
                                 + avahi_strerror(AVAHI_ERR_TOO_MANY_OBJECTS));
}
