// SPDX-License-Identifier: MIT
#include "support/ManagedFixture.h"
#include "support/OverridingDiscovery.h"

#include <QtCore/QFile>
#include <QtCore/QIODevice>
#include <QtCore/QTemporaryDir>
#include <QtCore/QTimer>

#include <fstream>

class ManagedConnectionTest : public ManagedTest
{
protected:
    typedef vd::ManagedServiceDiscovery Managed;

    ManagedConnectionTest()
    {
        QObject::connect(&discovery(), &Managed::stateChanged, [this](Managed::State state) {
            states.push_back(state == Managed::Running ? "Running"
                             : state == Managed::Connecting ? "Connecting" : "Unavailable");
        });
    }
    ~ManagedConnectionTest() override { qunsetenv("DBUS_SYSTEM_BUS_ADDRESS"); }

    /** Uses a bus whose socket is not there. */
    void useBusOfOurOwn() { useAddress("unix:path=" + socket() + ",guid=1;tcp:host=x"); }
    static void useAddress(const QString& address) { qputenv("DBUS_SYSTEM_BUS_ADDRESS", address.toUtf8()); }
    QString socket() const { return m_folder.filePath(QStringLiteral("bus")); }
    void makeFile(const QString& name)
    {
        std::ofstream(QFile::encodeName(m_folder.filePath(name)).constData()) << "there";
    }

    void browseWithoutABus()
    {
        avahi.failNext("client_new", AVAHI_ERR_DBUS_ERROR);
        ASSERT_TRUE(discovery().BrowseServices(HTTP));
    }

    QTimer* timer() { return discovery().findChild<QTimer*>(QStringLiteral("connectTimer")); }
    int waitsMs() { return timer()->isActive() ? timer()->interval() : -1; }
    void attemptInVain(int times = 1)
    {
        for (int i = 0; i < times; ++i) {
            avahi.failNext("client_new", AVAHI_ERR_DBUS_ERROR);
            timer()->stop();
            QMetaObject::invokeMethod(&discovery(), "connectToDaemon");
        }
    }

    /** The longest wait was reached before the daemon was there. */
    void runAfterManyAttempts()
    {
        useBusOfOurOwn();
        browseWithoutABus();
        attemptInVain(6);
        daemonRuns();
        timer()->stop();
        QMetaObject::invokeMethod(&discovery(), "connectToDaemon");
        ASSERT_EQ(discovery().state(), Managed::Running);
    }

    void loseDaemonInAnAttempt()
    {
        avahi.duringCall("service_browser_new", [this] { avahi.fireClientState(AVAHI_CLIENT_FAILURE); });
        avahi.failNext("service_browser_new", AVAHI_ERR_DISCONNECTED);
        EXPECT_TRUE(discovery().BrowseServices(HTTPS));
    }

    int count(const std::string& function)
    {
        int calls = 0;
        for (const std::string& call : takeCalls())
            calls += call.rfind(function + '(', 0) == 0 ? 1 : 0;
        return calls;
    }

    Lines states;

private:
    const QTemporaryDir m_folder;
};

// What an attempt took already counts.
const int ATTEMPT_MS = 50;

TEST_F(ManagedConnectionTest, StateTellsWhatBrowsingDoes)
{
    EXPECT_EQ(discovery().state(), Managed::Unavailable);
    run();
    EXPECT_EQ(states, (Lines{"Connecting", "Running"}));
    EXPECT_EQ(discovery().property("state").toInt(), 2);
}

TEST_F(ManagedConnectionTest, StateTellsOfARestart)
{
    run();
    states.clear();
    failClient();
    turn();
    EXPECT_EQ(states, (Lines{"Unavailable", "Connecting", "Running"}));
}

TEST_F(ManagedConnectionTest, LossIsToldBeforeTheNextAttempt)
{
    run();
    Lines callsBefore;
    QObject::connect(&discovery(), &Managed::stateChanged, [&](Managed::State state) {
        if (state == Managed::Unavailable)
            callsBefore = takeCalls();
    });
    failClient();
    turn();
    EXPECT_EQ(callsBefore, Lines{"client_free(client1)"});
}

