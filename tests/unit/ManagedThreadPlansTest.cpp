// SPDX-License-Identifier: MIT
#include "support/BusStandIn.h"
#include "support/ManagedThreadFixture.h"
#include "support/NoMoreThreads.h"

#include <avahi-common/watch.h>

#include <algorithm>

/** What is planned and what becomes of it. */
class ManagedThreadPlansTest : public ManagedThreadTest
{
protected:
    /** A service is seen and resolved, which happens in the thread that is returned. */
    std::thread::id callerFor(const char* name = "Cam")
    {
        std::atomic<bool> isCalled{false};
        std::thread::id thread;
        avahi.duringCall("service_resolver_new", [&] {
            thread = std::this_thread::get_id();
            isCalled = true;
        });
        appears(name);
        QElapsedTimer waited;
        waited.start();
        while (!isCalled && waited.elapsed() < LONG_MS)
            QCoreApplication::processEvents();
        return thread;
    }

    /** "Cam" was resolved by resolver 1, and the call that follows its addresses is held up. */
    void holdUpAddressBrowser(bool longLived)
    {
        run();
        appears("Cam");
        if (longLived)
            discovery().StartQueryRecords("Cam", HTTP, true);
        turn();
        ManagedDiscoveryTest::resolved(1, "Cam", "cam.local", "10.0.0.1", cameraTxt);
        holdUp("record_browser_new");
        runUntilHeldUp();
        takeCalls();
    }

    /** There is no room for so many others, none of which is answered. */
    void makeOthersWait(int others, int milliseconds)
    {
        for (int i = 1; i <= others; ++i)
            appears(camName(i).c_str());
        turn(milliseconds);
    }

    /** "Cam", resolved by resolver @p number, is not asked for again when @p others find no room. */
    void expectThatNothingGivesWay(int number, int others, int milliseconds = 1500)
    {
        resolved(number, "Cam", "cam.local", "10.0.0.1", cameraTxt);
        record(1, AVAHI_BROWSER_ALL_FOR_NOW, "cam.local", nullptr);
        takeCalls();
        makeOthersWait(others, milliseconds);
        EXPECT_EQ(callsFor("Cam"), 0);
    }

    int callsFor(const std::string& name)
    {
        const Lines calls = takeCalls();
        return static_cast<int>(std::count_if(calls.begin(), calls.end(), [&](const std::string& call) {
            return call.rfind("service_resolver_new", 0) == 0 && call.find('"' + name + '"') != std::string::npos;
        }));
    }
};

TEST_F(ManagedThreadPlansTest, CallsWhileAServiceIsBeingPublishedAreMadeInItsThread)
{
    run();
    std::thread::id caller;
    avahi.duringGroupNew([&](AvahiEntryGroup*) { caller = callerFor(); });
    EXPECT_TRUE(discovery().RegisterService("Me", HTTP, vd::SReconfigInfo()));
    EXPECT_EQ(caller, std::this_thread::get_id());
    turn();
}

TEST_F(ManagedThreadPlansTest, CallsWhileBrowsingBeginsAreMadeInItsThread)
{
    run();
    std::thread::id caller;
    avahi.duringCall("service_browser_new", [&] { caller = callerFor(); });
    EXPECT_TRUE(discovery().BrowseServices(HTTPS));
    EXPECT_EQ(caller, std::this_thread::get_id());
    turn();
}

TEST_F(ManagedThreadPlansTest, WhatACallHasTheEventLoopWaitForCallsBackInTheObjectsThread)
{
    run();
    const AvahiPoll* const poll = avahi.checked(avahi.client(), AvahiStandIn::Client, "poll")->poll;
    AvahiTimeout* timeout = nullptr;
    QThread* calledBack = nullptr;
    avahi.duringCall("service_resolver_new", [&] {
        const timeval past = {1, 0};
        timeout = poll->timeout_new(
            poll, &past, [](AvahiTimeout*, void* thread) { *static_cast<QThread**>(thread) = QThread::currentThread(); },
            &calledBack);
    });
    appears("Cam");
    turn(50);
    EXPECT_EQ(calledBack, QThread::currentThread());
    poll->timeout_free(timeout);
}

