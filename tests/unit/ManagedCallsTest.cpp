// SPDX-License-Identifier: MIT
#include "support/BusStandIn.h"
#include "support/ManagedFixture.h"

#include <QtCore/QIODevice>
#include <QtCore/QTimer>

#include <algorithm>
#include <atomic>

/** Managed discovery with a bus, over which the daemon answers when the test says so. */
class ManagedCallsTest : public ManagedTest
{
protected:
    // Before the bus, which tells of a connection that is left open.
    ~ManagedCallsTest() override { destroyDiscovery(); }

    // These make no calls by themselves.
    using ManagedDiscoveryTest::disappears;
    using ManagedDiscoveryTest::resolved;

    /** Runs what waits for the event loop; calls that wait for an answer go on waiting. */
    void turn(int milliseconds = 0)
    {
        QElapsedTimer waited;
        waited.start();
        do {
            QCoreApplication::processEvents();
            QCoreApplication::processEvents();
            QThread::msleep(waited.elapsed() < milliseconds ? 1 : 0);
        } while (waited.elapsed() < milliseconds || areCallsDue() || areCallsMade());
    }

    /** Lets so much time pass without a call that the daemon has to be asked before the next one. */
    void letTimePass() { turn(2 * RECENT_MS); }

    /** Runs the event loop until the daemon is asked; returns how often it was. */
    size_t awaitQuestion()
    {
        QElapsedTimer waited;
        waited.start();
        Lines questions;
        while (questions.empty() && waited.elapsed() < LONG_MS) {
            turn();
            questions = bus.takeQuestions();
        }
        return questions.size();
    }

    /** Answers what is asked until there is nothing left to be done. */
    void answerAllQuestions()
    {
        do {
            answer();
            letTimePass();
        } while (!bus.takeQuestions().empty());
    }

    void answer()
    {
        bus.answer();
        turn();
    }

    /** Runs the event loop until there are calls; returns them. */
    Lines awaitCalls()
    {
        QElapsedTimer waited;
        waited.start();
        Lines calls;
        while (calls.empty() && waited.elapsed() < LONG_MS) {
            beforeCalls.start();
            turn();
            calls = takeCalls();
        }
        return calls;
    }

    void appear(int first, int last)
    {
        for (int number = first; number <= last; ++number)
            appears(camName(number).c_str());
    }

    /** A camera found with resolver and record browser 1, both of which a query keeps open. */
    void keepQuery()
    {
        run();
        appears("Cam");
        EXPECT_TRUE(discovery().StartQueryRecords("Cam", HTTP, true));
        awaitQuestion();
        answer();
        letTimePass();
        resolved(1, "Cam", "cam.local", "10.0.0.1", cameraTxt);
        awaitQuestion();
        answer();
        letTimePass();
        EXPECT_EQ(avahi.liveHandles(), (Lines{"client1", "browser1", "resolver1", "recordBrowser1"}));
        forgetAll();
    }

    /** A camera was found, and after a new connection is not seen again. */
    void loseConnectionAndCamera(int graceMs)
    {
        discovery().setGracePeriod(graceMs);
        run();
        appears("Cam");
        awaitQuestion();
        answer();
        resolved(1, "Cam", "cam.local", "10.0.0.1", cameraTxt);
        answerAllQuestions();
        failClient();
        takeSignals();
    }

    /** A call failed for a daemon that hangs, which is asked for the first time since. */
    void hangInACall()
    {
        run();
        appears("Cam");
        awaitQuestion();
        avahi.failNext("service_resolver_new", AVAHI_ERR_DBUS_ERROR);
        answer();
        EXPECT_EQ(awaitQuestion(), 1u);
        forgetAll();
    }

    /** The client that failed was left for the next one, and nothing else was called of it. */
    void expectConnectedAnew()
    {
        const Lines calls = takeCalls();
        EXPECT_EQ(count(calls, "service_browser_free"), 0);
        EXPECT_EQ(count(calls, "client_free(client1)"), 1);
        EXPECT_EQ(count(calls, "client_new"), 1);
        EXPECT_EQ(count(calls, "service_browser_new(client2"), 1);
    }

