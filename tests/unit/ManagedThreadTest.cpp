// SPDX-License-Identifier: MIT
#include "support/ManagedThreadFixture.h"

#include <algorithm>
#include <iterator>
#include <map>

TEST_F(ManagedThreadTest, EventLoopGoesOnWhileADaemonIsSlow)
{
    holdUpResolver();
    EXPECT_NE(caller(), std::this_thread::get_id());
    int beats = 0;
    QTimer heart;
    QObject::connect(&heart, &QTimer::timeout, [&] { ++beats; });
    heart.start(1);
    QElapsedTimer waited;
    waited.start();
    while (beats < 5 && waited.elapsed() < LONG_MS)
        QCoreApplication::processEvents(QEventLoop::AllEvents, 1);
    EXPECT_EQ(beats, 5);
    letReturn();
    turn();
    EXPECT_EQ(takeCalls(), Lines{newResolver("Cam", 1)});
}

TEST_F(ManagedThreadTest, EveryCallOfAServiceIsMadeThere)
{
    run();
    std::map<std::string, std::thread::id> callers;
    for (const char* const function : {"service_resolver_new", "service_resolver_free", "record_browser_new",
                                       "record_browser_free"})
        avahi.duringCall(function, [&callers, function] { callers[function] = std::this_thread::get_id(); });
    found();
    ASSERT_EQ(callers.size(), 4u);
    for (const auto& [function, thread] : callers)
        EXPECT_NE(thread, std::this_thread::get_id()) << function;
}

TEST_F(ManagedThreadTest, CallThatIsOnItsWayCountsAsOpen)
{
    holdUpResolver();
    EXPECT_EQ(discovery().openObjects(), 2);
    letReturn();
    turn();
    EXPECT_EQ(discovery().openObjects(), 2);
}

TEST_F(ManagedThreadTest, ObjectsStayBelowTheLimitWhileSomeGiveWay)
{
    const int limit = 8;
    run();
    discovery().setObjectLimit(limit);
    for (int i = 1; i <= 20; ++i)
        appears(camName(i).c_str());
    turn(900);
    ASSERT_EQ(discovery().openObjects(), limit);
    // None is answered, so the oldest give way.
    holdUp("service_resolver_free");
    runUntilHeldUp();
    EXPECT_LE(discovery().openObjects(), limit);
    takeCalls();
    letReturn();
    turn();
    EXPECT_GE(count(takeCalls(), "service_resolver_new"), 1);
    EXPECT_EQ(discovery().openObjects(), limit);
}

TEST_F(ManagedThreadTest, NothingElseIsCalledMeanwhile)
{
    holdUpResolver();
    discovery().ResolveService(2, "Other", HTTP, "local");
    discovery().setObjectLimit(100);
    for (int i = 0; i < 20; ++i) {
        QCoreApplication::processEvents();
        QThread::msleep(1);
    }
    letReturn();
    turn();
    EXPECT_EQ(takeCalls(), (Lines{newResolver("Cam", 1), newResolverAnywhere("Other", 2)}));
}

// What uses the client waits.

TEST_F(ManagedThreadTest, BrowsingAnotherTypeWaits)
{
    holdUpResolver();
    returnsDuring([this] { EXPECT_TRUE(discovery().BrowseServices(HTTPS)); });
    EXPECT_EQ(takeCalls(), (Lines{newResolver("Cam", 1),
                                  "service_browser_new(client1, -1, -1, \"_https._tcp\", null, 2) = browser2"}));
    resolved(1, "Cam", "cam.local", "10.0.0.1", cameraTxt);
    EXPECT_EQ(count(takeSignals(), "found"), 1);
}

TEST_F(ManagedThreadTest, PublishingAndWithdrawingWait)
{
    holdUpResolver();
    returnsDuring([this] { EXPECT_TRUE(discovery().RegisterService("Me", HTTP, vd::SReconfigInfo())); });
    EXPECT_EQ(count(takeCalls(), "service_resolver_new"), 1);

    appears("Next");
    holdUp("service_resolver_new");
    runUntilHeldUp();
    returnsDuring([this] { EXPECT_TRUE(discovery().UpdateTxtRecord("a=b")); });

    appears("Third");
    holdUp("service_resolver_new");
    runUntilHeldUp();
    returnsDuring([this] { EXPECT_TRUE(discovery().AddTxtRecord("a=b")); });

    appears("Fourth");
    holdUp("service_resolver_new");
    runUntilHeldUp();
    returnsDuring([this] { EXPECT_TRUE(discovery().TerminateRegistration()); });
    turn();
    EXPECT_EQ(liveCount("resolver"), 4);
}

