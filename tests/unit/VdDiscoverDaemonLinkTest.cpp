// SPDX-License-Identifier: MIT
#include "DaemonLink.h"

#include "support/DaemonStandIn.h"
#include "support/DiscoveryFixture.h"
#include "support/VdDiscoverMessages.h"
#include "support/VdDiscoverTurns.h"

#include <chrono>
#include <thread>

using vd::discover::DaemonLink;
using vd::discover::WatchedDiscovery;

namespace {

const int RETRY_MS = 500;
const int LONGEST_WAIT_MS = 5000;

const std::string BROWSING_AGAIN = RECOVERY + "browsing";

// Longer than an answer may take.
bool waitInVain()
{
    std::this_thread::sleep_for(std::chrono::milliseconds(1800));
    return false;
}

} // namespace

/** What the user is told, and how it goes on, whatever class discovers. */
class VdDiscoverDaemonLink : public VdDiscoverTurns, public testing::WithParamInterface<WatchedDiscovery::Kind>
{
protected:
    void makeLink(DaemonLink::Patience patience, const QStringList& types = {QStringLiteral("_http._tcp")})
    {
        link.reset(new DaemonLink(GetParam(), types, patience, QStringLiteral("browsing")));
        QObject::connect(link.get(), &DaemonLink::browsing, [this] { events.push_back("browsing"); });
        QObject::connect(link.get(), &DaemonLink::broken, [this] { events.push_back("broken"); });
        QObject::connect(link.get(), &DaemonLink::gaveUp, [this] { events.push_back("gave up"); });
        QObject::connect(link.get(), &DaemonLink::notice,
                         [this](const QString& text) { events.push_back(text.toStdString()); });
    }

    void open(DaemonLink::Patience patience)
    {
        makeLink(patience);
        link->open();
    }

    /** Opens a link that finds a bus without a daemon on it. */
    void openWithoutDaemon(DaemonLink::Patience patience)
    {
        daemon.state = AVAHI_CLIENT_CONNECTING;
        open(patience);
    }

    Lines waitForEvents(size_t count)
    {
        passTimeUntil([&] { return events.size() >= count; }, LONGEST_WAIT_MS);
        return takeEvents();
    }

    Lines takeEvents()
    {
        Lines taken;
        taken.swap(events);
        return taken;
    }

    /** The same while every call of @p function fails. */
    Lines waitForEvents(size_t count, const std::string& function, int error)
    {
        const auto failAndLook = [&] {
            avahi.failNext(function, error);
            return events.size() >= count;
        };
        passTimeUntil(failAndLook, LONGEST_WAIT_MS);
        return takeEvents();
    }

    AvahiStandIn avahi;
    DaemonStandIn daemon{avahi};
    std::unique_ptr<DaemonLink> link;
    Lines events;
};

INSTANTIATE_TEST_SUITE_P(, VdDiscoverDaemonLink,
                         testing::Values(WatchedDiscovery::Plain, WatchedDiscovery::Managed),
                         [](const testing::TestParamInfo<WatchedDiscovery::Kind>& kind) {
                             return std::string(kind.param == WatchedDiscovery::Plain ? "Plain" : "Managed");
                         });

TEST_P(VdDiscoverDaemonLink, BrowsesEveryTypeWithOneClient)
{
    makeLink(DaemonLink::GiveUp, {QStringLiteral("_http._tcp"), QStringLiteral("_https._tcp")});
    link->open();
    EXPECT_EQ(takeEvents(), Lines{"browsing"});
    EXPECT_TRUE(link->wasReached());
    EXPECT_EQ(avahi.liveHandles(), (Lines{"client1", "browser1", "browser2"}));
}

TEST_P(VdDiscoverDaemonLink, WithoutABusGivesUpAtOnceAndNamesTheRemedy)
{
    avahi.failNext("client_new", AVAHI_ERR_DBUS_ERROR);
    open(DaemonLink::GiveUp);
    EXPECT_EQ(takeEvents(), (Lines{BUS_REMEDY, "gave up"}));
    EXPECT_FALSE(link->wasReached());
}

TEST_P(VdDiscoverDaemonLink, WithoutADaemonGivesUpAtOnceAndNamesTheRemedy)
{
    openWithoutDaemon(DaemonLink::GiveUp);
    EXPECT_EQ(takeEvents(), (Lines{DAEMON_REMEDY, "gave up"}));
    EXPECT_FALSE(link->wasReached());
    EXPECT_EQ(avahi.liveHandles(), Lines{});
}