    /** Answers what @p first asks; what @p next leads to right afterwards are so many @p calls and no question. */
    void expectNoQuestionRightAfterTheAnswerTo(const std::function<void()>& first,
                                               const std::function<void()>& next, size_t calls)
    {
        qint64 between = RECENT_MS;
        for (int attempt = 1; attempt <= ATTEMPTS && between >= RECENT_MS; ++attempt) {
            first();
            QElapsedTimer sinceAnswer;
            sinceAnswer.start();
            answer();
            next();
            turn();
            between = sinceAnswer.elapsed();
            if (between < RECENT_MS) {
                EXPECT_EQ(takeCalls().size(), calls);
                EXPECT_EQ(bus.takeQuestions(), Lines());
            } else {
                awaitQuestion();
                answer();
                letTimePass();
            }
        }
        EXPECT_LT(between, RECENT_MS) << "the machine was never fast enough";
    }

    // What the library goes by.
    static constexpr int RECENT_MS = 10;
    static constexpr int TIME_TO_ANSWER_MS = 20;
    static constexpr size_t MOST_UNSETTLED = 16;

    static constexpr int LONG_MS = 5000;
    // A machine that is busy may take longer now and then than a test can bear.
    static constexpr int ATTEMPTS = 20;

    BusStandIn bus;
    /** When the turn of the event loop began in which there were calls. */
    QElapsedTimer beforeCalls;
};

// Asking first.

TEST_F(ManagedCallsTest, DaemonIsAskedBeforeTheFirstCall)
{
    run();
    appears("Cam");
    EXPECT_EQ(awaitQuestion(), 1u);
    turn(50);
    EXPECT_EQ(takeCalls(), Lines());
    answer();
    EXPECT_EQ(takeCalls(), Lines{newResolver("Cam", 1)});
}

TEST_F(ManagedCallsTest, DaemonIsNotAskedWhenThereIsNothingToCall)
{
    run();
    turn(50);
    EXPECT_EQ(bus.takeQuestions(), Lines());
}

TEST_F(ManagedCallsTest, WhatHappensMeanwhileIsWorkedOffAfterTheAnswer)
{
    run();
    appears("Cam");
    appears("Other");
    awaitQuestion();
    answer();
    EXPECT_EQ(takeCalls(), (Lines{newResolver("Cam", 1), newResolver("Other", 2)}));
    letTimePass();

    discovery().StartQueryRecords("Third", HTTP, false);
    EXPECT_EQ(awaitQuestion(), 1u);
    resolved(1, "Cam", "cam.local", "10.0.0.1", cameraTxt);
    resolved(2, "Other", "other.local", "10.0.0.2", cameraTxt);
    disappears("Other");
    discovery().StartQueryRecords("Cam", HTTP, false);
    appears("Fourth");
    turn(50);
    EXPECT_EQ(takeCalls(), Lines());
    EXPECT_EQ(bus.takeQuestions(), Lines());

    answer();
    EXPECT_EQ(takeCalls(), (Lines{"service_resolver_free(resolver1)", "service_resolver_free(resolver2)",
                                  "record_browser_new(client1, -1, -1, \"cam.local\", 1, 1, 2) = recordBrowser1",
                                  newResolverAnywhere("Third", 3), newResolver("Cam", 4), newResolver("Fourth", 5)}));
}

TEST_F(ManagedCallsTest, ServiceThatGoesBeforeTheAnswerIsNotResolved)
{
    run();
    appears("Cam");
    awaitQuestion();
    disappears("Cam");
    answer();
    EXPECT_EQ(takeCalls(), Lines());
}

TEST_F(ManagedCallsTest, CallsRightAfterAnotherNeedNoQuestion)
{
    run();
    int number = 0;
    expectNoQuestionRightAfterTheAnswerTo([&] {
                                              appears(camName(++number).c_str());
                                              awaitQuestion();
                                          },
                                          [&] {
                                              resolved(number, camName(number).c_str(), "cam.local", "10.0.0.1",
                                                       cameraTxt);
                                              takeCalls();
                                          },
                                          2);
}

