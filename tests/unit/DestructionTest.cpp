// SPDX-License-Identifier: MIT

// The object destroyed in each of its states. In slots and handlers it is destroyed by the tests of these.

#include "support/BusStandIn.h"
#include "support/ManagedFixture.h"
#include "support/RegistrationFixture.h"

#include <QtCore/QCoreApplication>

#include <string>
#include <utility>

namespace {

const char SETUP[] = "_setup._tcp";

/** What may still be under way when the object is gone must find nothing to do. */
template <typename Test>
void expectNothingMore(Test& test, AvahiStandIn& avahi)
{
    EXPECT_EQ(avahi.liveHandles(), Lines{});
    test.takeCalls();
    test.takeSignals();
    for (int turns = 0; turns < 20; ++turns) {
        QCoreApplication::processEvents();
        QCoreApplication::sendPostedEvents();
        QThread::msleep(1);
    }
    EXPECT_EQ(test.takeCalls(), Lines{});
    EXPECT_EQ(test.takeSignals(), Lines{});
}

} // namespace

class DestructionTest : public RegistrationTest, public testing::WithParamInterface<const char*>
{
public:
    using RegistrationTest::takeCalls;
    using RegistrationTest::takeSignals;

protected:
    void SetUp() override
    {
        const std::string state = GetParam();
        if (state == "WithoutABus")
            failsToConnect();
        else if (state != "Idle")
            startBrowsing();
        if (state == "Resolving")
            appears("Cam");
        else if (state == "Found" || state == "QueryingAll")
            cameraFound("Cam", "cam.local", "10.0.0.1");
        else if (state == "Keeping")
            EXPECT_TRUE(discovery().StartQueryRecords("Cam", "_http._tcp", true));
        else if (state == "Failed")
            avahi.fireClientState(AVAHI_CLIENT_FAILURE);
        else if (state == "Publishing")
            EXPECT_TRUE(registerService());
        else if (state == "PublishingHalf")
            publishHalf();
        else if (state == "Ended")
            discovery().TerminateBrowsing();
        if (state == "QueryingAll")
            discovery().StartQueryAllRecords();
    }

private:
    void failsToConnect()
    {
        avahi.failNext("client_new", AVAHI_ERR_DBUS_ERROR);
        EXPECT_FALSE(discovery().BrowseServices("_http._tcp"));
    }

    void publishHalf()
    {
        avahi.failNext("entry_group_commit", AVAHI_ERR_BAD_STATE);
        EXPECT_FALSE(registerService());
    }
};

INSTANTIATE_TEST_SUITE_P(In, DestructionTest,
                         testing::Values("Idle", "WithoutABus", "Browsing", "Resolving", "Found", "Keeping",
                                         "QueryingAll", "Failed", "Publishing", "PublishingHalf", "Ended"),
                         [](const auto& state) { return std::string(state.param); });

TEST_P(DestructionTest, FreesEverythingOnceAndDoesNothingMore)
{
    destroyDiscovery();
    expectNothingMore(*this, avahi);
}

class ManagedDestructionTest : public ManagedTest, public testing::WithParamInterface<const char*>
{
public:
    using ManagedTest::takeCalls;
    using ManagedTest::takeSignals;

protected:
    void SetUp() override
    {
        const std::string state = GetParam();
        discovery().setGracePeriod(5);
        if (state == "WithoutABus")
            failsToConnect();
        else if (state == "WithoutADaemon")
            waitsForDaemon();
        else if (state == "AboutToBrowse")
            discoversDaemon();
        else if (state == "AskingTheDaemon")
            asks();
        else if (state != "Idle")
            run();
        bringTo(state);
    }

    /** Over which the daemon never answers, as it hangs. Outlives the object, as a bus does. */
    std::unique_ptr<BusStandIn> bus;

private:
    void bringTo(const std::string& state)
    {
        if (state == "InLine")
            appears("Cam");
        else if (state == "Resolving")
            resolves();
        else if (state == "Following" || state == "Keeping" || state == "QueryingAll" || state == "InGracePeriod")
            found();
        if (state == "Keeping") {
            discovery().StartQueryRecords("Cam", HTTP, true);
            turn();
        } else if (state == "QueryingAll") {
            discovery().StartQueryAllRecords();
        } else if (state == "Failed" || state == "InGracePeriod") {
            failClient();
        }
        if (state == "InGracePeriod")
            turn();
        else if (state == "Publishing")
            EXPECT_TRUE(discovery().RegisterService("Setup", SETUP, vd::SReconfigInfo()));
        else if (state == "AboutToPublish")
            publishesLater();
        else if (state == "Ended")
            discovery().TerminateBrowsing();
    }

    void failsToConnect()
    {
        avahi.failNext("client_new", AVAHI_ERR_DBUS_ERROR);
        EXPECT_TRUE(discovery().BrowseServices(HTTP));
    }

    void waitsForDaemon()
    {
        daemonIsAway();
        avahi.failNext("service_browser_new", AVAHI_ERR_BAD_STATE);
        EXPECT_TRUE(discovery().BrowseServices(HTTP));
    }

    void discoversDaemon()
    {
        waitsForDaemon();
        avahi.fireClientState(AVAHI_CLIENT_S_RUNNING);
    }

    void asks()
    {
        bus.reset(new BusStandIn);
        run();
        appears("Cam");
        QElapsedTimer waited;
        waited.start();
        while (bus->takeQuestions().empty() && waited.elapsed() < 2000)
            QCoreApplication::processEvents(QEventLoop::AllEvents, 5);
        EXPECT_EQ(discovery().openObjects(), 1);
    }

    void resolves()
    {
        appears("Cam");
        turn();
        EXPECT_EQ(liveCount("resolver"), 1);
    }

    void publishesLater()
    {
        avahi.fireClientState(AVAHI_CLIENT_S_REGISTERING);
        EXPECT_TRUE(discovery().RegisterService("Setup", SETUP, vd::SReconfigInfo()));
        avahi.fireClientState(AVAHI_CLIENT_S_RUNNING);
    }
};

INSTANTIATE_TEST_SUITE_P(In, ManagedDestructionTest,
                         testing::Values("Idle", "WithoutABus", "WithoutADaemon", "AboutToBrowse", "Browsing", "InLine",
                                         "AskingTheDaemon", "Resolving", "Following", "Keeping", "QueryingAll",
                                         "Failed", "InGracePeriod", "Publishing", "AboutToPublish", "Ended"),
                         [](const auto& state) { return std::string(state.param); });

TEST_P(ManagedDestructionTest, FreesEverythingOnceAndDoesNothingMore)
{
    destroyDiscovery();
    if (bus) {
        EXPECT_EQ(bus->openConnections(), 0);
    }
    expectNothingMore(*this, avahi);
}