// Browsers that are freed one by one would wait for a daemon that hangs or is gone.
TEST_F(ManagedConnectionTest, TerminatingAndDestructionCloseTheClientAlone)
{
    run();
    EXPECT_TRUE(discovery().BrowseServices(HTTPS));
    takeCalls();
    discovery().TerminateBrowsing();
    EXPECT_EQ(takeCalls(), Lines{"client_free(client1)"});
    EXPECT_EQ(avahi.liveHandles(), Lines());
    discovery().BrowseServices(HTTP);
    takeCalls();
    destroyDiscovery();
    EXPECT_EQ(takeCalls(), Lines{"client_free(client2)"});
    EXPECT_EQ(avahi.liveHandles(), Lines());
}

TEST_F(ManagedConnectionTest, NothingIsToldOfAttemptsWithoutABus)
{
    browseWithoutABus();
    attemptInVain(3);
    EXPECT_EQ(states, Lines());
}

TEST_F(ManagedConnectionTest, NothingIsToldOfABusWithoutADaemon)
{
    daemonIsAway();
    avahi.failNext("service_browser_new", AVAHI_ERR_BAD_STATE);
    discovery().BrowseServices(HTTP);
    EXPECT_EQ(states, Lines());
}

TEST_F(ManagedConnectionTest, DaemonThatCannotBrowseYetIsConnectedTo)
{
    daemonRuns();
    avahi.failNext("service_browser_new", AVAHI_ERR_TOO_MANY_OBJECTS);
    discovery().BrowseServices(HTTP);
    EXPECT_EQ(states, Lines{"Connecting"});
    EXPECT_NEAR(waitsMs(), 250, ATTEMPT_MS);
    turn(400);
    EXPECT_EQ(states, (Lines{"Connecting", "Running"}));
}

TEST_F(ManagedConnectionTest, DaemonThatHasNoNameYetIsBrowsed)
{
    for (const AvahiClientState state : {AVAHI_CLIENT_S_REGISTERING, AVAHI_CLIENT_S_COLLISION}) {
        discovery().TerminateBrowsing();
        states.clear();
        daemonIsAway();
        avahi.failNext("service_browser_new", AVAHI_ERR_BAD_STATE);
        discovery().BrowseServices(HTTP);
        avahi.fireClientState(state, liveClient());
        turn();
        EXPECT_EQ(states, (Lines{"Connecting", "Running"})) << state;
    }
}

TEST_F(ManagedConnectionTest, RetriesBackOffToEightSeconds)
{
    useBusOfOurOwn();
    browseWithoutABus();
    for (const int expected : {250, 500, 1000, 2000, 4000, 8000, 8000}) {
        EXPECT_NEAR(waitsMs(), expected, ATTEMPT_MS);
        attemptInVain();
    }
}

TEST_F(ManagedConnectionTest, BusThatCannotBeWatchedIsTriedWithinTwoSeconds)
{
    useAddress(QStringLiteral("tcp:host=localhost,port=1"));
    browseWithoutABus();
    for (const int expected : {250, 500, 1000, 1500, 1500}) {
        EXPECT_NEAR(waitsMs(), expected, ATTEMPT_MS);
        attemptInVain();
    }
}

TEST_F(ManagedConnectionTest, DaemonThatCannotBrowseIsTriedEveryEightSecondsAtLast)
{
    useAddress(QStringLiteral("tcp:host=localhost,port=1"));
    run();
    for (int i = 0; i < 6; ++i) {
        avahi.failNext("service_browser_new", AVAHI_ERR_TOO_MANY_OBJECTS);
        timer()->stop();
        discovery().BrowseServices(HTTPS);
    }
    EXPECT_NEAR(waitsMs(), 8000, ATTEMPT_MS);
}

TEST_F(ManagedConnectionTest, WaitCountsFromTheBeginOfTheAttempt)
{
    useBusOfOurOwn();
    browseWithoutABus();
    attemptInVain(2);
    avahi.duringCall("client_new", [] { QThread::msleep(400); });
    attemptInVain();
    EXPECT_NEAR(waitsMs(), 2000 - 400, ATTEMPT_MS);
}