TEST_F(ManagedThreadPlansTest, OperationThatASlotEndsWhileItWaitsGoesOnWithNothingOfTheNextClient)
{
    run();
    found();
    holdUpRefusal();
    inNextSlot([&] {
        discovery().TerminateBrowsing();
        EXPECT_TRUE(discovery().BrowseServices(HTTP));
    });
    returnsDuring([&] { EXPECT_FALSE(discovery().RegisterService("Me", HTTP, vd::SReconfigInfo())); });
    EXPECT_FALSE(discovery().IsRegistered());
    EXPECT_EQ(liveCount("group"), 0);
    turn();
}

TEST_F(ManagedThreadPlansTest, AddressBrowserOfADeviceThatIsLostMeanwhileIsFreed)
{
    holdUpAddressBrowser(false);
    ManagedDiscoveryTest::disappears("Cam");
    letReturn();
    turn();
    EXPECT_EQ(count(takeCalls(), "record_browser_free(recordBrowser1)"), 1);
    EXPECT_EQ(liveCount("recordBrowser"), 0);
    EXPECT_EQ(discovery().openObjects(), 1);
}

TEST_F(ManagedThreadPlansTest, HostThatChangesThereAndBackMeanwhileIsFollowedOnce)
{
    holdUpAddressBrowser(true);
    ManagedDiscoveryTest::resolved(1, "Cam", "other.local", "10.0.0.1", cameraTxt);
    ManagedDiscoveryTest::resolved(1, "Cam", "cam.local", "10.0.0.1", cameraTxt);
    letReturn();
    turn();
    EXPECT_EQ(liveCount("recordBrowser"), 1);
    EXPECT_EQ(discovery().openObjects(), 3);
}

TEST_F(ManagedThreadPlansTest, SameAnswerMeanwhileIsNotFollowedTwice)
{
    holdUpAddressBrowser(true);
    ManagedDiscoveryTest::resolved(1, "Cam", "cam.local", "10.0.0.1", cameraTxt);
    letReturn();
    turn();
    EXPECT_EQ(count(takeCalls(), "record_browser_"), 1);
    EXPECT_EQ(liveCount("recordBrowser"), 1);
}

TEST_F(ManagedThreadPlansTest, ResolverThatWasGivenUpBeforeItWasMadeIsForgotten)
{
    run();
    discovery().setObjectLimit(8);
    discovery().StartQueryRecords("Cam", HTTP, true);
    holdUp("service_resolver_new");
    runUntilHeldUp();
    discovery().StopQueryRecords("Cam", HTTP);
    appears("Cam");
    letReturn();
    turn();
    expectThatNothingGivesWay(2, 8);
}

TEST_F(ManagedThreadPlansTest, ResolverThatWasRefusedIsForgotten)
{
    run();
    avahi.failNext("service_resolver_new", AVAHI_ERR_TOO_MANY_OBJECTS);
    appears("Cam");
    turn(1100);
    expectThatNothingGivesWay(1, 4, 2600);
}

TEST_F(ManagedThreadPlansTest, ResolverThatWasPutBackIsForgotten)
{
    run();
    discovery().setObjectLimit(8);
    discovery().ResolveService(2, "First", HTTP, "local");
    appears("Cam");
    avahi.failNext("service_resolver_new", AVAHI_ERR_INVALID_SERVICE_NAME);
    turn();
    expectThatNothingGivesWay(1, 8);
}

