// SPDX-License-Identifier: MIT
#include "DaemonLink.h"

#include "support/DaemonStandIn.h"
#include "support/DiscoveryFixture.h"

#include <QtCore/QCoreApplication>
#include <QtCore/QEventLoop>

#include <chrono>
#include <thread>

using vd::discover::DaemonLink;

namespace {

const int RETRY_MS = 500;

const std::string BUS_REMEDY
    = "the D-Bus system bus cannot be reached; start it with \"sudo systemctl start dbus\", "
      "or install it with \"sudo apt install dbus\"";
const std::string DAEMON_REMEDY = "the Avahi daemon is not running; start it with \"sudo systemctl start "
                                  "avahi-daemon\", or install it with \"sudo apt install avahi-daemon\"";
const std::string END_REMEDY = "the connection to the Avahi daemon has ended; if it does not come back by itself, "
                               "start it with \"sudo systemctl start avahi-daemon\"";
const std::string REFUSAL_REMEDY = "the Avahi daemon refuses to browse; restart it with \"sudo systemctl restart "
                                   "avahi-daemon\"";
const std::string WAITING = "; waiting for it";
const std::string RECOVERY = "the Avahi daemon answers; browsing";

// Longer than an answer may take.
bool waitInVain()
{
    std::this_thread::sleep_for(std::chrono::milliseconds(1800));
    return false;
}

} // namespace

class VdDiscoverDaemonLink : public testing::Test
{
protected:
    void makeLink(DaemonLink::Patience patience, const QStringList& types = {QStringLiteral("_http._tcp")})
    {
        link.reset(new DaemonLink(types, patience, QStringLiteral("browsing")));
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
        avahi.failNext("service_browser_new", AVAHI_ERR_BAD_STATE);
        open(patience);
    }

    void clientBecomes(AvahiClientState state, int client = 1)
    {
        daemon.state = state;
        avahi.fireClientState(state, client);
    }

    Lines takeEvents()
    {
        Lines taken;
        taken.swap(events);
        return taken;
    }

    static void processEvents() { QCoreApplication::processEvents(); }

    static void passTime(int milliseconds)
    {
        QEventLoop loop;
        QTimer::singleShot(milliseconds, &loop, &QEventLoop::quit);
        loop.exec();
    }

    AvahiStandIn avahi;
    DaemonStandIn daemon;
    std::unique_ptr<DaemonLink> link;
    Lines events;
};

TEST_F(VdDiscoverDaemonLink, BrowsesEveryTypeWithOneClient)
{
    makeLink(DaemonLink::GiveUp, {QStringLiteral("_http._tcp"), QStringLiteral("_https._tcp")});
    link->open();
    EXPECT_EQ(takeEvents(), Lines{"browsing"});
    EXPECT_TRUE(link->wasReached());
    EXPECT_EQ(avahi.liveHandles(), (Lines{"client1", "browser1", "browser2"}));
}

TEST_F(VdDiscoverDaemonLink, WithoutABusGivesUpAtOnceAndNamesTheRemedy)
{
    avahi.failNext("client_new", AVAHI_ERR_DBUS_ERROR);
    open(DaemonLink::GiveUp);
    EXPECT_EQ(takeEvents(), (Lines{BUS_REMEDY, "gave up"}));
    EXPECT_FALSE(link->wasReached());
}

TEST_F(VdDiscoverDaemonLink, WithoutADaemonGivesUpAtOnceAndNamesTheRemedy)
{
    openWithoutDaemon(DaemonLink::GiveUp);
    EXPECT_EQ(takeEvents(), (Lines{DAEMON_REMEDY, "gave up"}));
    EXPECT_FALSE(link->wasReached());
    EXPECT_EQ(avahi.liveHandles(), Lines{});
}

TEST_F(VdDiscoverDaemonLink, ADaemonThatRefusesOneTypeIsGivenUp)
{
    makeLink(DaemonLink::GiveUp, {QStringLiteral("_http._tcp"), QStringLiteral("_https._tcp")});
    avahi.failNext("service_browser_new", AVAHI_ERR_TOO_MANY_OBJECTS);
    link->open();
    EXPECT_EQ(takeEvents(), (Lines{REFUSAL_REMEDY, "gave up"}));
    EXPECT_EQ(avahi.liveHandles(), Lines{});
}