TEST_F(ManagedConnectionTest, DaemonThatIsLostInAnAttemptIsTakenUpSoonThoughOthersFailedBefore)
{
    runAfterManyAttempts();
    loseDaemonInAnAttempt();
    EXPECT_NEAR(waitsMs(), 1500, ATTEMPT_MS);
}

TEST_F(ManagedConnectionTest, DaemonThatIsLostInAnAttemptAfterSomeTimeIsTakenUpAsIfForTheFirstTime)
{
    runAfterManyAttempts();
    turn(2100);
    loseDaemonInAnAttempt();
    EXPECT_NEAR(waitsMs(), 250, ATTEMPT_MS);
}

TEST_F(ManagedConnectionTest, AttemptThatHungForLongIsRepeatedSoon)
{
    useBusOfOurOwn();
    avahi.duringClientNew([this](AvahiClient*) {
        QThread::msleep(400);
        avahi.fireClientState(AVAHI_CLIENT_FAILURE);
    });
    discovery().BrowseServices(HTTP);
    EXPECT_EQ(waitsMs(), 250);
}

TEST_F(ManagedConnectionTest, ReturnOfTheBusEndsTheWait)
{
    useBusOfOurOwn();
    browseWithoutABus();
    attemptInVain(6);
    makeFile(QStringLiteral("bus"));
    QElapsedTimer waited;
    waited.start();
    while (waitsMs() > 250 && waited.elapsed() < 3000)
        turn();
    EXPECT_EQ(waitsMs(), 250);
    attemptInVain();
    EXPECT_NEAR(waitsMs(), 250, ATTEMPT_MS);
}

TEST_F(ManagedConnectionTest, ReturnOfTheBusDoesNotPostponeAnAttempt)
{
    useBusOfOurOwn();
    browseWithoutABus();
    QObject* const before = timer();
    const int id = timer()->timerId();
    QMetaObject::invokeMethod(&discovery(), "connectSoon");
    EXPECT_EQ(before, timer());
    EXPECT_EQ(timer()->timerId(), id);
}

TEST_F(ManagedConnectionTest, ReturnOfTheBusIsNoReasonToTryWhatIsNotWaitedFor)
{
    run();
    QMetaObject::invokeMethod(&discovery(), "connectSoon");
    EXPECT_EQ(waitsMs(), -1);
}

TEST_F(ManagedConnectionTest, BusyFolderOfTheBusChangesNothing)
{
    useBusOfOurOwn();
    browseWithoutABus();
    attemptInVain(3);
    for (int i = 0; i < 10; ++i) {
        makeFile(QString::number(i));
        turn(10);
    }
    EXPECT_NEAR(waitsMs(), 2000, ATTEMPT_MS);
}

/** Makes the socket of the bus when a message is written. */
class SocketMaker : public QIODevice
{
public:
    explicit SocketMaker(const std::function<void()>& make) : m_make(make)
    {
        open(QIODevice::WriteOnly | QIODevice::Unbuffered);
    }

protected:
    qint64 readData(char*, qint64) override { return -1; }
    qint64 writeData(const char* data, qint64 size) override
    {
        if (QByteArray(data, int(size)).contains("could not create Avahi client"))
            m_make();
        return size;
    }

private:
    const std::function<void()> m_make;
};

TEST_F(ManagedConnectionTest, BusThatReturnsDuringTheAttemptIsNoticed)
{
    useBusOfOurOwn();
    browseWithoutABus();
    attemptInVain(5);
    SocketMaker maker([this] { makeFile(QStringLiteral("bus")); });
    QTextStream stream(&maker);
    vd::LogQt::setStream(&stream);
    attemptInVain();
    vd::LogQt::setStream(nullptr);
    EXPECT_TRUE(QFile::exists(socket()));
    EXPECT_EQ(waitsMs(), 250);
}