TEST_F(ManagedThreadTest, PublishingAnewWaits)
{
    run();
    ASSERT_TRUE(discovery().RegisterService("Me", HTTP, vd::SReconfigInfo()));
    appears("Cam");
    holdUp("service_resolver_new");
    runUntilHeldUp();
    takeCalls();
    // The host was renamed.
    avahi.fireClientState(AVAHI_CLIENT_S_REGISTERING);
    returnsDuring([] { QCoreApplication::processEvents(); });
    turn();
    const Lines calls = takeCalls();
    ASSERT_FALSE(calls.empty());
    EXPECT_EQ(calls.front(), newResolver("Cam", 1));
    EXPECT_EQ(count(calls, "entry_group_free"), 1);
}

TEST_F(ManagedThreadTest, TerminatingWaits)
{
    holdUpResolver();
    returnsDuring([this] { EXPECT_TRUE(discovery().TerminateBrowsing()); });
    EXPECT_EQ(avahi.liveHandles(), Lines());
    EXPECT_EQ(discovery().openObjects(), 0);
    turn();
    EXPECT_EQ(takeSignals(), Lines());
}

TEST_F(ManagedThreadTest, DestructionWaits)
{
    holdUpResolver();
    returnsDuring([this] { destroyDiscovery(); });
    EXPECT_EQ(avahi.liveHandles(), Lines());
}

TEST_F(ManagedThreadTest, ConnectingAnewWaits)
{
    holdUpResolver();
    failClient();
    returnsDuring([] { QCoreApplication::processEvents(); });
    turn();
    EXPECT_EQ(avahi.liveHandles(), (Lines{"client2", "browser2"}));
    appearsOn("Cam", 2, AVAHI_PROTO_INET, HTTP, 2);
    takeCalls();
    turn();
    EXPECT_EQ(takeCalls(), Lines{resolverCall(2, 2, AVAHI_PROTO_INET, "Cam", HTTP) + '2'});
}

TEST_F(ManagedThreadTest, CallsThatASlotLetsBeginAreWaitedForToo)
{
    run();
    found();
    holdUpRefusal();
    std::atomic<bool> isHeldUpAgain{false};
    inNextSlot([&] {
        discovery().ResolveService(2, "Other", HTTP, "local");
        holdUp("service_resolver_new");
        runUntilHeldUp();
        isHeldUpAgain = true;
    });
    bool wasBusy = true;
    avahi.duringGroupNew([&](AvahiEntryGroup*) { wasBusy = areCallsMade(); });
    std::thread other([&] {
        letReturn();
        while (!isHeldUpAgain)
            QThread::msleep(1);
        QThread::msleep(20);
        letReturn();
    });
    EXPECT_TRUE(discovery().RegisterService("Me", HTTP, vd::SReconfigInfo()));
    other.join();
    EXPECT_TRUE(isHeldUpAgain);
    EXPECT_FALSE(wasBusy);
    turn();
}

TEST_F(ManagedThreadTest, WhatASlotPublishesMeanwhileStaysPublished)
{
    run();
    found();
    holdUpRefusal();
    inNextSlot([&] {
        EXPECT_TRUE(discovery().RegisterService("Slot's", HTTP, vd::SReconfigInfo()));
        // So the daemon says when it is handed another one.
        avahi.failNext("entry_group_add_service_strlst", AVAHI_ERR_BAD_STATE);
    });
    returnsDuring([&] { EXPECT_FALSE(discovery().RegisterService("Me", HTTP, vd::SReconfigInfo())); });
    EXPECT_EQ(count(takeCalls(), "entry_group_free"), 0);
    EXPECT_EQ(liveCount("group"), 1);
    EXPECT_TRUE(discovery().IsRegistered());
}