TEST_F(ManagedCallsTest, CallsRightAfterAnAnswerThatNobodyNeededNeedNoQuestion)
{
    run();
    appears("Cam");
    awaitQuestion();
    answer();
    letTimePass();
    expectNoQuestionRightAfterTheAnswerTo(
        [this] {
            appears("Other");
            awaitQuestion();
            disappears("Other");
            takeCalls();
        },
        [this] { discovery().StartQueryRecords("Third", HTTP, false); }, 1);
}

TEST_F(ManagedCallsTest, CallsSomeTimeAfterAnotherNeedAQuestion)
{
    run();
    appears("Cam");
    awaitQuestion();
    answer();
    forgetAll();
    turn(RECENT_MS);
    resolved(1, "Cam", "cam.local", "10.0.0.1", cameraTxt);
    turn();
    EXPECT_EQ(bus.takeQuestions().size(), 1u);
    EXPECT_EQ(takeCalls(), Lines());
}

TEST_F(ManagedCallsTest, NoMoreThanSomeResolversAreUnansweredBetweenTwoAnswers)
{
    run();
    appear(1, 40);
    EXPECT_EQ(awaitQuestion(), 1u);
    for (const size_t made : {MOST_UNSETTLED, MOST_UNSETTLED, 40 - 2 * MOST_UNSETTLED}) {
        answer();
        turn(50);
        EXPECT_EQ(takeCalls().size(), made);
        // It is asked for the next ones at once, and for nothing once all are made.
        EXPECT_EQ(bus.takeQuestions().size(), made == MOST_UNSETTLED ? 1u : 0u);
    }
    EXPECT_EQ(liveCount("resolver"), 40);
}

TEST_F(ManagedCallsTest, ResolversThatAreAnsweredMakeRoomForNoneBeforeTheDaemonAnswers)
{
    run();
    appear(1, 40);
    awaitQuestion();
    answer();
    EXPECT_EQ(answerResolvers().size(), MOST_UNSETTLED);
    turn(50);
    EXPECT_EQ(takeCalls(), Lines());
    answer();
    turn(50);
    const Lines calls = takeCalls();
    EXPECT_EQ(std::count_if(calls.begin(), calls.end(),
                            [](const std::string& call) { return call.rfind("service_resolver_new", 0) == 0; }),
              int(MOST_UNSETTLED));
}

// A daemon that hangs.

TEST_F(ManagedCallsTest, OperationsCallNothingOfADaemonThatHangs)
{
    keepQuery();
    EXPECT_TRUE(discovery().StartQueryRecords("Cam", HTTP, true));
    EXPECT_EQ(awaitQuestion(), 1u);
    EXPECT_TRUE(discovery().StartQueryRecords("Other", HTTPS, false));
    EXPECT_TRUE(discovery().ResolveService(2, "Third", HTTP, "local"));
    discovery().StopQueryRecords("Cam", HTTP);
    discovery().setObjectLimit(8);
    discovery().setObjectLimit(512);
    turn(300);
    EXPECT_EQ(takeCalls(), Lines());
    EXPECT_EQ(bus.takeQuestions(), Lines());
    EXPECT_TRUE(discovery().IsBrowsing());

    answer();
    EXPECT_EQ(takeCalls(),
              (Lines{"service_resolver_free(resolver1)", newResolver("Cam", 2), newResolverAnywhere("Other", 3, HTTPS),
                     newResolverAnywhere("Third", 4)}));
}

TEST_F(ManagedCallsTest, OperationsCallNothingBeforeTheEventLoopRuns)
{
    keepQuery();
    discovery().StartQueryRecords("Cam", HTTP, true);
    discovery().ResolveService(2, "Other", HTTP, "local");
    discovery().StopQueryRecords("Cam", HTTP);
    discovery().setObjectLimit(8);
    EXPECT_EQ(takeCalls(), Lines());
    EXPECT_EQ(bus.takeQuestions(), Lines());
}