TEST_F(ManagedConnectionTest, BusIsNotWatchedOnceItIsThere)
{
    useBusOfOurOwn();
    browseWithoutABus();
    daemonIsAway();
    avahi.failNext("service_browser_new", AVAHI_ERR_BAD_STATE);
    timer()->stop();
    QMetaObject::invokeMethod(&discovery(), "connectToDaemon");
    avahi.fireClientState(AVAHI_CLIENT_S_RUNNING, 1);
    avahi.failNext("service_browser_new", AVAHI_ERR_TOO_MANY_OBJECTS);
    turn();
    timer()->start(5000);
    makeFile(QStringLiteral("bus"));
    turn(50);
    EXPECT_EQ(waitsMs(), 5000);
}

TEST_F(ManagedConnectionTest, TerminatingEndsTheWaitAndTheWatch)
{
    useBusOfOurOwn();
    browseWithoutABus();
    discovery().TerminateBrowsing();
    EXPECT_EQ(waitsMs(), -1);
    timer()->start(5000);
    makeFile(QStringLiteral("bus"));
    turn(50);
    EXPECT_EQ(waitsMs(), 5000);
    timer()->stop();
    browseWithoutABus();
    EXPECT_NEAR(waitsMs(), 250, ATTEMPT_MS);
}

TEST_F(ManagedConnectionTest, ConnectionThatLastedIsTriedAgainAtOnce)
{
    run();
    failClient(1);
    turn();
    failClient(2);
    turn();
    EXPECT_EQ(waitsMs(), 250);
    turn(400);
    EXPECT_EQ(discovery().state(), Managed::Running);
    turn(2100);
    takeCalls();
    failClient(3);
    turn();
    EXPECT_EQ(count("client_new"), 1);
    EXPECT_EQ(waitsMs(), -1);
}

TEST_F(ManagedConnectionTest, LostConnectionIsToldThoughTheNextAttemptHasToWait)
{
    run();
    failClient(1);
    turn();
    takeCalls();
    states.clear();
    failClient(2);
    turn();
    EXPECT_EQ(states, Lines{"Unavailable"});
    EXPECT_EQ(discovery().openObjects(), 0);
    EXPECT_EQ(count("client_new"), 0);
}

TEST_F(ManagedConnectionTest, OneLossBacksOffOnce)
{
    run();
    avahi.fireBrowse(avahi.browser(), AVAHI_BROWSER_FAILURE, 2, 0, nullptr, nullptr, nullptr);
    failClient();
    turn();
    failClient(2);
    turn();
    EXPECT_EQ(waitsMs(), 250);
}

TEST_F(ManagedConnectionTest, FailureOfAClientThatIsFreedIsNotThatOfTheNext)
{
    run();
    avahi.duringClientFree([this] {
        avahi.fireClientState(AVAHI_CLIENT_FAILURE, 1);
        avahi.duringClientFree(nullptr);
    });
    failClient();
    turn();
    EXPECT_EQ(discovery().state(), Managed::Running);
    EXPECT_EQ(waitsMs(), -1);
    turn(20);
    EXPECT_EQ(count("client_new"), 1);
}

TEST_F(ManagedConnectionTest, FailureDuringAnAttemptIsFollowedByAnother)
{
    avahi.duringClientNew([this](AvahiClient*) { avahi.fireClientState(AVAHI_CLIENT_FAILURE); });
    discovery().BrowseServices(HTTP);
    EXPECT_EQ(discovery().state(), Managed::Unavailable);
    EXPECT_NEAR(waitsMs(), 250, ATTEMPT_MS);
    avahi.duringClientNew([this](AvahiClient*) { avahi.fireClientState(AVAHI_CLIENT_S_RUNNING, 2); });
    turn(400);
    EXPECT_EQ(discovery().state(), Managed::Running);
    EXPECT_EQ(states, (Lines{"Connecting", "Running"}));
}

TEST_F(ManagedConnectionTest, BrowsingWithoutADaemonBeginsWhenItIsThere)
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

TEST_F(ManagedConnectionTest, BrowsingWithoutABusIsTriedAgain)
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