TEST_F(ManagedThreadPlansTest, PatienceBeginsWhenTheResolverIsMade)
{
    run();
    discovery().setObjectLimit(8);
    for (int i = 1; i <= 8; ++i)
        appears(camName(i).c_str());
    holdUp("service_resolver_new");
    runUntilHeldUp();
    QThread::msleep(1100);
    letReturn();
    turn(300);
    EXPECT_EQ(count(takeCalls(), "service_resolver_free"), 0);
}

TEST_F(ManagedThreadPlansTest, NothingIsCalledAfterAFailureThatHasNoError)
{
    run();
    avahi.setError(AVAHI_OK);
    avahi.failNext("service_resolver_new", AVAHI_OK);
    appears("Cam");
    appears("Next");
    avahi.duringCall("service_resolver_new", [this] { holdUp("service_resolver_new"); });
    runUntilHeldUp();
    // What became of the first one is known before the next is called.
    const Lines log = takeLog();
    EXPECT_TRUE(std::any_of(log.begin(), log.end(), [](const std::string& line) {
        return line.find("failed create AvahiServiceResolver Cam error: Operation failed") != std::string::npos;
    }));
    letReturn();
    turn();
}

TEST_F(ManagedThreadPlansTest, RefusedQueryThatWasGivenUpDoesNotAskForItsDeviceAgain)
{
    run();
    discovery().ResolveService(2, "Cam", HTTP, "local");
    turn();
    resolved(1, "Cam", "cam.local", "10.0.0.1", cameraTxt);
    discovery().StartQueryRecords("Cam", HTTPS, true);
    avahi.failNext("service_resolver_new", AVAHI_ERR_INVALID_SERVICE_NAME);
    holdUp("service_resolver_new");
    runUntilHeldUp();
    discovery().StopQueryRecords("Cam", HTTPS);
    takeCalls();
    letReturn();
    turn();
    EXPECT_EQ(callsFor("Cam"), 1);
}

TEST_F(ManagedThreadPlansTest, HostThatChangesBeforeItIsFollowedIsFollowedOnce)
{
    run();
    appears("Cam");
    discovery().StartQueryRecords("Cam", HTTP, true);
    turn();
    ManagedDiscoveryTest::resolved(1, "Cam", "cam.local", "10.0.0.1", cameraTxt);
    ManagedDiscoveryTest::resolved(1, "Cam", "other.local", "10.0.0.1", cameraTxt);
    turn();
    EXPECT_EQ(count(takeCalls(), "record_browser_new"), 1);
}

TEST_F(ManagedThreadPlansTest, HostThatWasRefusedIsFollowedWhenItIsResolvedAgain)
{
    run();
    appears("Cam");
    turn();
    avahi.failNext("record_browser_new", AVAHI_ERR_INVALID_HOST_NAME);
    resolved(1, "Cam", "cam.local", "10.0.0.1", cameraTxt);
    takeCalls();
    askAndResolve(2, "10.0.0.1");
    EXPECT_EQ(liveCount("recordBrowser"), 1);
}

TEST_F(ManagedThreadPlansTest, HostThatWasToBeFollowedBeforeARestartIsFollowedAfterIt)
{
    holdUpAddressBrowser(false);
    failClient();
    returnsDuring([] { QCoreApplication::processEvents(); });
    turn();
    appearsOn("Cam", 2, AVAHI_PROTO_INET, HTTP, 2);
    turn();
    resolved(2, "Cam", "cam.local", "10.0.0.1", cameraTxt);
    EXPECT_EQ(liveCount("recordBrowser"), 1);
}

TEST_F(ManagedThreadPlansTest, HostOfALostDeviceThatIsRefusedIsNotTriedAgain)
{
    avahi.failNext("record_browser_new", AVAHI_ERR_INVALID_HOST_NAME);
    holdUpAddressBrowser(false);
    ManagedDiscoveryTest::disappears("Cam");
    letReturn();
    turn(5300);
    EXPECT_EQ(callsFor("Cam"), 0);
}

