// SPDX-License-Identifier: MIT
#include "support/DiscoveryFixture.h"

#include <QtCore/QCoreApplication>
#include <QtCore/QElapsedTimer>
#include <QtCore/QTemporaryDir>
#include <QtCore/QThread>
#include <QtCore/QVariant>

#include <algorithm>
#include <fstream>

namespace {

const std::string SERIAL = "ser_no.vandrel.com=\x01\x02\x03";
const char HTTP[] = "_http._tcp";
const char HTTPS[] = "_https._tcp";

// All members of a camera's record but its addresses and its text.
std::string camera(const std::string& name, const std::string& host, const std::string& rest,
                   const std::string& before = "")
{
    return "serviceType='_http._tcp' interfaceIndex=2 " + before + "deviceKind=1 serviceName='" + name + "' hostName='"
           + host + "' recordHostName='" + host + "' " + rest;
}

} // namespace

class ManagedTest : public ManagedDiscoveryTest
{
protected:
    const Txt cameraTxt = {SERIAL};
    const std::string known
        = "serialNumber=66051 txtChecksum=" + std::to_string(crcOf(SERIAL));

    /** Runs what waits for the event loop. */
    void turn(int milliseconds = 0)
    {
        QElapsedTimer waited;
        waited.start();
        do {
            QCoreApplication::processEvents();
            QCoreApplication::processEvents();
            if (milliseconds)
                QThread::msleep(1);
        } while (waited.elapsed() < milliseconds);
    }

    /** A running daemon, as libavahi-client tells of it. */
    void daemonRuns()
    {
        avahi.duringClientNew([this](AvahiClient*) { avahi.fireClientState(AVAHI_CLIENT_S_RUNNING, ++m_clients); });
    }

    void daemonIsAway()
    {
        avahi.duringClientNew([this](AvahiClient*) { avahi.fireClientState(AVAHI_CLIENT_CONNECTING, ++m_clients); });
    }

    void run(const char* type = HTTP)
    {
        daemonRuns();
        startBrowsing(type);
    }

    void appearsOn(const char* name, int interface, int protocol = AVAHI_PROTO_INET, const char* type = HTTP,
                   int browser = 1)
    {
        avahi.fireBrowse(avahi.browser(browser), AVAHI_BROWSER_NEW, interface, protocol, name, type, "local");
    }

    void disappearsOn(const char* name, int interface, int protocol = AVAHI_PROTO_INET, const char* type = HTTP,
                      int browser = 1)
    {
        avahi.fireBrowse(avahi.browser(browser), AVAHI_BROWSER_REMOVE, interface, protocol, name, type, "local");
    }

    /** A camera found, its addresses complete, and all that was written down forgotten. */
    void found(const char* name = "Cam", const char* host = "cam.local", const char* address = "10.0.0.1", int number = 1)
    {
        appears(name);
        turn();
        resolved(number, name, host, address, cameraTxt);
        record(number, AVAHI_BROWSER_NEW, host, address);
        record(number, AVAHI_BROWSER_ALL_FOR_NOW, host, nullptr);
        forgetAll();
    }

    static std::string camName(int number) { return "Cam" + std::to_string(number); }

    /** Answers every resolver that was made since the calls were asked for last; returns the names of its services. */
    Lines answerResolvers()
    {
        Lines names;
        for (const std::string& call : takeCalls()) {
            if (call.rfind("service_resolver_new", 0) != 0)
                continue;
            const size_t begin = call.find('"') + 1;
            names.push_back(call.substr(begin, call.find('"', begin) - begin));
            resolved(std::stoi(call.substr(call.rfind("resolver") + 8)), names.back().c_str(), "cam.local", "10.0.0.1",
                     cameraTxt);
            const Lines live = avahi.liveHandles();
            for (const std::string& handle : live) {
                if (handle.rfind("recordBrowser", 0) == 0)
                    record(std::stoi(handle.substr(13)), AVAHI_BROWSER_ALL_FOR_NOW, "cam.local", nullptr);
            }
        }
        return names;
    }

    int liveCount(const std::string& kind) const
    {
        int count = 0;
        for (const std::string& handle : avahi.liveHandles())
            count += handle.rfind(kind, 0) == 0 ? 1 : 0;
        return count;
    }

    int liveClient() const { return std::stoi(avahi.liveHandles().front().substr(6)); }

    void failClient(int number = 1) { avahi.fireClientState(AVAHI_CLIENT_FAILURE, number); }

    Lines signalsOf(const std::function<void()>& action)
    {
        takeSignals();
        action();
        return takeSignals();
    }

private:
    int m_clients = 0;
};

// What it does as the class that it stands in for.

TEST_F(ManagedTest, FoundDeviceIsSignalledAndHoldsNothingOpen)
{
    run();
    appears("Cam");
    EXPECT_EQ(takeCalls(), Lines());
    turn();
    EXPECT_EQ(takeCalls(), Lines{"service_resolver_new(client1, -1, -1, \"Cam\", \"_http._tcp\", \"local\", 0, 2) = "
                                 "resolver1"});
    resolved(1, "Cam", "cam.local", "10.0.0.1", cameraTxt);
    EXPECT_EQ(takeSignals(), Lines{"found " + camera("Cam", "cam.local", "addresses=[10.0.0.1] " + known)});
    EXPECT_EQ(takeCalls(), (Lines{"service_resolver_free(resolver1)",
                                  "record_browser_new(client1, -1, -1, \"cam.local\", 1, 1, 0) = recordBrowser1"}));
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
    run();
    discovery().BrowseServices(HTTPS);
    found();
    appearsOn("Cam", 2, AVAHI_PROTO_INET, HTTPS, 2);
    turn();
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
              "service_resolver_new(client1, -1, -1, \"Cam\", \"_https._tcp\", \"local\", 0, 2) = resolver3");
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
    record(2, AVAHI_BROWSER_NEW, "cam.local", "10.0.0.2");
    record(2, AVAHI_BROWSER_ALL_FOR_NOW, "cam.local", nullptr);
    EXPECT_EQ(takeSignals(),
              Lines{"address " + camera("Cam", "cam.local", "addresses=[10.0.0.1] " + known, "addressRemoved=true ")});
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
    forgetAll();
    discovery().StopQueryRecords("A", HTTP);
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
                        "service_resolver_new(client1, -1, -1, \"Ghost13\", \"_http._tcp\", \"local\", 0, 2) = resolver14"),
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
    EXPECT_EQ(takeCalls(), Lines{"service_resolver_new(client1, -1, -1, \"Cam\", \"_http._tcp\", \"example.net\", 0, "
                                 "2) = resolver2"});
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