TEST_F(ManagedConnectionTest, RetriesBackOff)
{
    for (int i = 0; i < 20; ++i) {
        avahi.failNext("client_new", AVAHI_ERR_DBUS_ERROR);
        discovery().BrowseServices(HTTP);
        turn(100);
    }
    // At 0, 250, 750 and 1750 ms.
    EXPECT_EQ(takeCalls(), Lines(4, "client_new(poll, 2) = null"));
}

TEST_F(ManagedConnectionTest, ReturnOfTheBusIsNoticed)
{
    useBusOfOurOwn();
    browseWithoutABus();
    attemptInVain(5);
    takeCalls();
    daemonRuns();
    makeFile(QStringLiteral("bus"));
    turn(600);
    EXPECT_EQ(discovery().state(), Managed::Running);
}

TEST_F(ManagedConnectionTest, ConnectionThatIsLostAgainAndAgainIsTakenUpWithinTwoSeconds)
{
    run();
    for (int client = 1; client <= 7; ++client) {
        failClient(client);
        QElapsedTimer away;
        away.start();
        const std::string next = "client" + std::to_string(client + 1);
        while (liveCount(next.c_str()) == 0 && away.elapsed() < 10000)
            turn(10);
        EXPECT_LT(away.elapsed(), 2000) << client;
    }
}

TEST_F(ManagedConnectionTest, EveryTypeIsBrowsedAgainAfterAFailure)
{
    run();
    discovery().BrowseServices(HTTPS);
    takeCalls();
    failClient();
    EXPECT_EQ(takeCalls(), Lines());
    turn();
    EXPECT_EQ(takeCalls(), (Lines{"client_free(client1)", "client_new(poll, 2) = client2",
                                  "service_browser_new(client2, -1, -1, \"_http._tcp\", null, 2) = browser3",
                                  "service_browser_new(client2, -1, -1, \"_https._tcp\", null, 2) = browser4"}));
    EXPECT_TRUE(discovery().IsBrowsing());
}

TEST_F(ManagedConnectionTest, DevicesThatComeBackUnchangedCauseNoSignal)
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

TEST_F(ManagedConnectionTest, DevicesThatDoNotComeBackAreLostOnceAfterTheGracePeriod)
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

TEST_F(ManagedConnectionTest, GracePeriodCountsFromWhenTheDaemonIsReady)
{
    discovery().setGracePeriod(400);
    run();
    found();
    daemonIsAway();
    avahi.failNext("service_browser_new", AVAHI_ERR_BAD_STATE);
    failClient();
    turn(600);
    daemonRuns();
    avahi.fireClientState(AVAHI_CLIENT_S_RUNNING, liveClient());
    turn(200);
    EXPECT_EQ(discovery().state(), vd::ManagedServiceDiscovery::Running);
    EXPECT_EQ(takeSignals(), Lines());
    awaitLoss();
}

TEST_F(ManagedConnectionTest, QueriesWithoutADaemonMakeNoClients)
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

TEST_F(ManagedConnectionTest, DaemonThatFailsAgainAndAgainIsNotTriedWithoutAPause)
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

TEST_F(ManagedConnectionTest, FurtherTypeThatFailsOnceIsBrowsedLater)
{
    run();
    avahi.failNext("service_browser_new", AVAHI_ERR_TOO_MANY_OBJECTS);
    EXPECT_TRUE(discovery().BrowseServices(HTTPS));
    turn(400);
    EXPECT_EQ(discovery().state(), vd::ManagedServiceDiscovery::Running);
    EXPECT_EQ(liveCount("browser"), 2);
}

TEST_F(ManagedConnectionTest, DevicesAreQueriedThoughAFurtherTypeCannotBeBrowsed)
{
    run();
    found();
    avahi.failNext("service_browser_new", AVAHI_ERR_TOO_MANY_OBJECTS);
    discovery().BrowseServices(HTTPS);
    EXPECT_EQ(discovery().state(), vd::ManagedServiceDiscovery::Connecting);
    takeCalls();
    QMetaObject::invokeMethod(&discovery(), "queryNextInTurn");
    turn(1100);
    EXPECT_EQ(count("service_resolver_new"), 1);
}