TEST_F(ManagedThreadPlansTest, WhatIsFreedAfterASlowCallIsFreed)
{
    run();
    for (const int number : {1, 2}) {
        const std::string name = camName(number);
        appears(name.c_str());
        discovery().StartQueryRecords(name.c_str(), HTTP, true);
        turn();
        resolved(number, name.c_str(), "cam.local", "10.0.0.1", cameraTxt);
        record(number, AVAHI_BROWSER_ALL_FOR_NOW, "cam.local", nullptr);
    }
    ASSERT_EQ(discovery().openObjects(), 5);
    discovery().StopQueryRecords("Cam1", HTTP);
    discovery().StopQueryRecords("Cam2", HTTP);
    holdUp("service_resolver_free");
    runUntilHeldUp();
    EXPECT_EQ(discovery().openObjects(), 5);
    QThread::msleep(10);
    letReturn();
    turn();
    EXPECT_EQ(avahi.liveHandles(), (Lines{"client1", "browser1"}));
    EXPECT_EQ(discovery().openObjects(), 1);
}

TEST_F(ManagedThreadPlansTest, HostsAfterASlowCallAreFollowedInTheirOrder)
{
    run();
    for (const int number : {1, 2, 3})
        appears(camName(number).c_str());
    turn();
    ManagedDiscoveryTest::resolved(1, "Cam1", "cam1.local", "10.0.0.1", cameraTxt);
    ManagedDiscoveryTest::resolved(2, "Cam2", "cam2.local", "10.0.0.2", cameraTxt);
    holdUp("service_resolver_free");
    runUntilHeldUp();
    ManagedDiscoveryTest::resolved(3, "Cam3", "cam3.local", "10.0.0.3", cameraTxt);
    QThread::msleep(10);
    takeCalls();
    letReturn();
    turn();
    std::string hosts;
    for (const std::string& call : takeCalls()) {
        if (call.rfind("record_browser_new", 0) == 0)
            hosts += call.substr(call.find("cam"), 4);
    }
    EXPECT_EQ(hosts, "cam1cam2cam3");
}

TEST_F(ManagedThreadPlansTest, ServiceThatIsLostDuringASlowCallBeforeItsOwnIsNotResolved)
{
    run();
    appears("Cam");
    appears("Next");
    holdUp("service_resolver_new");
    runUntilHeldUp();
    ManagedDiscoveryTest::disappears("Next");
    QThread::msleep(10);
    takeCalls();
    letReturn();
    turn(20);
    EXPECT_EQ(callsFor("Next"), 0);
}

TEST_F(ManagedThreadPlansTest, RoomForAnAddressBrowserThatIsPlannedIsTakenOnce)
{
    run();
    discovery().setObjectLimit(8);
    appears("Old");
    discovery().StartQueryRecords("Cam", HTTP, true);
    turn(1100);
    ManagedDiscoveryTest::resolved(2, "Cam", "cam.local", "10.0.0.1", cameraTxt);
    for (int i = 1; i <= 4; ++i)
        appears(camName(i).c_str());
    takeCalls();
    turn();
    const Lines calls = takeCalls();
    EXPECT_EQ(count(calls, "service_resolver_new"), 4);
    EXPECT_EQ(count(calls, "service_resolver_free"), 0) << "one gave way though there was room";
}

TEST_F(ManagedThreadPlansTest, QueryWhoseAddressBrowserIsPlannedNeedsRoomForItsResolverOnly)
{
    run();
    discovery().setObjectLimit(8);
    appears("Old");
    discovery().StartQueryRecords("Cam", HTTP, true);
    turn(1100);
    ManagedDiscoveryTest::resolved(2, "Cam", "cam.local", "10.0.0.1", cameraTxt);
    for (int i = 1; i <= 4; ++i)
        appears(camName(i).c_str());
    discovery().StartQueryRecords("Cam", HTTP, false);
    takeCalls();
    turn();
    const Lines calls = takeCalls();
    EXPECT_EQ(count(calls, "service_resolver_new"), 5);
    EXPECT_EQ(count(calls, "service_resolver_free"), 1) << "another gave way though there was room";
}