TEST_F(VdDiscoverDaemonLink, WaitsForADaemonThatIsMissingAndTellsOnce)
{
    openWithoutDaemon(DaemonLink::KeepTrying);
    passTime(3 * RETRY_MS);
    EXPECT_EQ(takeEvents(), Lines{DAEMON_REMEDY + WAITING});
    EXPECT_EQ(avahi.liveHandles(), Lines{"client1"});
}

TEST_F(VdDiscoverDaemonLink, PicksUpADaemonThatAppearsWithTheSameClient)
{
    openWithoutDaemon(DaemonLink::KeepTrying);
    takeEvents();
    clientBecomes(AVAHI_CLIENT_S_REGISTERING);
    clientBecomes(AVAHI_CLIENT_S_RUNNING);
    processEvents();
    EXPECT_EQ(takeEvents(), (Lines{RECOVERY, "browsing"}));
    EXPECT_EQ(avahi.liveHandles(), (Lines{"client1", "browser1"}));
}

TEST_F(VdDiscoverDaemonLink, TriesAgainEveryHalfSecondForAMissingBusAndTellsOnce)
{
    avahi.failNext("client_new", AVAHI_ERR_DBUS_ERROR);
    open(DaemonLink::KeepTrying);
    avahi.failNext("client_new", AVAHI_ERR_DBUS_ERROR);
    passTime(RETRY_MS + RETRY_MS / 2);
    EXPECT_EQ(takeEvents(), Lines{BUS_REMEDY + WAITING});
    passTime(RETRY_MS);
    EXPECT_EQ(takeEvents(), (Lines{RECOVERY, "browsing"}));
}

TEST_F(VdDiscoverDaemonLink, ABusThatAppearsWithoutADaemonIsADifferentTrouble)
{
    avahi.failNext("client_new", AVAHI_ERR_DBUS_ERROR);
    open(DaemonLink::KeepTrying);
    daemon.state = AVAHI_CLIENT_CONNECTING;
    avahi.failNext("service_browser_new", AVAHI_ERR_BAD_STATE);
    passTime(RETRY_MS + RETRY_MS / 2);
    EXPECT_EQ(takeEvents(), (Lines{BUS_REMEDY + WAITING, DAEMON_REMEDY + WAITING}));
}

TEST_F(VdDiscoverDaemonLink, FreesNothingFromInsideTheClientsCallback)
{
    open(DaemonLink::KeepTrying);
    clientBecomes(AVAHI_CLIENT_FAILURE);
    EXPECT_EQ(avahi.liveHandles(), (Lines{"client1", "browser1"}));
    EXPECT_EQ(takeEvents(), Lines{"browsing"});
}

TEST_F(VdDiscoverDaemonLink, BrowsesAgainWithANewClientAfterTheDaemonDied)
{
    open(DaemonLink::KeepTrying);
    clientBecomes(AVAHI_CLIENT_FAILURE);
    processEvents();
    EXPECT_EQ(takeEvents(), (Lines{"browsing", "broken", END_REMEDY + WAITING}));
    EXPECT_EQ(avahi.liveHandles(), Lines{});

    daemon.state = AVAHI_CLIENT_S_RUNNING;
    passTime(RETRY_MS + RETRY_MS / 2);
    EXPECT_EQ(takeEvents(), (Lines{RECOVERY, "browsing"}));
    EXPECT_EQ(avahi.liveHandles(), (Lines{"client2", "browser2"}));
}

TEST_F(VdDiscoverDaemonLink, ADaemonThatStaysAwayIsToldOnce)
{
    open(DaemonLink::KeepTrying);
    clientBecomes(AVAHI_CLIENT_FAILURE);
    processEvents();
    takeEvents();
    daemon.state = AVAHI_CLIENT_CONNECTING;
    avahi.failNext("service_browser_new", AVAHI_ERR_BAD_STATE);
    passTime(RETRY_MS + RETRY_MS / 2);
    EXPECT_EQ(takeEvents(), Lines{});
    EXPECT_EQ(avahi.liveHandles(), Lines{"client2"});
}

TEST_F(VdDiscoverDaemonLink, WithoutPatienceADaemonThatDiesEndsTheRun)
{
    open(DaemonLink::GiveUp);
    clientBecomes(AVAHI_CLIENT_FAILURE);
    processEvents();
    EXPECT_EQ(takeEvents(), (Lines{"browsing", "broken", END_REMEDY, "gave up"}));
    EXPECT_TRUE(link->wasReached());
    EXPECT_EQ(avahi.liveHandles(), Lines{});
}