TEST_F(ManagedConnectionTest, QueryWithoutABusIsMadeWhenThereIsOne)
{
    avahi.failNext("client_new", AVAHI_ERR_DBUS_ERROR);
    discovery().BrowseServices(HTTP);
    EXPECT_TRUE(discovery().StartQueryRecords("Cam", HTTP, true));
    daemonRuns();
    turn(400);
    EXPECT_EQ(answerResolvers(), Lines{"Cam"});
}

TEST_F(ManagedConnectionTest, LongLivedQueryOfAServiceThatIsNotBrowsedIsResumed)
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
              newResolverAnywhere("Cam", 2, HTTPS, 2));
    turn(100);
    EXPECT_EQ(takeSignals(), Lines());
}

TEST_F(ManagedConnectionTest, TerminatingForgetsEverything)
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

TEST_F(ManagedConnectionTest, BrowsingThatAHandlerEndsMeanwhileHasNotBegun)
{
    avahi.duringClientNew([this](AvahiClient*) { discovery().TerminateBrowsing(); });
    EXPECT_FALSE(discovery().BrowseServices(HTTP));
    EXPECT_FALSE(discovery().IsBrowsing());
    EXPECT_EQ(avahi.liveHandles(), Lines());
}

TEST_F(ManagedConnectionTest, GracePeriodIsFifteenSecondsUnlessItIsSet)
{
    EXPECT_EQ(discovery().gracePeriod(), 15000);
    discovery().setGracePeriod(-1);
    EXPECT_EQ(discovery().gracePeriod(), 0);
}

TEST_F(ManagedConnectionTest, PortThatChangedDuringARestartIsSignalled)
{
    seenAgainAfterARestart();
    resolved(2, "Cam", "cam.local", "10.0.0.1", cameraTxt, HTTP, 8080);
    EXPECT_EQ(takeSignals(),
              Lines{"text " + camera("Cam", "cam.local", "addresses=[10.0.0.1] port=8080 " + known)});
}

TEST_F(ManagedConnectionTest, HostThatChangedDuringARestartIsSignalled)
{
    seenAgainAfterARestart();
    resolved(2, "Cam", "new.local", "10.0.0.1", cameraTxt);
    EXPECT_EQ(takeSignals(), Lines{"text " + camera("Cam", "new.local", "addresses=[10.0.0.1] " + known)});
}

TEST_F(ManagedConnectionTest, WhatTheEventLoopWasHeldUpForIsNoPartOfTheGracePeriod)
{
    discovery().setGracePeriod(200);
    run();
    found();
    failClient();
    turn();
    // In time, and behind other work.
    QTimer::singleShot(210, &discovery(), [this] { appearsOn("Cam", 2, AVAHI_PROTO_INET, HTTP, 2); });
    QThread::msleep(500);
    turn(500);
    EXPECT_EQ(takeSignals(), Lines());
    EXPECT_EQ(table().size(), 1u);
}

TEST_F(ManagedConnectionTest, GracePeriodEndsThoughTheEventLoopIsHeldUpAgainAndAgain)
{
    discovery().setGracePeriod(1);
    run();
    found();
    failClient();
    turn();
    int holdUps = 0;
    for (; holdUps < 40 && !table().empty(); ++holdUps) {
        QThread::msleep(110);
        turn();
    }
    EXPECT_EQ(takeSignals().size(), 1u);
    EXPECT_GE(holdUps, 30);
}

TEST_F(ManagedConnectionTest, LongGracePeriodIsKept)
{
    discovery().setGracePeriod(1500);
    run();
    found();
    failClient();
    turn(1300);
    EXPECT_EQ(takeSignals(), Lines());
    turn(600);
    EXPECT_EQ(takeSignals().size(), 1u);
}

TEST_F(ManagedConnectionTest, HoldUpCountsForOneStepOfALongGracePeriod)
{
    discovery().setGracePeriod(1400);
    run();
    found();
    failClient();
    turn();
    QThread::msleep(1600);
    turn(200);
    EXPECT_EQ(takeSignals(), Lines());
    turn(600);
    EXPECT_EQ(takeSignals().size(), 1u);
}