// Restarts.

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

/** What a slot may do, for each signal. */
enum Signal { Found, AddressByResolve, Text, Lost, LostAfterGrace, AddressAdded, AddressRemoved, AddressOutdated };

class ManagedSlotTest : public ManagedTest, public testing::WithParamInterface<Signal>
{
protected:
    void cause(const std::function<void()>& action)
    {
        discovery().setGracePeriod(0);
        run();
        if (GetParam() != Found)
            found();
        switch (GetParam()) {
        case Found:
            appears("Cam");
            break;
        case AddressByResolve:
        case Text:
        case AddressAdded:
        case AddressRemoved:
        case AddressOutdated:
            discovery().StartQueryRecords("Cam", HTTP, false);
            break;
        case LostAfterGrace:
            failClient();
            break;
        case Lost:
            break;
        }
        if (GetParam() != LostAfterGrace)
            turn();
        if (GetParam() == AddressAdded || GetParam() == AddressRemoved)
            resolved(2, "Cam", "cam.local", "10.0.0.1", cameraTxt);
        if (GetParam() == AddressRemoved)
            record(2, AVAHI_BROWSER_NEW, "cam.local", "10.0.0.1");
        if (GetParam() == AddressOutdated) {
            resolved(2, "Cam", "cam.local", "10.0.0.2", cameraTxt);
            record(2, AVAHI_BROWSER_NEW, "cam.local", "10.0.0.2");
        }
        runInSlotOf([this] { fire(); }, action);
    }

private:
    void fire()
    {
        switch (GetParam()) {
        case Found:
            resolved(1, "Cam", "cam.local", "10.0.0.1", cameraTxt);
            break;
        case AddressByResolve:
            resolved(2, "Cam", "cam.local", "10.0.0.2", Txt{SERIAL, "error.vandrel.com=hot"});
            break;
        case Text:
            resolved(2, "Cam", "cam.local", "10.0.0.1", Txt{SERIAL, "error.vandrel.com=hot"});
            break;
        case Lost:
            disappears("Cam");
            break;
        case LostAfterGrace:
            turn(20);
            break;
        case AddressAdded:
            record(2, AVAHI_BROWSER_NEW, "cam.local", "10.0.0.9");
            break;
        case AddressRemoved:
            record(2, AVAHI_BROWSER_REMOVE, "cam.local", "10.0.0.1");
            break;
        case AddressOutdated:
            record(2, AVAHI_BROWSER_ALL_FOR_NOW, "cam.local", nullptr);
            break;
        }
    }
};

std::string signalName(const testing::TestParamInfo<Signal>& info)
{
    static const char* const names[] = {"Found", "AddressByResolve", "Text",           "Lost",
                                        "LostAfterGrace", "AddressAdded", "AddressRemoved", "AddressOutdated"};
    return names[info.param];
}

INSTANTIATE_TEST_SUITE_P(EverySignal, ManagedSlotTest,
                         testing::Values(Found, AddressByResolve, Text, Lost, LostAfterGrace, AddressAdded,
                                         AddressRemoved, AddressOutdated),
                         signalName);

TEST_P(ManagedSlotTest, TerminatingLeavesNothing)
{
    cause([this] { discovery().TerminateBrowsing(); });
    EXPECT_EQ(avahi.liveHandles(), Lines());
    EXPECT_EQ(table(), Lines());
    EXPECT_EQ(queue(), Lines());
}

TEST_P(ManagedSlotTest, DeletingAtOnceIsSurvived)
{
    cause([this] { destroyDiscovery(); });
    EXPECT_EQ(avahi.liveHandles(), Lines());
}

TEST_P(ManagedSlotTest, StartingAnewTouchesNothingOfTheNewSession)
{
    avahi.reuseAddresses();
    cause([this] {
        discovery().TerminateBrowsing();
        discovery().BrowseServices(HTTP);
        discovery().StartQueryRecords("Cam", HTTP, true);
    });
    EXPECT_EQ(table(), Lines());
    EXPECT_EQ(takeSignals().size(), 1u);
    turn();
    EXPECT_EQ(avahi.liveHandles().size(), 3u);
}

TEST_P(ManagedSlotTest, QueryingInTheSlotIsFine)
{
    cause([this] { EXPECT_TRUE(discovery().StartQueryRecords("Cam", HTTP, true)); });
    turn();
    discovery().StopQueryRecords("Cam", HTTP);
}

TEST_P(ManagedSlotTest, StoppingAQueryInTheSlotIsFine)
{
    cause([this] {
        discovery().StartQueryRecords("Cam", HTTP, true);
        discovery().StopQueryRecords("Cam", HTTP);
    });
    turn();
    for (const std::string& entry : table())
        EXPECT_EQ(entry.find("longLiveQuery"), std::string::npos) << entry;
}