TEST_F(ManagedThreadTest, WhatASlotDoesToTheArgumentsDoesNotMatter)
{
    run();
    found();
    QByteArray name("Me"), type(HTTP);
    vd::SReconfigInfo info = vd::SReconfigInfo();
    info.zephValue = 7;
    holdUpRefusal();
    inNextSlot([&] {
        name = QByteArray(1000, 'x');
        type.clear();
        info.zephValue = 8;
    });
    returnsDuring([&] { EXPECT_TRUE(discovery().RegisterService(name.constData(), type.constData(), info)); });
    EXPECT_EQ(discovery().registeredName, "Me");
    EXPECT_EQ(discovery().registeredType, HTTP);
    const Lines calls = takeCalls();
    EXPECT_EQ(count(calls, "entry_group_add_service"), 1);

    QByteArray txt("a=b");
    appears("Next");
    turn();
    resolved(2, "Next", "next.local", "10.0.0.2", cameraTxt);
    holdUpRefusal("Next");
    inNextSlot([&] { txt = QByteArray(1000, 'x'); });
    takeCalls();
    returnsDuring([&] { EXPECT_TRUE(discovery().UpdateTxtRecord(txt.constData())); });
    const Lines updates = takeCalls();
    ASSERT_FALSE(updates.empty());
    EXPECT_NE(updates.back().find("[a=b]"), std::string::npos) << updates.back();
}

// What does not use it does not wait.

TEST_F(ManagedThreadTest, OperationsWithoutAPublishedServiceDoNotWait)
{
    holdUpResolver();
    EXPECT_FALSE(discovery().UpdateTxtRecord("a=b"));
    EXPECT_FALSE(discovery().AddTxtRecord("a=b"));
    discovery().TerminateRegistration();
    EXPECT_TRUE(discovery().BrowseServices(HTTP));
    EXPECT_TRUE(discovery().ResolveService(2, "Other", HTTP, "local"));
    EXPECT_TRUE(discovery().StartQueryRecords("Cam", HTTP, true));
    discovery().StopQueryRecords("Cam", HTTP);
    EXPECT_TRUE(areCallsMade());
    letReturn();
    turn();
}

TEST_F(ManagedThreadTest, NothingToConnectDoesNotWait)
{
    holdUpResolver();
    avahi.fireClientState(AVAHI_CLIENT_S_RUNNING);
    for (int i = 0; i < 5; ++i)
        QCoreApplication::processEvents();
    EXPECT_TRUE(areCallsMade());
    letReturn();
    turn();
}

// What happens meanwhile.

TEST_F(ManagedThreadTest, ServiceThatASlotWithdrawsIsNotPublishedAnew)
{
    run();
    found();
    ASSERT_TRUE(discovery().RegisterService("Me", HTTP, vd::SReconfigInfo()));
    holdUpRefusal();
    inNextSlot([this] { EXPECT_TRUE(discovery().TerminateRegistration()); });
    avahi.fireClientState(AVAHI_CLIENT_S_REGISTERING);
    avahi.fireClientState(AVAHI_CLIENT_S_RUNNING);
    returnsDuring([] { QCoreApplication::processEvents(); });
    turn();
    EXPECT_FALSE(discovery().IsRegistered());
    EXPECT_EQ(liveCount("group"), 0);
}

TEST_F(ManagedThreadTest, RoomThatIsMadeMeanwhileIsUsed)
{
    run();
    discovery().setObjectLimit(8);
    for (int i = 1; i <= 4; ++i) {
        appears(camName(i).c_str());
        discovery().StartQueryRecords(camName(i).c_str(), HTTP, true);
    }
    turn(200);
    for (int i = 1; i <= 4; ++i)
        resolved(i, camName(i).c_str(), "cam.local", "10.0.0.1", cameraTxt);
    turn(200);
    ASSERT_LT(liveCount("resolver"), 4);
    discovery().StartQueryRecords("Cam1", HTTP, true);
    holdUp("service_resolver_new");
    runUntilHeldUp();
    discovery().setObjectLimit(100);
    for (int i = 0; i < 5; ++i)
        QCoreApplication::processEvents();
    letReturn();
    turn(50);
    EXPECT_EQ(liveCount("resolver"), 4);
}