/** What a slot of stateChanged may do, for each state. */
class ManagedStateSlotTest : public ManagedConnectionTest, public testing::WithParamInterface<const char*>
{
protected:
    /** Lets the slot do @p action once, when it is told the state. */
    void cause(const std::function<void()>& action)
    {
        const bool isLoss = std::string(GetParam()) == "Unavailable";
        if (isLoss)
            run();
        connection = QObject::connect(&discovery(), &Managed::stateChanged, [this, action] {
            if (states.back() != GetParam())
                return;
            QObject::disconnect(connection);
            ran = true;
            action();
        });
        daemonRuns();
        if (isLoss) {
            failClient();
            turn();
        } else {
            discovery().BrowseServices(HTTP);
        }
        EXPECT_TRUE(ran);
    }

    QMetaObject::Connection connection;
    bool ran = false;
};

INSTANTIATE_TEST_SUITE_P(EveryState, ManagedStateSlotTest, testing::Values("Unavailable", "Connecting", "Running"),
                         [](const testing::TestParamInfo<const char*>& state) { return std::string(state.param); });

TEST_P(ManagedStateSlotTest, TerminatingLeavesNothing)
{
    cause([this] { discovery().TerminateBrowsing(); });
    turn(20);
    EXPECT_EQ(avahi.liveHandles(), Lines());
    EXPECT_EQ(discovery().state(), Managed::Unavailable);
    EXPECT_EQ(waitsMs(), -1);
}

TEST_P(ManagedStateSlotTest, DeletingIsSurvived)
{
    cause([this] { destroyDiscovery(); });
    EXPECT_EQ(avahi.liveHandles(), Lines());
}

TEST_P(ManagedStateSlotTest, StartingAnewBrowsesOnce)
{
    cause([this] {
        discovery().TerminateBrowsing();
        discovery().BrowseServices(HTTPS);
    });
    turn(20);
    EXPECT_EQ(discovery().state(), Managed::Running);
    EXPECT_EQ(liveCount("client"), 1);
    EXPECT_EQ(liveCount("browser"), 1);
}

TEST_P(ManagedStateSlotTest, AnotherTypeIsBrowsedOnce)
{
    cause([this] { discovery().BrowseServices(HTTPS); });
    turn(20);
    EXPECT_EQ(discovery().state(), Managed::Running);
    EXPECT_EQ(liveCount("browser"), 2);
}

TEST_P(ManagedStateSlotTest, EventLoopInTheSlotIsSurvived)
{
    cause([this] {
        discovery().BrowseServices(HTTPS);
        turn(20);
    });
    turn(20);
    EXPECT_EQ(discovery().state(), Managed::Running);
    EXPECT_EQ(liveCount("client"), 1);
    EXPECT_EQ(liveCount("browser"), 2);
}

TEST_P(ManagedStateSlotTest, ConnectionThatIsLostInTheSlotIsMadeAgain)
{
    cause([this] {
        if (liveCount("client"))
            failClient(liveClient());
    });
    turn(20);
    EXPECT_EQ(discovery().state(), Managed::Running);
    EXPECT_EQ(liveCount("client"), 1);
    EXPECT_EQ(liveCount("browser"), 1);
}

TEST_P(ManagedStateSlotTest, TerminatingInAnEventLoopOfTheSlotLeavesNothing)
{
    cause([this] {
        QTimer::singleShot(0, &discovery(), [this] { discovery().TerminateBrowsing(); });
        turn(20);
    });
    turn(20);
    EXPECT_EQ(avahi.liveHandles(), Lines());
    EXPECT_EQ(discovery().state(), Managed::Unavailable);
}