TEST_F(ManagedCallsTest, DestructionWaitsForNoAnswer)
{
    keepQuery();
    discovery().StartQueryRecords("Cam", HTTP, false);
    EXPECT_EQ(awaitQuestion(), 1u);
    destroyDiscovery();
    EXPECT_EQ(bus.openConnections(), 0);
}

// Restarts.

TEST_F(ManagedCallsTest, RestartForgetsTheQuestionAndBeginsAnew)
{
    run();
    appears("Cam");
    EXPECT_EQ(awaitQuestion(), 1u);
    failClient();
    turn();
    EXPECT_EQ(bus.openConnections(), 1);
    takeCalls();
    letTimePass();
    EXPECT_EQ(bus.takeQuestions(), Lines());

    appearsOn("Cam", 2, AVAHI_PROTO_INET, HTTP, 2);
    EXPECT_EQ(awaitQuestion(), 1u);
    EXPECT_EQ(takeCalls(), Lines());
    answer();
    EXPECT_EQ(takeCalls(), Lines{resolverCall(2, 2, AVAHI_PROTO_INET, "Cam", HTTP) + '1'});
}

TEST_F(ManagedCallsTest, RestartForgetsWhatAppearedBefore)
{
    run();
    letTimePass();
    appear(1, 4);
    failClient();
    turn();
    EXPECT_EQ(bus.takeQuestions(), Lines());
    discovery().StartQueryRecords("Cam1", HTTP, false);
    turn();
    EXPECT_EQ(bus.takeQuestions().size(), 1u);
}

TEST_F(ManagedCallsTest, NothingIsAskedOrCalledBetweenTheFailureAndTheNextClient)
{
    run();
    appears("Cam");
    awaitQuestion();
    avahi.failNext("client_new", AVAHI_ERR_NO_DAEMON);
    failClient();
    bus.answer();
    turn(50);
    takeCalls();
    discovery().StartQueryRecords("Cam", HTTP, false);
    turn(50);
    EXPECT_EQ(bus.takeQuestions(), Lines());
    EXPECT_EQ(takeCalls(), Lines());
}

TEST_F(ManagedCallsTest, GracePeriodEndsWhenTheDaemonAnswersInTimeOnly)
{
    loseConnectionAndCamera(50);
    EXPECT_EQ(awaitQuestion(), 1u);
    turn(300);
    EXPECT_EQ(takeSignals(), Lines());
    answer();
    EXPECT_EQ(takeSignals(), Lines());
    EXPECT_EQ(awaitQuestion(), 1u);
    answer();
    EXPECT_EQ(count(takeSignals(), "lost"), 1);
}

// Which may be told before the client's own loss.
TEST_F(ManagedCallsTest, GracePeriodDoesNotEndAsTheDaemonIsGone)
{
    loseConnectionAndCamera(1000);
    EXPECT_EQ(awaitQuestion(), 1u);
    bus.answerWithError(DBUS_ERROR_NO_REPLY);
    turn();
    EXPECT_EQ(takeSignals(), Lines());
    // It is asked once more, a step later.
    EXPECT_EQ(awaitQuestion(), 1u);
    answer();
    EXPECT_EQ(count(takeSignals(), "lost"), 1);
}

TEST_F(ManagedCallsTest, GracePeriodEndsThoughTheDaemonMayNotBeAsked)
{
    loseConnectionAndCamera(10);
    int refusals = 0;
    int losses = 0;
    while (losses == 0 && refusals < 100 && awaitQuestion() == 1) {
        ++refusals;
        bus.answerWithError(DBUS_ERROR_ACCESS_DENIED);
        turn();
        losses = count(takeSignals(), "lost");
    }
    EXPECT_EQ(losses, 1);
    EXPECT_EQ(refusals, 31);
}