TEST_F(ManagedThreadTest, GracePeriodDoesNotEndWhileWhatIsToldIsNotRead)
{
    run();
    found();
    discovery().setGracePeriod(100);
    failClient();
    turn();
    discovery().ResolveService(2, "Other", HTTP, "local");
    holdUp("service_resolver_new");
    runUntilHeldUp();
    QElapsedTimer waited;
    waited.start();
    while (waited.elapsed() < 150)
        QCoreApplication::processEvents(QEventLoop::AllEvents, 1);
    EXPECT_EQ(takeSignals(), Lines());
    letReturn();
    turn(1000);
    EXPECT_EQ(count(takeSignals(), "lost serviceType"), 1);
}

TEST_F(ManagedThreadTest, GracePeriodDoesNotEndWhileASlotRunsAnEventLoop)
{
    run();
    found();
    discovery().setGracePeriod(100);
    failClient();
    turn();
    avahi.inCallback([this] { turn(500); }, 2);
    EXPECT_EQ(takeSignals(), Lines());
    awaitLoss();
}

TEST_F(ManagedThreadTest, GracePeriodLastsAStepLongerAfterASlotThatRanAnEventLoop)
{
    const int graceMs = 1000;
    run();
    found();
    discovery().setGracePeriod(graceMs);
    failClient();
    turn();
    QElapsedTimer waited;
    waited.start();
    avahi.inCallback([this] { turn(graceMs + 150); }, 2);
    // The step that began inside.
    turn(2 * graceMs + 400 - static_cast<int>(waited.elapsed()));
    EXPECT_EQ(takeSignals(), Lines());
    awaitLoss();
}

TEST_F(ManagedThreadTest, ResolverOfAServiceThatWasGivenUpIsFreed)
{
    run();
    discovery().StartQueryRecords("Cam", HTTP, true);
    holdUp("service_resolver_new");
    runUntilHeldUp();
    discovery().StopQueryRecords("Cam", HTTP);
    letReturn();
    turn();
    EXPECT_EQ(takeCalls(), (Lines{newResolverAnywhere("Cam", 1), "service_resolver_free(resolver1)"}));
    EXPECT_EQ(discovery().openObjects(), 1);
}

TEST_F(ManagedThreadTest, ResolverOfAServiceThatWasGivenUpAndAskedForAgainIsMadeAnew)
{
    run();
    discovery().StartQueryRecords("Cam", HTTP, true);
    holdUp("service_resolver_new");
    runUntilHeldUp();
    discovery().StopQueryRecords("Cam", HTTP);
    discovery().StartQueryRecords("Cam", HTTP, true);
    letReturn();
    turn();
    EXPECT_EQ(takeCalls(), (Lines{newResolverAnywhere("Cam", 1), "service_resolver_free(resolver1)",
                                  newResolverAnywhere("Cam", 2)}));
    resolved(2, "Cam", "cam.local", "10.0.0.1", cameraTxt);
    EXPECT_EQ(count(takeSignals(), "found"), 1);
}

TEST_F(ManagedThreadTest, RefusedServiceThatWasGivenUpIsNotAskedForAgain)
{
    run();
    for (const int error : {AVAHI_ERR_TOO_MANY_OBJECTS, AVAHI_ERR_INVALID_SERVICE_NAME}) {
        discovery().StartQueryRecords("Cam", HTTP, true);
        avahi.failNext("service_resolver_new", error);
        holdUp("service_resolver_new");
        runUntilHeldUp();
        discovery().StopQueryRecords("Cam", HTTP);
        letReturn();
        turn(1100);
        EXPECT_EQ(count(takeCalls(), "service_resolver_new"), 1) << error;
        EXPECT_EQ(discovery().openObjects(), 1);
    }
}

TEST_F(ManagedThreadTest, AddressBrowserOfADeviceThatWasGivenUpIsFreed)
{
    run();
    discovery().ResolveService(2, "Cam", HTTP, "local");
    turn();
    ManagedDiscoveryTest::resolved(1, "Cam", "cam.local", "10.0.0.1", cameraTxt);
    holdUp("record_browser_new");
    runUntilHeldUp();
    returnsDuring([this] { discovery().TerminateBrowsing(); });
    EXPECT_EQ(avahi.liveHandles(), Lines());
}

