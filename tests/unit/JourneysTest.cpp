// SPDX-License-Identifier: MIT

// What a device lives through, across browsing, resolving and address records.

#include "support/DiscoveryFixture.h"

#include <QtCore/QMetaObject>
#include <QtCore/QThread>

#include <chrono>
#include <future>

namespace {

const std::string SERIAL = "ser_no.vandrel.com=\x01\x02\x03";

Lines namesOf(const Lines& signalled)
{
    Lines names;
    for (const std::string& line : signalled)
        names.push_back(line.substr(0, line.find(' ')));
    return names;
}

} // namespace

class JourneysTest : public DiscoveryTest
{
protected:
    JourneysTest() { startBrowsing(); }

    void tick() { ASSERT_TRUE(QMetaObject::invokeMethod(&discovery(), "queryNextRecord")); }

    const Txt camera = {SERIAL};
};

TEST_F(JourneysTest, DeviceAppearsMovesChangesItsTextAndLeaves)
{
    appears("Cam");
    resolved(1, "Cam", "cam.local", "10.0.0.1", camera);
    record(1, AVAHI_BROWSER_NEW, "cam.local", "10.0.0.1");
    record(1, AVAHI_BROWSER_NEW, "cam.local", "10.0.0.2");
    record(1, AVAHI_BROWSER_REMOVE, "cam.local", "10.0.0.1");
    appears("Cam");
    resolved(2, "Cam", "cam.local", "10.0.0.1", Txt{"ser_no.vandrel.com=XYZ"});
    disappears("Cam");
    EXPECT_EQ(namesOf(takeSignals()), (Lines{"found", "address", "address", "text", "lost"}));
    EXPECT_EQ(table(), Lines());
    EXPECT_EQ(queue(), Lines());
}

TEST_F(JourneysTest, DeviceThatComesBackIsFoundAgainWithAChecksumOfZero)
{
    cameraFound("Cam", "cam.local", "10.0.0.1");
    disappears("Cam");
    forgetAll();
    appears("Cam");
    resolved(2, "Cam", "cam.local", "10.0.0.1", camera);
    const Lines signalled = takeSignals();
    ASSERT_EQ(signalled.size(), 1u);
    EXPECT_EQ(signalled.front().substr(0, 6), "found ");
    EXPECT_EQ(signalled.front().find("txtChecksum"), std::string::npos);
}

TEST_F(JourneysTest, DeviceOnTwoInterfacesIsFoundOnceAndLostOnce)
{
    appears("Cam", "_http._tcp", 2);
    appears("Cam", "_http._tcp", 3);
    resolved(1, "Cam", "cam.local", "10.0.0.1", camera);
    resolved(2, "Cam", "cam.local", "10.0.0.1", camera);
    disappears("Cam");
    disappears("Cam");
    EXPECT_EQ(namesOf(takeSignals()), (Lines{"found", "lost"}));
}

TEST_F(JourneysTest, TimerQueriesTheServiceThatResolutionQueued)
{
    cameraFound("Cam", "cam.local", "10.0.0.1");
    discovery().StartQueryAllRecords();
    tick();
    EXPECT_EQ(takeCalls(),
              Lines{"service_resolver_new(client1, -1, -1, \"Cam\", \"_http._tcp\", \"local\", -1, 2) = resolver2"});
    resolved(2, "Cam", "cam.local", "10.0.0.2", camera);
    EXPECT_EQ(namesOf(takeSignals()), Lines{"address"});
    EXPECT_EQ(queue(), (Lines{"Cam, _http._tcp", "Cam, _http._tcp"}));
}

TEST_F(JourneysTest, TimerGoesOnAfterBrowsingEndedAndFindsNothingToDo)
{
    cameraFound("Cam", "cam.local", "10.0.0.1");
    discovery().StartQueryAllRecords();
    discovery().TerminateBrowsing();
    takeCalls();
    tick();
    EXPECT_EQ(takeCalls(), Lines());
    EXPECT_TRUE(discovery().queryTimer.isActive());
}