TEST_P(VdDiscoverDaemonLink, ADaemonThatRefusesOneTypeIsGivenUp)
{
    makeLink(DaemonLink::GiveUp, {QStringLiteral("_http._tcp"), QStringLiteral("_https._tcp")});
    avahi.failNext("service_browser_new", AVAHI_ERR_TOO_MANY_OBJECTS);
    link->open();
    EXPECT_EQ(takeEvents(), (Lines{REFUSAL_REMEDY, "gave up"}));
    EXPECT_EQ(avahi.liveHandles(), Lines{});
}

TEST_P(VdDiscoverDaemonLink, WaitsForADaemonThatIsMissingAndTellsOnce)
{
    openWithoutDaemon(DaemonLink::KeepTrying);
    passTime(3 * RETRY_MS);
    EXPECT_EQ(takeEvents(), Lines{DAEMON_REMEDY + WAITING});
    EXPECT_EQ(avahi.liveHandles(), Lines{"client1"});
}

TEST_P(VdDiscoverDaemonLink, PicksUpADaemonThatAppearsWithTheSameClient)
{
    openWithoutDaemon(DaemonLink::KeepTrying);
    takeEvents();
    daemon.becomes(AVAHI_CLIENT_S_REGISTERING);
    daemon.becomes(AVAHI_CLIENT_S_RUNNING);
    processEvents();
    EXPECT_EQ(takeEvents(), (Lines{BROWSING_AGAIN, "browsing"}));
    EXPECT_EQ(avahi.liveHandles(), (Lines{"client1", "browser1"}));
}

TEST_P(VdDiscoverDaemonLink, TriesAgainForAMissingBusAndTellsOnce)
{
    avahi.failNext("client_new", AVAHI_ERR_DBUS_ERROR);
    open(DaemonLink::KeepTrying);
    avahi.failNext("client_new", AVAHI_ERR_DBUS_ERROR);
    EXPECT_EQ(waitForEvents(3), (Lines{BUS_REMEDY + WAITING, BROWSING_AGAIN, "browsing"}));
}

TEST_P(VdDiscoverDaemonLink, ABusThatAppearsWithoutADaemonIsADifferentTrouble)
{
    avahi.failNext("client_new", AVAHI_ERR_DBUS_ERROR);
    open(DaemonLink::KeepTrying);
    daemon.state = AVAHI_CLIENT_CONNECTING;
    EXPECT_EQ(waitForEvents(2), (Lines{BUS_REMEDY + WAITING, DAEMON_REMEDY + WAITING}));
}

TEST_P(VdDiscoverDaemonLink, FreesNothingFromInsideTheClientsCallback)
{
    open(DaemonLink::KeepTrying);
    daemon.becomes(AVAHI_CLIENT_FAILURE);
    EXPECT_EQ(avahi.liveHandles(), (Lines{"client1", "browser1"}));
    EXPECT_EQ(takeEvents(), Lines{"browsing"});
}

TEST_P(VdDiscoverDaemonLink, BrowsesAgainWithANewClientAfterTheDaemonDied)
{
    open(DaemonLink::KeepTrying);
    daemon.becomes(AVAHI_CLIENT_FAILURE);
    daemon.state = AVAHI_CLIENT_S_RUNNING;
    EXPECT_EQ(waitForEvents(5), (Lines{"browsing", "broken", END_REMEDY + WAITING, BROWSING_AGAIN, "browsing"}));
    EXPECT_EQ(avahi.liveHandles(), (Lines{"client2", "browser2"}));
    passTime(RETRY_MS + RETRY_MS / 2);
    EXPECT_EQ(takeEvents(), Lines{});
}

TEST_P(VdDiscoverDaemonLink, IsBrowsingUntilTheDaemonDied)
{
    open(DaemonLink::KeepTrying);
    EXPECT_TRUE(link->isBrowsing());
    daemon.becomes(AVAHI_CLIENT_FAILURE);
    processEvents();
    EXPECT_FALSE(link->isBrowsing());
}

TEST_P(VdDiscoverDaemonLink, ADaemonThatStaysAwayIsToldOnce)
{
    open(DaemonLink::KeepTrying);
    daemon.becomes(AVAHI_CLIENT_FAILURE);
    passTime(2 * RETRY_MS + RETRY_MS / 2);
    EXPECT_EQ(takeEvents(), (Lines{"browsing", "broken", END_REMEDY + WAITING}));
    EXPECT_EQ(avahi.liveHandles(), Lines{"client2"});
}

TEST_P(VdDiscoverDaemonLink, ABusThatGoesWithItsDaemonIsToldToo)
{
    open(DaemonLink::KeepTrying);
    daemon.becomes(AVAHI_CLIENT_FAILURE);
    EXPECT_EQ(waitForEvents(4, "client_new", AVAHI_ERR_DBUS_ERROR),
              (Lines{"browsing", "broken", END_REMEDY + WAITING, BUS_REMEDY + WAITING}));
}