TEST_F(VdDiscoverDaemonLink, ADaemonThatOnlyChangesItsNameIsNotBrowsedTwice)
{
    open(DaemonLink::KeepTrying);
    clientBecomes(AVAHI_CLIENT_S_COLLISION);
    clientBecomes(AVAHI_CLIENT_S_REGISTERING);
    clientBecomes(AVAHI_CLIENT_S_RUNNING);
    processEvents();
    EXPECT_EQ(takeEvents(), Lines{"browsing"});
    EXPECT_EQ(avahi.liveHandles(), (Lines{"client1", "browser1"}));
}

TEST_F(VdDiscoverDaemonLink, ClosingFreesEverythingAndEndsTheWaiting)
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

TEST_F(VdDiscoverDaemonLink, WhatTheClientToldBeforeItWasClosedIsIgnored)
{
    openWithoutDaemon(DaemonLink::KeepTrying);
    clientBecomes(AVAHI_CLIENT_S_RUNNING);
    link->close();
    takeEvents();
    processEvents();
    EXPECT_EQ(takeEvents(), Lines{});
    EXPECT_EQ(avahi.liveHandles(), Lines{});
}

TEST_F(VdDiscoverDaemonLink, AQuestionThatIsAnsweredChangesNothing)
{
    open(DaemonLink::GiveUp);
    takeEvents();
    EXPECT_TRUE(link->ask([] { return true; }));
    EXPECT_FALSE(link->ask([] { return false; }));
    processEvents();
    EXPECT_EQ(takeEvents(), Lines{});
    EXPECT_EQ(avahi.liveHandles(), (Lines{"client1", "browser1"}));
}

TEST_F(VdDiscoverDaemonLink, AQuestionWithoutAnAnswerBreaksThePatientLinkWhichBrowsesAgain)
{
    open(DaemonLink::GiveUp);
    link->setPatience(DaemonLink::KeepTrying);
    takeEvents();
    EXPECT_FALSE(link->ask([] { return waitInVain(); }));
    EXPECT_TRUE(link->didHang());
    EXPECT_EQ(takeEvents(), Lines{});
    processEvents();
    EXPECT_EQ(takeEvents(), Lines{"broken"});
    EXPECT_EQ(avahi.liveHandles(), Lines{});
    passTime(RETRY_MS + RETRY_MS / 2);
    EXPECT_EQ(takeEvents(), (Lines{RECOVERY, "browsing"}));
    EXPECT_EQ(avahi.liveHandles(), (Lines{"client2", "browser2"}));
}

TEST_F(VdDiscoverDaemonLink, AQuestionThatIsAnsweredLateLeavesTheLinkWhole)
{
    open(DaemonLink::KeepTrying);
    takeEvents();
    EXPECT_TRUE(link->ask([] { return !waitInVain(); }));
    processEvents();
    EXPECT_EQ(takeEvents(), Lines{RECOVERY});
    EXPECT_EQ(avahi.liveHandles(), (Lines{"client1", "browser1"}));
}

TEST_F(VdDiscoverDaemonLink, WithoutPatienceAQuestionWithoutAnAnswerEndsTheProcess)
{
    open(DaemonLink::GiveUp);
    EXPECT_EXIT(link->ask([] { return waitInVain(); }), testing::ExitedWithCode(3),
                "^vd-discover: the Avahi daemon or the system bus does not answer; restart the daemon with "
                "\"sudo systemctl restart avahi-daemon\"\n$");
}

TEST_F(VdDiscoverDaemonLink, WhatTheLinkIsForIsToldOnceItIsBack)
{
    link.reset(
        new DaemonLink({QStringLiteral("_http._tcp")}, DaemonLink::KeepTrying, QStringLiteral("publishing")));
    QObject::connect(link.get(), &DaemonLink::notice,
                     [this](const QString& text) { events.push_back(text.toStdString()); });
    avahi.failNext("client_new", AVAHI_ERR_DBUS_ERROR);
    link->open();
    passTime(RETRY_MS + RETRY_MS / 2);
    EXPECT_EQ(takeEvents(), (Lines{BUS_REMEDY + WAITING, "the Avahi daemon answers; publishing"}));
}