TEST_F(ManagedCallsTest, ObjectMayBeDeletedWhenADeviceIsLostAsItsServiceIsRefusedAfterTheAnswer)
{
    keepQuery();
    appears("Other");
    awaitQuestion();
    answer();
    letTimePass();
    resolved(2, "Other", "other.local", "10.0.0.2", cameraTxt);
    answerAllQuestions();
    avahi.failNext("service_resolver_new", AVAHI_ERR_INVALID_SERVICE_NAME);
    letTimePass();
    discovery().StartQueryRecords("Other", HTTP, false);
    awaitQuestion();
    runInSlotOf([this] { answer(); }, [this] { destroyDiscovery(); });
    EXPECT_EQ(avahi.liveHandles(), Lines());
}

TEST_F(ManagedCallsTest, TerminatingLeavesTheBus)
{
    run();
    EXPECT_EQ(bus.openConnections(), 1);
    discovery().TerminateBrowsing();
    EXPECT_EQ(bus.openConnections(), 0);
}

TEST_F(ManagedCallsTest, TerminatingLeavesTheBusWhileTheDaemonIsAskedToo)
{
    run();
    appears("Cam");
    awaitQuestion();
    bus.answer();
    discovery().TerminateBrowsing();
    EXPECT_EQ(bus.openConnections(), 0);
    takeCalls();
    turn(50);
    EXPECT_EQ(takeCalls(), Lines());
}

// No connection of its own to the bus.

TEST_F(ManagedCallsTest, WithoutTheBusTheDaemonIsLeftTheTimeToAnswer)
{
    bus.failNext("bus_get_private");
    run();
    appear(1, 40);
    EXPECT_EQ(awaitCalls().size(), MOST_UNSETTLED);
    QElapsedTimer sinceFirst = beforeCalls;
    EXPECT_EQ(awaitCalls().size(), MOST_UNSETTLED);
    EXPECT_GE(sinceFirst.elapsed(), TIME_TO_ANSWER_MS);
    EXPECT_EQ(awaitCalls().size(), 40 - 2 * MOST_UNSETTLED);
    EXPECT_EQ(bus.takeQuestions(), Lines());
}

TEST_F(ManagedCallsTest, LossOfTheBusAloneStopsNothing)
{
    run();
    bus.loseConnection();
    turn();
    EXPECT_EQ(bus.openConnections(), 0);
    appear(1, 20);
    EXPECT_EQ(awaitCalls().size(), MOST_UNSETTLED);
    EXPECT_EQ(awaitCalls().size(), 20 - MOST_UNSETTLED);
}

TEST_F(ManagedCallsTest, LossOfTheBusWhileTheDaemonIsAskedStopsNothing)
{
    run();
    appear(1, 20);
    awaitQuestion();
    bus.loseConnection();
    EXPECT_EQ(awaitCalls().size(), MOST_UNSETTLED);
    EXPECT_EQ(awaitCalls().size(), 20 - MOST_UNSETTLED);
    EXPECT_EQ(discovery().state(), vd::ManagedServiceDiscovery::Running);
}

TEST_F(ManagedCallsTest, QuestionThatCannotBeSentStopsNothing)
{
    run();
    letTimePass();
    bus.failNext("connection_send");
    appear(1, 20);
    EXPECT_EQ(awaitCalls().size(), MOST_UNSETTLED);
    EXPECT_EQ(awaitCalls().size(), 20 - MOST_UNSETTLED);
    EXPECT_EQ(bus.openConnections(), 0);
}

// A daemon that hangs in a call.

TEST_F(ManagedCallsTest, DaemonThatHungInACallIsNotCalledBeforeItAnswers)
{
    hangInACall();
    EXPECT_EQ(discovery().state(), vd::ManagedServiceDiscovery::Unavailable);
    turn(50);
    EXPECT_EQ(takeCalls(), Lines());
    answer();
    expectConnectedAnew();
    EXPECT_EQ(discovery().state(), vd::ManagedServiceDiscovery::Running);
    appearsOn("Cam", 2, AVAHI_PROTO_INET, HTTP, 2);
    awaitQuestion();
    answer();
    EXPECT_EQ(count(takeCalls(), "service_resolver_new(client2"), 1);
}