TEST_P(VdDiscoverDaemonLink, ABusThatGoesWhileTheDaemonIsWaitedForIsTold)
{
    openWithoutDaemon(DaemonLink::KeepTrying);
    takeEvents();
    daemon.becomes(AVAHI_CLIENT_FAILURE);
    EXPECT_EQ(waitForEvents(1, "client_new", AVAHI_ERR_DBUS_ERROR), Lines{BUS_REMEDY + WAITING});
}

TEST_P(VdDiscoverDaemonLink, ADaemonThatRefusesToBrowseAfterItsReturnIsTold)
{
    openWithoutDaemon(DaemonLink::KeepTrying);
    takeEvents();
    daemon.becomes(AVAHI_CLIENT_S_RUNNING);
    EXPECT_EQ(waitForEvents(1, "service_browser_new", AVAHI_ERR_TOO_MANY_OBJECTS),
              Lines{REFUSAL_REMEDY + WAITING});
}

TEST_P(VdDiscoverDaemonLink, WithoutPatienceADaemonThatDiesEndsTheRun)
{
    open(DaemonLink::GiveUp);
    daemon.becomes(AVAHI_CLIENT_FAILURE);
    processEvents();
    EXPECT_EQ(takeEvents(), (Lines{"browsing", "broken", END_REMEDY, "gave up"}));
    EXPECT_TRUE(link->wasReached());
    EXPECT_EQ(avahi.liveHandles(), Lines{});
}

TEST_P(VdDiscoverDaemonLink, ADaemonThatOnlyChangesItsNameIsNotBrowsedTwice)
{
    open(DaemonLink::KeepTrying);
    daemon.becomes(AVAHI_CLIENT_S_COLLISION);
    daemon.becomes(AVAHI_CLIENT_S_REGISTERING);
    daemon.becomes(AVAHI_CLIENT_S_RUNNING);
    processEvents();
    EXPECT_EQ(takeEvents(), Lines{"browsing"});
    EXPECT_EQ(avahi.liveHandles(), (Lines{"client1", "browser1"}));
}

TEST_P(VdDiscoverDaemonLink, ClosingFreesEverythingAndEndsTheWaiting)
{
    avahi.failNext("client_new", AVAHI_ERR_DBUS_ERROR);
    open(DaemonLink::KeepTrying);
    link->close();
    takeEvents();
    avahi.takeCalls();
    passTime(RETRY_MS + RETRY_MS / 2);
    EXPECT_EQ(takeEvents(), Lines{});
    EXPECT_EQ(avahi.takeCalls(), Lines{});
}

TEST_P(VdDiscoverDaemonLink, WhatTheClientToldBeforeItWasClosedIsIgnored)
{
    openWithoutDaemon(DaemonLink::KeepTrying);
    daemon.becomes(AVAHI_CLIENT_S_RUNNING);
    link->close();
    takeEvents();
    processEvents();
    EXPECT_EQ(takeEvents(), Lines{});
    EXPECT_EQ(avahi.liveHandles(), Lines{});
}

TEST_P(VdDiscoverDaemonLink, AQuestionThatIsAnsweredChangesNothing)
{
    open(DaemonLink::GiveUp);
    takeEvents();
    EXPECT_TRUE(link->ask([] { return true; }));
    EXPECT_FALSE(link->ask([] { return false; }));
    processEvents();
    EXPECT_EQ(takeEvents(), Lines{});
    EXPECT_EQ(avahi.liveHandles(), (Lines{"client1", "browser1"}));
}

TEST_P(VdDiscoverDaemonLink, WithoutPatienceAQuestionWithoutAnAnswerEndsTheProcess)
{
    open(DaemonLink::GiveUp);
    EXPECT_EXIT(link->ask([] { return waitInVain(); }), testing::ExitedWithCode(3),
                "^" + PROGRAM + HANG_REMEDY + "\n$");
}

TEST_P(VdDiscoverDaemonLink, WhatTheLinkIsForIsToldOnceItIsBack)
{
    link.reset(new DaemonLink(GetParam(), {QStringLiteral("_http._tcp")}, DaemonLink::KeepTrying,
                              QStringLiteral("publishing")));
    QObject::connect(link.get(), &DaemonLink::notice,
                     [this](const QString& text) { events.push_back(text.toStdString()); });
    avahi.failNext("client_new", AVAHI_ERR_DBUS_ERROR);
    link->open();
    EXPECT_EQ(waitForEvents(2), (Lines{BUS_REMEDY + WAITING, RECOVERY + "publishing"}));
}