TEST_F(JourneysTest, LongLivedQueryFollowsTextAndAddressUntilItIsStopped)
{
    cameraFound("Cam", "cam.local", "10.0.0.1");
    discovery().StartQueryRecords("Cam", "_http._tcp", true);
    resolved(2, "Cam", "cam.local", "10.0.0.1", camera);
    resolved(2, "Cam", "cam.local", "10.0.0.1", Txt{"ser_no.vandrel.com=XYZ"});
    record(2, AVAHI_BROWSER_ALL_FOR_NOW, "cam.local", nullptr);
    record(2, AVAHI_BROWSER_NEW, "cam.local", "10.0.0.2");
    EXPECT_EQ(namesOf(takeSignals()), (Lines{"text", "address"}));
    EXPECT_EQ(avahi.liveHandles(), (Lines{"client1", "browser1", "recordBrowser1", "resolver2", "recordBrowser2",
                                          "recordBrowser3"}));

    discovery().StopQueryRecords("Cam", "_http._tcp");
    for (int number = 1; number <= 3; ++number)
        record(number, AVAHI_BROWSER_ALL_FOR_NOW, "cam.local", nullptr);
    EXPECT_EQ(avahi.liveHandles(), (Lines{"client1", "browser1"}));
}

TEST_F(JourneysTest, ServicesOfOneHostShareItsEntryAndTheLastOneGetsItsAddresses)
{
    const Txt storage = {"ser_no.snapserver.com=ABC"};
    cameraFound("Cam", "host.local", "10.0.0.1");
    appears("Store");
    resolved(2, "Store", "host.local", "10.0.0.1", storage);
    takeSignals();
    record(1, AVAHI_BROWSER_NEW, "host.local", "10.0.0.2");
    EXPECT_EQ(discovery().services[QStringLiteral("Cam")].addresses.size(), 1);
    EXPECT_EQ(discovery().services[QStringLiteral("Store")].addresses.size(), 2);
}

TEST_F(JourneysTest, ServicesOfOneNameShareARecord)
{
    cameraFound("Cam", "cam.local", "10.0.0.1");
    appears("Cam", "_https._tcp");
    resolved(2, "Cam", "cam.local", "10.0.0.1", camera, "_https._tcp", 443);
    EXPECT_EQ(takeSignals(), Lines());
    EXPECT_TRUE(discovery().services[QStringLiteral("Cam")].https);
    EXPECT_EQ(queue(), (Lines{"Cam, _http._tcp", "Cam, _https._tcp"}));
}

TEST_F(JourneysTest, AddressRecordOfALostServiceIsReportedForADefaultRecord)
{
    cameraFound("Cam", "cam.local", "10.0.0.1");
    disappears("Cam");
    takeSignals();
    record(1, AVAHI_BROWSER_NEW, "cam.local", "10.0.0.2");
    EXPECT_EQ(takeSignals(), Lines{"address addresses=[10.0.0.2]"});
    EXPECT_EQ(table(), (Lines{"\"\": addresses=[10.0.0.2]", "\"cam.local\": "}));
}

TEST_F(JourneysTest, QueuedConnectionsCarryTheRecordToAnotherThread)
{
    // The promises order the threads in a way that the thread sanitizer sees, which Qt's event queue does not.
    std::promise<void> emitted;
    std::promise<std::string> received;
    QThread thread;
    QObject receiver;
    receiver.moveToThread(&thread);
    QMetaObject::invokeMethod(&receiver, [&] { emitted.get_future().wait(); }, Qt::QueuedConnection);
    thread.start();
    QObject::connect(
        &discovery(), &vd::ServiceDiscovery::serviceFound, &receiver,
        [&](vd::SServiceInfo info) {
            received.set_value(QThread::currentThread() == &thread ? describe(info) : "in the wrong thread");
        },
        Qt::QueuedConnection);
    appears("Cam");
    resolved(1, "Cam", "cam.local", "10.0.0.1", camera);
    emitted.set_value();
    std::future<std::string> record = received.get_future();
    ASSERT_EQ(record.wait_for(std::chrono::seconds(5)), std::future_status::ready);
    EXPECT_EQ("found " + record.get(), takeSignals().front());
    thread.quit();
    EXPECT_TRUE(thread.wait(5000));
}

TEST_F(JourneysTest, DeviceIsFoundAgainOnceBrowsingWasEndedAndStartedAgain)
{
    cameraFound("Cam", "cam.local", "10.0.0.1");
    discovery().TerminateBrowsing();
    discovery().BrowseServices("_http._tcp");
    avahi.fireBrowse(avahi.browser(2), AVAHI_BROWSER_NEW, 2, AVAHI_PROTO_INET, "Cam", "_http._tcp", "local");
    resolved(2, "Cam", "cam.local", "10.0.0.1", camera);
    record(2, AVAHI_BROWSER_NEW, "cam.local", "10.0.0.2");
    avahi.fireBrowse(avahi.browser(2), AVAHI_BROWSER_REMOVE, 2, AVAHI_PROTO_INET, "Cam", "_http._tcp", "local");
    EXPECT_EQ(namesOf(takeSignals()), (Lines{"found", "address", "lost"}));
}