TEST_F(ManagedCallsTest, DaemonThatHungWhileAHostWasToBeFollowedIsNotCalledBeforeItAnswers)
{
    run();
    appears("Cam");
    awaitQuestion();
    answer();
    avahi.failNext("record_browser_new", AVAHI_ERR_TIMEOUT);
    letTimePass();
    resolved(1, "Cam", "cam.local", "10.0.0.1", cameraTxt);
    awaitQuestion();
    answer();
    EXPECT_EQ(awaitQuestion(), 1u);
    takeCalls();
    turn(50);
    EXPECT_EQ(takeCalls(), Lines());
    answer();
    EXPECT_EQ(count(takeCalls(), "client_new"), 1);
}

TEST_F(ManagedCallsTest, DaemonThatHungInACallAndWasEndedIsConnectedTo)
{
    hangInACall();
    bus.answerWithError(DBUS_ERROR_NO_REPLY);
    turn();
    expectConnectedAnew();
}

TEST_F(ManagedCallsTest, BusThatIsLostAfterACallThatHungIsConnectedTo)
{
    hangInACall();
    bus.loseConnection();
    turn();
    expectConnectedAnew();
}

TEST_F(ManagedCallsTest, FurtherTypeIsBrowsedWhenADaemonThatHungAnswers)
{
    hangInACall();
    EXPECT_TRUE(discovery().BrowseServices(HTTPS));
    turn(50);
    EXPECT_EQ(takeCalls(), Lines());
    answer();
    EXPECT_EQ(count(takeCalls(), "service_browser_new"), 2);
}

TEST_F(ManagedCallsTest, BrowsingThatBeginsAnewWaitsForNoAnswer)
{
    hangInACall();
    discovery().TerminateBrowsing();
    takeCalls();
    EXPECT_TRUE(discovery().BrowseServices(HTTP));
    EXPECT_EQ(count(takeCalls(), "service_browser_new"), 1);
    EXPECT_EQ(discovery().state(), vd::ManagedServiceDiscovery::Running);
}

TEST_F(ManagedCallsTest, ClientThatADaemonThatHungDidNotAnswerIsLeftWhenItAnswers)
{
    daemonIsAway();
    avahi.duringCall("service_browser_new", [] { QThread::msleep(5000); });
    avahi.failNext("service_browser_new", AVAHI_ERR_TIMEOUT);
    EXPECT_TRUE(discovery().BrowseServices(HTTP));
    takeCalls();
    EXPECT_EQ(awaitQuestion(), 1u);
    turn(300);
    EXPECT_EQ(takeCalls(), Lines());
    daemonRuns();
    answer();
    const Lines calls = takeCalls();
    EXPECT_EQ(count(calls, "client_free(client1)"), 1);
    EXPECT_EQ(count(calls, "service_browser_new(client2"), 1);
    EXPECT_EQ(discovery().state(), vd::ManagedServiceDiscovery::Running);
}

TEST_F(ManagedCallsTest, RunningDaemonThatHungAsATypeWasBrowsedIsUnavailable)
{
    run();
    avahi.duringCall("service_browser_new", [] { QThread::msleep(5000); });
    avahi.failNext("service_browser_new", AVAHI_ERR_TIMEOUT);
    EXPECT_TRUE(discovery().BrowseServices(HTTPS));
    EXPECT_EQ(discovery().state(), vd::ManagedServiceDiscovery::Unavailable);
    takeCalls();
    EXPECT_EQ(awaitQuestion(), 1u);
    answer();
    EXPECT_EQ(count(takeCalls(), "client_free(client1)"), 1);
    EXPECT_EQ(discovery().state(), vd::ManagedServiceDiscovery::Running);
}