// What fails.

TEST_F(ManagedThreadTest, CallsAfterOneThatFailedAreMadeLaterInTheirOrder)
{
    run();
    for (int i = 1; i <= 4; ++i)
        appears(camName(i).c_str());
    avahi.failNext("service_resolver_new", AVAHI_ERR_INVALID_SERVICE_NAME);
    turn();
    const Lines calls = takeCalls();
    Lines made;
    std::copy_if(calls.begin(), calls.end(), std::back_inserter(made),
                 [](const std::string& call) { return call.rfind("service_resolver_new", 0) == 0; });
    ASSERT_EQ(made.size(), 4u);
    EXPECT_NE(made.at(0).find("\"Cam1\""), std::string::npos);
    for (int i = 2; i <= 4; ++i)
        EXPECT_EQ(made.at(size_t(i - 1)), newResolver(camName(i), i - 1));
}

// The object may have a thread of its own beside that of its calls.

TEST_F(ManagedThreadTest, ObjectOfAnotherThreadHasItsCallsMadeInAThirdAndTellsTheFirst)
{
    QObject window;
    QStringList told;
    const std::thread::id windowsThread = std::this_thread::get_id();
    std::thread::id objectsThread;
    std::thread::id caller;
    // The thread sanitizer does not see how Qt synchronises itself.
    std::atomic<bool> isOver{false};
    const std::unique_ptr<QThread> worker(QThread::create([&] {
        objectsThread = std::this_thread::get_id();
        OpenManagedDiscovery discovery;
        QObject::connect(&discovery, &vd::ServiceDiscovery::serviceFound, &window,
                         [&](const vd::SServiceInfo& device) {
                             told += device.serviceName;
                             EXPECT_EQ(std::this_thread::get_id(), windowsThread);
                         });
        const auto runUntilOpen = [&](const Lines& handles) {
            QElapsedTimer waited;
            waited.start();
            while ((avahi.liveHandles() != handles || areCallsMadeFor(discovery)) && waited.elapsed() < LONG_MS)
                QCoreApplication::processEvents(QEventLoop::AllEvents, 1);
            EXPECT_EQ(avahi.liveHandles(), handles);
        };
        daemonRuns();
        EXPECT_TRUE(discovery.BrowseServices(HTTP));
        avahi.duringCall("record_browser_new", [&] { caller = std::this_thread::get_id(); });
        appears("Cam");
        runUntilOpen({"client1", "browser1", "resolver1"});
        ManagedDiscoveryTest::resolved(1, "Cam", "cam.local", "10.0.0.1", cameraTxt);
        runUntilOpen({"client1", "browser1", "recordBrowser1"});
        ManagedDiscoveryTest::record(1, AVAHI_BROWSER_ALL_FOR_NOW, "cam.local", nullptr);
        runUntilOpen({"client1", "browser1"});
        discovery.TerminateBrowsing();
        isOver = true;
    }));
    worker->start();
    ASSERT_TRUE(worker->wait(4 * LONG_MS));
    ASSERT_TRUE(isOver);
    EXPECT_NE(caller, std::thread::id());
    EXPECT_NE(caller, windowsThread);
    EXPECT_NE(caller, objectsThread);
    EXPECT_EQ(told, QStringList());
    QCoreApplication::processEvents();
    EXPECT_EQ(told, QStringList(QStringLiteral("Cam")));
}

// When Avahi is at work in the object's thread, no other may have the client.

TEST_F(ManagedThreadTest, CallsInsideACallbackAreMadeInItsThread)
{
    run();
    std::thread::id caller;
    avahi.duringCall("service_resolver_new", [&] { caller = std::this_thread::get_id(); });
    avahi.inCallback([&] {
        appears("Cam");
        QElapsedTimer waited;
        waited.start();
        while (caller == std::thread::id() && waited.elapsed() < LONG_MS)
            QCoreApplication::processEvents();
    });
    EXPECT_EQ(caller, std::this_thread::get_id());
}