TEST_F(ManagedThreadPlansTest, NothingIsCalledAfterTheDaemonHasRefusedForItsNumber)
{
    run();
    avahi.failNext("service_resolver_new", AVAHI_ERR_TOO_MANY_OBJECTS);
    appears("Cam");
    appears("Next");
    turn();
    EXPECT_EQ(count(takeCalls(), "service_resolver_new"), 1);
}

TEST_F(ManagedThreadPlansTest, NothingIsBrowsedOnAClientThatFailsMeanwhile)
{
    run();
    appears("Cam");
    avahi.failNext("service_resolver_new", AVAHI_ERR_DISCONNECTED);
    holdUp("service_resolver_new");
    runUntilHeldUp();
    returnsDuring([this] { EXPECT_TRUE(discovery().BrowseServices(HTTPS)); });
    EXPECT_EQ(count(takeCalls(), "service_browser_new(client1"), 0);
    turn();
}

TEST_F(ManagedThreadPlansTest, NothingIsPublishedOnAClientThatFailsMeanwhileButLater)
{
    run();
    appears("Cam");
    avahi.failNext("service_resolver_new", AVAHI_ERR_DISCONNECTED);
    holdUp("service_resolver_new");
    runUntilHeldUp();
    returnsDuring([this] { EXPECT_TRUE(discovery().RegisterService("Setup", HTTP, vd::SReconfigInfo())); });
    EXPECT_EQ(count(takeCalls(), "entry_group_new"), 0);
    turn(100);
    EXPECT_EQ(count(takeCalls(), "entry_group_new(client2"), 1);
}

TEST_F(ManagedThreadPlansTest, NothingIsWithdrawnOrUpdatedOnAClientThatFailsMeanwhile)
{
    for (const bool isWithdrawing : {false, true}) {
        discovery().TerminateBrowsing();
        run();
        ASSERT_TRUE(discovery().RegisterService("Setup", HTTP, vd::SReconfigInfo()));
        appearsOn("Cam", 2, AVAHI_PROTO_INET, HTTP, isWithdrawing ? 3 : 1);
        avahi.failNext("service_resolver_new", AVAHI_ERR_DISCONNECTED);
        holdUp("service_resolver_new");
        runUntilHeldUp();
        takeCalls();
        returnsDuring([&] {
            EXPECT_EQ(isWithdrawing ? discovery().TerminateRegistration() : discovery().UpdateTxtRecord("a=b"),
                      isWithdrawing);
        });
        EXPECT_EQ(count(takeCalls(), "entry_group"), 0);
        turn(100);
        EXPECT_EQ(discovery().IsRegistered(), !isWithdrawing);
    }
}

TEST_F(ManagedThreadPlansTest, PublishingTwiceWaits)
{
    run();
    ASSERT_TRUE(discovery().RegisterService("Me", HTTP, vd::SReconfigInfo()));
    appears("Cam");
    holdUp("service_resolver_new");
    runUntilHeldUp();
    returnsDuring([this] { discovery().RegisterService("Me", HTTP, vd::SReconfigInfo()); });
    turn();
}

TEST_F(ManagedThreadPlansTest, CallsAreMadeInTheObjectsThreadWhenThereIsNoOther)
{
    run();
    {
        const NoMoreThreads noMoreThreads;
        EXPECT_EQ(callerFor(), std::this_thread::get_id());
        turn();
    }
    // The next ones may be made in another again.
    EXPECT_NE(callerFor("Next"), std::this_thread::get_id());
    turn();
}

/** The daemon can be asked whether it answers. */
class ManagedThreadBusTest : public ManagedThreadPlansTest
{
protected:
    ~ManagedThreadBusTest() override { destroyDiscovery(); }