TEST_F(ManagedCallsTest, AnswerOfBeforeTheDaemonHungCountsForNothing)
{
    run();
    appears("Cam");
    EXPECT_EQ(awaitQuestion(), 1u);
    bus.answer();
    avahi.duringCall("service_browser_new", [] { QThread::msleep(5000); });
    avahi.failNext("service_browser_new", AVAHI_ERR_TIMEOUT);
    EXPECT_TRUE(discovery().BrowseServices(HTTPS));
    takeCalls();
    EXPECT_EQ(awaitQuestion(), 1u);
    turn(50);
    EXPECT_EQ(takeCalls(), Lines());
    answer();
    EXPECT_EQ(count(takeCalls(), "client_free(client1)"), 1);
}

TEST_F(ManagedCallsTest, ClientIsKeptThoughADaemonThatIsFullTookLongToSaySo)
{
    run();
    avahi.duringCall("service_browser_new", [] { QThread::msleep(5000); });
    avahi.failNext("service_browser_new", AVAHI_ERR_TOO_MANY_OBJECTS);
    EXPECT_TRUE(discovery().BrowseServices(HTTPS));
    EXPECT_EQ(discovery().state(), vd::ManagedServiceDiscovery::Connecting);
    turn(500);
    EXPECT_EQ(count(takeCalls(), "client_free"), 0);
    EXPECT_EQ(discovery().state(), vd::ManagedServiceDiscovery::Running);
}

TEST_F(ManagedCallsTest, DaemonThatHungInACallIsAskedThoughATypeWasToBeBrowsedMeanwhile)
{
    avahi.useEventLoop();
    run();
    appears("Cam");
    awaitQuestion();
    avahi.failNext("service_resolver_new", AVAHI_ERR_DBUS_ERROR);
    avahi.duringCall("service_resolver_new", [] { QThread::msleep(200); });
    bus.answer();
    QElapsedTimer waited;
    waited.start();
    while (!areCallsMade() && waited.elapsed() < LONG_MS)
        QCoreApplication::processEvents();
    EXPECT_TRUE(discovery().BrowseServices(HTTPS));
    takeCalls();
    EXPECT_EQ(awaitQuestion(), 1u);
    EXPECT_EQ(takeCalls(), Lines());
    answer();
    EXPECT_EQ(count(takeCalls(), "client_free(client1)"), 1);
}

TEST_F(ManagedCallsTest, DaemonThatHungInAnAttemptIsAskedBeforeTheNext)
{
    daemonRuns();
    avahi.duringCall("client_new", [] { QThread::msleep(5000); });
    avahi.failNext("client_new", AVAHI_ERR_DBUS_ERROR);
    EXPECT_TRUE(discovery().BrowseServices(HTTP));
    takeCalls();
    EXPECT_EQ(awaitQuestion(), 1u);
    turn(300);
    EXPECT_EQ(takeCalls(), Lines());
    answer();
    EXPECT_EQ(count(takeCalls(), "client_new"), 1);
    EXPECT_EQ(discovery().state(), vd::ManagedServiceDiscovery::Running);
}

// When it waits, and for how long it works.

/** Where the refusal of a service is logged, which takes its time and makes Avahi refuse the next one too. */
class SlowLog : public QIODevice
{
public:
    SlowLog(AvahiStandIn& avahi, const QTimer& turns) : m_avahi(avahi)
    {
        open(QIODevice::WriteOnly);
        m_avahi.failNext("service_resolver_new", AVAHI_ERR_INVALID_SERVICE_NAME);
        connect(&turns, &QTimer::timeout, this, [this] { ++m_turn; });
    }

    /** In which turns of the event loop something was logged. */
    const std::vector<int>& turnsOfRefusals() const { return m_turnsOfRefusals; }

protected:
    qint64 readData(char*, qint64) override { return -1; }
    qint64 writeData(const char* data, qint64 size) override
    {
        const QByteArray text(data, int(size));
        for (int i = 0; i < text.count('\n'); ++i) {
            m_turnsOfRefusals.push_back(m_turn);
            m_avahi.failNext("service_resolver_new", AVAHI_ERR_INVALID_SERVICE_NAME);
            QThread::msleep(5);
        }
        return size;
    }

private:
    AvahiStandIn& m_avahi;
    int m_turn = 0;
    std::vector<int> m_turnsOfRefusals;
};