TEST_F(ManagedConnectionTest, GracePeriodBeginsOnceThoughASlotLetsBrowsingBegin)
{
    discovery().setGracePeriod(150);
    run();
    found();
    failClient();
    const auto connection = std::make_shared<QMetaObject::Connection>();
    *connection = QObject::connect(&discovery(), &Managed::stateChanged, [this, connection](Managed::State state) {
        if (state != Managed::Connecting)
            return;
        QObject::disconnect(*connection);
        discovery().BrowseServices(HTTPS);
        turn(120);
    });
    turn();
    turn(100);
    EXPECT_EQ(takeSignals().size(), 1u);
}

/** What a host's handler may do inside each change of the client's state. */
class ManagedClientHandlerTest : public ManagedConnectionTest, public testing::WithParamInterface<const char*>
{
protected:
    ManagedClientHandlerTest() : host(new OverridingDiscovery) {}
    ~ManagedClientHandlerTest() override
    {
        host.reset();
        EXPECT_EQ(avahi.liveHandles(), Lines());
    }

    /** Lets the handler do @p action in the change under test. */
    void cause(const std::function<void()>& action)
    {
        daemonRuns();
        if (std::string(GetParam()) == "NewClient") {
            act(action);
            hasBegun = host->BrowseServices(HTTP);
        } else {
            hasBegun = host->BrowseServices(HTTP);
            act(action);
            const bool isFailure = std::string(GetParam()) == "Failure";
            avahi.fireClientState(isFailure ? AVAHI_CLIENT_FAILURE : AVAHI_CLIENT_S_REGISTERING);
        }
        EXPECT_TRUE(ran);
        turn(20);
    }

    /** What BrowseServices() returned, in which a new client is made. */
    void expectBegun(bool withinNewClient)
    {
        EXPECT_EQ(hasBegun, withinNewClient || GetParam() != std::string("NewClient"));
    }

    std::unique_ptr<OverridingDiscovery> host;

private:
    void act(const std::function<void()>& action)
    {
        host->onClientState = [this, action](AvahiClientState) {
            ran = true;
            action();
        };
    }

    bool ran = false;
    bool hasBegun = false;
};

INSTANTIATE_TEST_SUITE_P(EveryChange, ManagedClientHandlerTest, testing::Values("NewClient", "Renamed", "Failure"),
                         [](const testing::TestParamInfo<const char*>& change) { return std::string(change.param); });

TEST_P(ManagedClientHandlerTest, EndingLeavesNothing)
{
    cause([this] { host->TerminateBrowsing(); });
    expectBegun(false);
    EXPECT_EQ(avahi.liveHandles(), Lines());
    EXPECT_EQ(host->state(), Managed::Unavailable);
    EXPECT_FALSE(host->IsBrowsing());
}

TEST_P(ManagedClientHandlerTest, BeginningAnewBrowsesOnce)
{
    cause([this] {
        host->TerminateBrowsing();
        EXPECT_TRUE(host->BrowseServices(HTTPS));
    });
    expectBegun(false);
    EXPECT_EQ(host->state(), Managed::Running);
    EXPECT_EQ(liveCount("client"), 1);
    EXPECT_EQ(liveCount("browser"), 1);
}

TEST_P(ManagedClientHandlerTest, AnotherTypeIsBrowsedOnce)
{
    cause([this] { EXPECT_TRUE(host->BrowseServices(HTTPS)); });
    expectBegun(true);
    EXPECT_EQ(host->state(), Managed::Running);
    EXPECT_EQ(liveCount("browser"), 2);
}

TEST_P(ManagedClientHandlerTest, ServiceThatIsRegisteredIsPublishedWhenTheHostHasItsName)
{
    cause([this] { EXPECT_TRUE(host->RegisterService("Setup", "_reconf._tcp", vd::SReconfigInfo())); });
    EXPECT_TRUE(host->IsRegistered());
    EXPECT_EQ(liveCount("group"), GetParam() == std::string("Renamed") ? 0 : 1);
    avahi.fireClientState(AVAHI_CLIENT_S_RUNNING, liveClient());
    turn();
    EXPECT_EQ(liveCount("group"), 1);
}

TEST_P(ManagedClientHandlerTest, DeletingIsSurvived)
{
    cause([this] { host.reset(); });
    expectBegun(false);
    EXPECT_EQ(avahi.liveHandles(), Lines());
}