    /** Runs the event loop until the daemon is asked, and answers. */
    void answerNext()
    {
        QElapsedTimer waited;
        waited.start();
        while (bus.takeQuestions().empty() && waited.elapsed() < LONG_MS)
            QCoreApplication::processEvents(QEventLoop::AllEvents, 1);
        bus.answer();
    }

    BusStandIn bus;
};

TEST_F(ManagedThreadBusTest, DaemonIsNotAskedWhileCallsAreMade)
{
    run();
    appears("Cam");
    holdUp("service_resolver_new");
    answerNext();
    runUntilHeldUp();
    // The answer is too old to count for the next call.
    QThread::msleep(20);
    discovery().ResolveService(2, "Other", HTTP, "local");
    for (int i = 0; i < 30; ++i) {
        QCoreApplication::processEvents();
        QThread::msleep(1);
    }
    EXPECT_EQ(bus.takeQuestions(), Lines());
    letReturn();
    turn();
}

TEST_F(ManagedThreadBusTest, CallsThatASlotLetsBeginAreNotDisturbedByTheAnswerBeforeIt)
{
    discovery().setGracePeriod(50);
    run();
    appears("Cam");
    answerNext();
    turn();
    ManagedDiscoveryTest::resolved(1, "Cam", "cam.local", "10.0.0.1", cameraTxt);
    answerNext();
    turn(50);
    failClient();
    takeSignals();
    inNextSlot([&] {
        discovery().ResolveService(2, "Other", HTTP, "local");
        holdUp("service_resolver_new");
        runUntilHeldUp();
        discovery().ResolveService(2, "Third", HTTP, "local");
    });
    QElapsedTimer waited;
    waited.start();
    while (!areCallsMade() && waited.elapsed() < LONG_MS) {
        QCoreApplication::processEvents(QEventLoop::AllEvents, 1);
        if (!bus.takeQuestions().empty())
            bus.answer();
    }
    EXPECT_EQ(count(takeCalls(), "service_resolver_new"), 1) << "others were made while one was on its way";
    letReturn();
    turn(50);
}

TEST_F(ManagedThreadBusTest, DaemonIsAskedForTheNextCallsOnceTheseAreMade)
{
    run();
    for (int i = 1; i <= 40; ++i)
        appears(camName(i).c_str());
    holdUp("service_resolver_new");
    answerNext();
    runUntilHeldUp();
    EXPECT_EQ(bus.takeQuestions(), Lines());
    letReturn();
    turn(50);
    EXPECT_EQ(bus.takeQuestions().size(), 1u);
}

TEST_F(ManagedThreadBusTest, EndOfTheGracePeriodAsksNothingOfADaemonThatIsAsked)
{
    discovery().setGracePeriod(60);
    run();
    appears("Cam");
    answerNext();
    turn();
    ManagedDiscoveryTest::resolved(1, "Cam", "cam.local", "10.0.0.1", cameraTxt);
    answerNext();
    turn(50);
    failClient();
    discovery().ResolveService(2, "Other", HTTP, "local");
    QElapsedTimer waited;
    waited.start();
    while (liveClient() == 1 && waited.elapsed() < LONG_MS)
        QCoreApplication::processEvents();
    discovery().ResolveService(2, "Other", HTTP, "local");
    waited.start();
    size_t questions = 0;
    while (waited.elapsed() < 300) {
        QCoreApplication::processEvents(QEventLoop::AllEvents, 1);
        questions += bus.takeQuestions().size();
    }
    EXPECT_EQ(questions, 1u);
}

TEST_F(ManagedThreadBusTest, CallsAfterOneThatTookLongNeedNoQuestion)
{
    run();
    appears("Cam");
    appears("Next");
    holdUp("service_resolver_new");
    answerNext();
    runUntilHeldUp();
    QThread::msleep(20);
    letReturn();
    turn();
    EXPECT_EQ(bus.takeQuestions(), Lines());
    EXPECT_EQ(count(takeCalls(), "service_resolver_new"), 2);
}