/** In which turns of the event loop a function of Avahi is called, of which each call may take its time. */
class CallTurns
{
public:
    CallTurns(AvahiStandIn& avahi, const std::string& function, int milliseconds)
        : m_avahi(avahi), m_function(function), m_milliseconds(milliseconds)
    {
        QObject::connect(&m_turns, &QTimer::timeout, [this] { ++m_turn; });
        m_turns.start(0);
        awaitCall();
    }

    int calls() const { return m_calls; }
    int mostInATurn() const { return m_mostInATurn; }

private:
    void awaitCall()
    {
        m_avahi.duringCall(m_function, [this] {
            m_inTurn = m_turn == m_turnOfLast ? m_inTurn + 1 : 1;
            m_turnOfLast = m_turn.load();
            m_mostInATurn = std::max(m_mostInATurn.load(), m_inTurn.load());
            ++m_calls;
            QThread::msleep(static_cast<unsigned long>(m_milliseconds));
            awaitCall();
        });
    }

    AvahiStandIn& m_avahi;
    const std::string m_function;
    const int m_milliseconds;
    QTimer m_turns;
    // The calls may be made in another thread.
    std::atomic<int> m_turn{0};
    std::atomic<int> m_turnOfLast{-1};
    std::atomic<int> m_inTurn{0};
    std::atomic<int> m_mostInATurn{0};
    std::atomic<int> m_calls{0};
};

TEST_F(ManagedCallsTest, CallsOfWhichOneTakesWhatATurnMayTakeHaveATurnEach)
{
    run();
    appear(1, 4);
    awaitQuestion();
    CallTurns turns(avahi, "service_resolver_new", 5);
    bus.answer();
    QElapsedTimer waited;
    waited.start();
    while (turns.calls() < 4 && waited.elapsed() < LONG_MS)
        answerAllQuestions();
    EXPECT_EQ(turns.calls(), 4);
    EXPECT_EQ(turns.mostInATurn(), 1);
    avahi.forgetFailures();
}

TEST_F(ManagedCallsTest, NoMoreThanThirtyTwoCallsAreMadeInATurn)
{
    run();
    appear(1, 40);
    QElapsedTimer waited;
    waited.start();
    while (discovery().openObjects() < 41 && waited.elapsed() < LONG_MS)
        answerAllQuestions();
    CallTurns turns(avahi, "service_resolver_free", 0);
    for (int number = 1; number <= 40; ++number)
        disappears(camName(number).c_str());
    while (turns.calls() < 40 && waited.elapsed() < LONG_MS)
        answerAllQuestions();
    EXPECT_EQ(turns.calls(), 40);
    EXPECT_LE(turns.mostInATurn(), 32);
    avahi.forgetFailures();
}

TEST_F(ManagedCallsTest, CallsThatTakeTimeGoOnInTheNextTurn)
{
    run();
    appear(1, 4);
    awaitQuestion();
    QTimer turns;
    SlowLog log(avahi, turns);
    QTextStream stream(&log);
    vd::LogQt::setStream(&stream);
    turns.start(0);
    bus.answer();
    QElapsedTimer waited;
    waited.start();
    while (log.turnsOfRefusals().size() < 4 && waited.elapsed() < LONG_MS) {
        turn();
        // It is asked again where the machine took longer for a turn than an answer lasts.
        if (!bus.takeQuestions().empty())
            bus.answer();
    }
    vd::LogQt::setStream(nullptr);

    std::vector<int> inTurns = log.turnsOfRefusals();
    EXPECT_EQ(inTurns.size(), 4u);
    EXPECT_EQ(std::unique(inTurns.begin(), inTurns.end()), inTurns.end()) << "two calls were made in one turn";
}
