// SPDX-License-Identifier: MIT
#include "support/BusStandIn.h"
#include "support/ManagedThreadFixture.h"

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <thread>

/** When many devices wait, a second client follows their addresses, and its calls are made in a thread of its own. */
class ManagedSecondClientTest : public ManagedThreadTest
{
protected:
    static constexpr int MANY = 100;
    static constexpr int MOST_UNREAD = 24;

    void appear(int devices)
    {
        for (int i = 1; i <= devices; ++i)
            appears(camName(i).c_str());
    }

    /** All but the first few of the devices wait, and the second client was made. */
    void manyAppear()
    {
        run();
        appear(MANY);
        turn();
        ASSERT_EQ(clients(), (Lines{"client1", "client2"}));
    }

    /** The next devices that were asked for are resolved; what follows is not waited for. */
    int resolveNext(int most = MANY)
    {
        int answered = 0;
        for (const std::string& call : takeCalls()) {
            if (call.rfind("service_resolver_new", 0) != 0 || answered == most)
                continue;
            const int number = std::stoi(call.substr(call.rfind("resolver") + 8));
            const std::string name = nameIn(call);
            ManagedDiscoveryTest::resolved(number, name.c_str(), (name + ".local").c_str(), "10.0.0.1", cameraTxt);
            ++answered;
        }
        return answered;
    }

    /** The device that resolver @p number is for. */
    void resolveOnly(int number)
    {
        const std::string name = camName(number);
        ManagedDiscoveryTest::resolved(number, name.c_str(), (name + ".local").c_str(), "10.0.0.1", cameraTxt);
    }

    /** The call that follows from it waits until it may return. */
    void resolveAndHoldUp(int number)
    {
        holdUp("record_browser_new");
        resolveOnly(number);
        runUntilHeldUp();
    }

    /** Ends with a call of @p function for the second client that waits until it may return. */
    void holdUpSecond(const std::string& function)
    {
        manyAppear();
        resolveNext(4);
        holdUp(function);
        runUntilHeldUp();
    }

    /** Everything is resolved, and has its addresses told, until no more than so many objects are open. */
    void answerAll(int objects)
    {
        int rounds = 0;
        while (objectsAlive() > objects && ++rounds < MANY) {
            resolveNext();
            turn(20);
            for (const int number : addressBrowsers())
                record(number, AVAHI_BROWSER_ALL_FOR_NOW, "any.local", nullptr);
        }
        turn();
    }

    /** How many address browsers are open when all are resolved and nothing is told of addresses. */
    int unreadAfterResolving()
    {
        for (int round = 0; round < 20; ++round) {
            resolveNext();
            turn();
        }
        return static_cast<int>(addressBrowsers().size());
    }

    /** Of this process. One that has ended is there a moment longer. */
    static int threads()
    {
        QThread::msleep(50);
        int count = 0;
        for (const auto& entry : std::filesystem::directory_iterator("/proc/self/task"))
            count += entry.is_directory() ? 1 : 0;
        return count;
    }

    /** Runs the event loop, though calls may be held up. */
    static void pass(int milliseconds)
    {
        QElapsedTimer waited;
        waited.start();
        while (waited.elapsed() < milliseconds)
            QCoreApplication::processEvents(QEventLoop::AllEvents, 1);
    }

    /** Runs the event loop until there were so many calls that begin so. */
    int callsOnItsWay(const std::string& begin, int wanted)
    {
        QElapsedTimer waited;
        waited.start();
        int calls = 0;
        while (calls < wanted && waited.elapsed() < LONG_MS) {
            QCoreApplication::processEvents(QEventLoop::AllEvents, 1);
            calls += count(takeCalls(), begin);
        }
        return calls;
    }

    Lines clients() const
    {
        Lines live = avahi.liveHandles();
        live.erase(std::remove_if(live.begin(), live.end(),
                                  [](const std::string& handle) { return handle.rfind("client", 0) != 0; }),
                   live.end());
        return live;
    }

    static std::string nameIn(const std::string& call)
    {
        const size_t begin = call.find('"') + 1;
        return call.substr(begin, call.find('"', begin) - begin);
    }

    /** The address browsers that live, by number. */
    std::vector<int> addressBrowsers() const
    {
        std::vector<int> numbers;
        for (const std::string& handle : avahi.liveHandles()) {
            if (handle.rfind("recordBrowser", 0) == 0)
                numbers.push_back(std::stoi(handle.substr(13)));
        }
        return numbers;
    }

    /** The number of the address browser that was made for @p host; 0 if none was. */
    static int browserOf(const std::string& host, const Lines& calls)
    {
        for (const std::string& call : calls) {
            if (call.find('"' + host + '"') != std::string::npos)
                return std::stoi(call.substr(call.rfind("recordBrowser") + 13));
        }
        return 0;
    }

    bool isResolverOpen(int number) const
    {
        const Lines live = avahi.liveHandles();
        return std::count(live.begin(), live.end(), "resolver" + std::to_string(number)) == 1;
    }

    int objectsAlive() const { return static_cast<int>(avahi.liveHandles().size() - clients().size()); }
};

TEST_F(ManagedSecondClientTest, FewDevicesNeedNone)
{
    run();
    // As many as are asked for at once, and all but one of those that make it worth while.
    appear(16 + 63);
    turn();
    EXPECT_EQ(clients(), Lines{"client1"});
}

TEST_F(ManagedSecondClientTest, NoneIsMadeWhereCallsAreMadeInTheObjectsThread)
{
    run();
    avahi.inCallback([this] {
        appear(MANY);
        pass(50);
    });
    EXPECT_EQ(clients(), Lines{"client1"});
    turn();
}

TEST_F(ManagedSecondClientTest, ManyHaveItMadeOnceInAThread)
{
    run();
    std::thread::id caller;
    avahi.duringCall("client_new", [&] { caller = std::this_thread::get_id(); });
    appear(MANY);
    turn(100);
    EXPECT_EQ(count(takeCalls(), "client_new(poll, 0)"), 1);
    EXPECT_EQ(clients(), (Lines{"client1", "client2"}));
    EXPECT_NE(caller, std::thread::id());
    EXPECT_NE(caller, std::this_thread::get_id());
}

TEST_F(ManagedSecondClientTest, ItMakesAndFreesAddressBrowsersInItsThread)
{
    manyAppear();
    ASSERT_EQ(resolveNext(4), 4);
    std::thread::id maker;
    std::thread::id freer;
    avahi.duringCall("record_browser_new", [&] { maker = std::this_thread::get_id(); });
    avahi.duringCall("record_browser_free", [&] { freer = std::this_thread::get_id(); });
    turn();
    EXPECT_EQ(count(takeCalls(), "record_browser_new(client2, "), 4);
    EXPECT_NE(maker, std::this_thread::get_id());
    record(1, AVAHI_BROWSER_NEW, "Cam1.local", "10.0.0.1");
    record(1, AVAHI_BROWSER_ALL_FOR_NOW, "Cam1.local", nullptr);
    EXPECT_EQ(count(takeCalls(), "record_browser_free(recordBrowser1)"), 1);
    EXPECT_EQ(freer, maker);
}

TEST_F(ManagedSecondClientTest, EverythingIsFoundThroughBothAndItEnds)
{
    const int threadsBefore = threads();
    manyAppear();
    EXPECT_EQ(threads(), threadsBefore + 2);
    answerAll(1);
    EXPECT_EQ(count(takeSignals(), "found"), MANY);
    EXPECT_EQ(avahi.liveHandles(), (Lines{"client1", "browser1"}));
    EXPECT_EQ(discovery().openObjects(), 1);
    EXPECT_EQ(threads(), threadsBefore + 1);
}

TEST_F(ManagedSecondClientTest, ItEndsThoughManyDevicesAreSilent)
{
    manyAppear();
    QElapsedTimer waited;
    waited.start();
    // As long as they may answer, and looked for each second.
    while (clients().size() == 2 && waited.elapsed() < 3 * LONG_MS)
        turn(100);
    EXPECT_EQ(clients(), Lines{"client1"});
    EXPECT_GE(waited.elapsed(), LONG_MS - 500);
    EXPECT_EQ(objectsAlive(), MANY + 1);
}

TEST_F(ManagedSecondClientTest, ItEndsThoughAllElseWasDoneWhileASlotRanAnEventLoop)
{
    manyAppear();
    resolveOnly(1);
    turn();
    ASSERT_EQ(addressBrowsers(), std::vector<int>{1});
    inNextSlot([this] {
        for (int round = 0; objectsAlive() > 1 && round < MANY; ++round) {
            for (int number = 1; number <= MANY; ++number) {
                if (isResolverOpen(number))
                    resolveOnly(number);
            }
            turn(20);
            for (const int browser : addressBrowsers())
                record(browser, AVAHI_BROWSER_ALL_FOR_NOW, "any.local", nullptr);
        }
        EXPECT_EQ(objectsAlive(), 1);
    });
    avahi.inCallback([this] { ManagedDiscoveryTest::record(1, AVAHI_BROWSER_NEW, "Cam1.local", "10.0.0.77"); }, 2);
    ASSERT_EQ(clients(), (Lines{"client1", "client2"}));
    turn(1500);
    EXPECT_EQ(clients(), Lines{"client1"});
}

TEST_F(ManagedSecondClientTest, ItEndsThoughAQueryIsKeptOpen)
{
    manyAppear();
    discovery().StartQueryRecords("Cam1", HTTP, true);
    answerAll(3);
    EXPECT_EQ(avahi.liveHandles(), (Lines{"client1", "browser1", "resolver101", "recordBrowser101"}));
}

TEST_F(ManagedSecondClientTest, DeviceThatItFollowsIsFollowedByTheOwnClientWhenItsQueryIsKeptOpen)
{
    manyAppear();
    takeCalls();
    resolveOnly(1);
    turn();
    ASSERT_EQ(count(takeCalls(), "record_browser_new(client2"), 1);
    discovery().StartQueryRecords("Cam1", HTTP, true);
    // Its turn comes after all that wait.
    turn(400);
    const Lines calls = takeCalls();
    EXPECT_EQ(count(calls, "record_browser_free(recordBrowser1)"), 1);
    EXPECT_EQ(count(calls, "record_browser_new(client1"), 1);
    EXPECT_EQ(addressBrowsers(), std::vector<int>{2});
}

TEST_F(ManagedSecondClientTest, DeviceThatItIsAboutToFollowIsFollowedByTheOwnClientWhenItsQueryIsKeptOpen)
{
    manyAppear();
    resolveAndHoldUp(1);
    discovery().StartQueryRecords("Cam1", HTTP, true);
    pass(400);
    takeCalls();
    letReturn();
    turn();
    const Lines calls = takeCalls();
    EXPECT_EQ(count(calls, "record_browser_free(recordBrowser1)"), 1);
    EXPECT_EQ(count(calls, "record_browser_new(client1"), 1);
    EXPECT_EQ(addressBrowsers(), std::vector<int>{2});
}

TEST_F(ManagedSecondClientTest, QueriesOfAFewDoNotKeepIt)
{
    manyAppear();
    takeCalls();
    resolveOnly(1);
    turn();
    ASSERT_EQ(count(takeCalls(), "record_browser_new(client2"), 1);
    // Until all others are resolved, and their addresses known.
    int left = MANY - 1;
    for (int number = 2; number <= MANY; ++number) {
        turn(number % 16 == 0 ? 30 : 0);
        if (!isResolverOpen(number))
            continue;
        resolveOnly(number);
        turn();
        --left;
        for (const int browser : addressBrowsers()) {
            if (browser != 1)
                record(browser, AVAHI_BROWSER_ALL_FOR_NOW, "any.local", nullptr);
        }
    }
    ASSERT_EQ(left, 0);
    ASSERT_EQ(addressBrowsers(), std::vector<int>{1});
    ASSERT_EQ(clients(), (Lines{"client1", "client2"}));
    takeCalls();
    discovery().StartQueryRecords("Cam2", HTTP, false);
    turn();
    // They wait for the own client, though the other one is free.
    discovery().StartQueryRecords("Cam3", HTTP, false);
    holdUp("service_resolver_new");
    runUntilHeldUp();
    ASSERT_EQ(resolveNext(1), 1);
    pass(50);
    EXPECT_EQ(count(takeCalls(), "record_browser_new"), 0);
    letReturn();
    turn();
    EXPECT_EQ(count(takeCalls(), "record_browser_new(client1"), 1);
    record(1, AVAHI_BROWSER_ALL_FOR_NOW, "any.local", nullptr);
    turn();
    EXPECT_EQ(clients(), Lines{"client1"});
}

TEST_F(ManagedSecondClientTest, WhatIsToldInTurnsThatFollowEachOtherLeadsToCallsTogether)
{
    const int each = 3;
    manyAppear();
    for (int i = 1; i <= 4 * each; ++i)
        resolveOnly(i);
    turn();
    const std::vector<int> open = addressBrowsers();
    ASSERT_EQ(open.size(), 4u * each);
    bool wereTogether = false;
    // A machine that is busy may take longer than they are waited for.
    for (size_t first = 0; first + each <= open.size() && !wereTogether; first += each) {
        wereTogether = true;
        for (size_t i = first; i < first + each; ++i) {
            wereTogether = wereTogether && addressBrowsers().size() == open.size() - first;
            ManagedDiscoveryTest::record(open[i], AVAHI_BROWSER_ALL_FOR_NOW, "any.local", nullptr);
            QCoreApplication::processEvents();
            // What was handed over has begun by then.
            std::this_thread::sleep_for(std::chrono::microseconds(500));
        }
        turn();
        EXPECT_EQ(addressBrowsers().size(), open.size() - first - each);
    }
    EXPECT_TRUE(wereTogether);
}

TEST_F(ManagedSecondClientTest, TheNextManyHaveItMadeAgain)
{
    manyAppear();
    answerAll(1);
    for (int i = 1; i <= MANY; ++i)
        appears(("Next" + std::to_string(i)).c_str());
    turn();
    EXPECT_EQ(clients(), (Lines{"client1", "client3"}));
}

TEST_F(ManagedSecondClientTest, ItStaysInsideItsOwnCallback)
{
    manyAppear();
    std::vector<std::string> inside;
    avahi.inCallback(
        [&] {
            answerAll(1);
            inside = clients();
        },
        2);
    EXPECT_EQ(inside, (Lines{"client1", "client2"}));
    discovery().setObjectLimit(100);
    turn();
    EXPECT_EQ(clients(), Lines{"client1"});
}

TEST_F(ManagedSecondClientTest, ItsAddressesAreToldInTheObjectsThread)
{
    manyAppear();
    resolveNext(1);
    turn();
    takeSignals();
    QThread* slotsThread = nullptr;
    inNextSlot([&] { slotsThread = QThread::currentThread(); });
    record(1, AVAHI_BROWSER_NEW, "Cam1.local", "10.0.0.2");
    EXPECT_EQ(slotsThread, QThread::currentThread());
    EXPECT_EQ(count(takeSignals(), "address"), 1);
}

TEST_F(ManagedSecondClientTest, TheFirstFollowsAddressesUntilItIsThere)
{
    run();
    appear(MANY);
    holdUp("client_new");
    runUntilHeldUp();
    // Meanwhile all are asked for.
    pass(500);
    ASSERT_EQ(resolveNext(4), 4);
    EXPECT_EQ(callsOnItsWay("record_browser_new(client1, ", 4), 4);
    letReturn();
    turn();
}

TEST_F(ManagedSecondClientTest, TheFirstHelpsWhenManyWaitForTheirs)
{
    manyAppear();
    ASSERT_EQ(resolveNext(2), 2);
    pass(100);
    ASSERT_GE(liveCount("resolver"), 20);
    takeCalls();
    resolveAndHoldUp(3);
    for (int i = 4; i <= 12; ++i)
        resolveOnly(i);
    EXPECT_EQ(callsOnItsWay("record_browser_new(client1, ", 1), 1);
    letReturn();
    turn();
}

TEST_F(ManagedSecondClientTest, NoMoreAreMadeThanTheDaemonReads)
{
    manyAppear();
    for (int round = 0; round < 6; ++round) {
        resolveNext();
        turn(30);
    }
    ASSERT_EQ(liveCount("recordBrowser"), 24);
    takeCalls();
    record(1, AVAHI_BROWSER_CACHE_EXHAUSTED, "Cam1.local", nullptr);
    EXPECT_EQ(count(takeCalls(), "record_browser_new"), 1);
    // One that is closed makes room, too.
    disappears("Cam2");
    EXPECT_EQ(count(takeCalls(), "record_browser_new"), 1);
}

TEST_F(ManagedSecondClientTest, OpenObjectsAreThoseOfBoth)
{
    manyAppear();
    EXPECT_EQ(discovery().openObjects(), objectsAlive());
    for (int round = 0; round < 3; ++round) {
        resolveNext();
        turn(30);
        EXPECT_EQ(discovery().openObjects(), objectsAlive());
    }
    ASSERT_GE(liveCount("recordBrowser"), 10);
}

TEST_F(ManagedSecondClientTest, ItsCallsThatAreOnTheirWayCountAsOpen)
{
    manyAppear();
    pass(500);
    ASSERT_EQ(liveCount("resolver"), MANY);
    resolveAndHoldUp(1);
    pass(20);
    EXPECT_EQ(discovery().openObjects(), objectsAlive() + 1);
    letReturn();
    turn();
    EXPECT_EQ(discovery().openObjects(), objectsAlive());
}

TEST_F(ManagedSecondClientTest, ObjectsOfBothStayBelowTheLimit)
{
    const int limit = 40;
    manyAppear();
    discovery().setObjectLimit(limit);
    for (int round = 0; round < 8; ++round) {
        resolveNext();
        turn(20);
        EXPECT_LE(objectsAlive(), limit);
        EXPECT_LE(discovery().openObjects(), limit);
    }
}

TEST_F(ManagedSecondClientTest, PlaceOfAResolverIsTakenOnceItIsFree)
{
    const int limit = 24;
    run();
    discovery().setObjectLimit(limit);
    appear(MANY);
    turn(100);
    ASSERT_EQ(objectsAlive(), limit);
    ASSERT_GE(resolveNext(20), 20);
    holdUp("service_resolver_free");
    runUntilHeldUp();
    pass(50);
    EXPECT_EQ(objectsAlive(), limit);
    EXPECT_EQ(discovery().openObjects(), limit);
    letReturn();
    turn();
    EXPECT_GE(liveCount("recordBrowser"), 10);
    EXPECT_LE(objectsAlive(), limit);
}

TEST_F(ManagedSecondClientTest, PlaceOfAnAddressBrowserIsTakenOnceItIsFree)
{
    const int limit = 24;
    run();
    discovery().setObjectLimit(limit);
    appear(MANY);
    turn(100);
    // No more than the second client makes alone.
    ASSERT_EQ(resolveNext(8), 8);
    turn(150);
    ASSERT_EQ(objectsAlive(), limit);
    ASSERT_EQ(count(takeCalls(), "record_browser_new(client2, "), 8);
    for (const int number : addressBrowsers())
        ManagedDiscoveryTest::record(number, AVAHI_BROWSER_ALL_FOR_NOW, "any.local", nullptr);
    holdUp("record_browser_free");
    runUntilHeldUp();
    pass(150);
    EXPECT_LE(objectsAlive(), limit);
    EXPECT_LE(discovery().openObjects(), limit);
    letReturn();
    turn(150);
    EXPECT_GE(count(takeCalls(), "service_resolver_new"), 5);
    EXPECT_LE(objectsAlive(), limit);
}

TEST_F(ManagedSecondClientTest, HostThatChangesWhileItIsLookedUpIsFollowedAlone)
{
    manyAppear();
    holdUp("record_browser_new");
    ManagedDiscoveryTest::resolved(1, "Cam1", "before.local", "10.0.0.1", cameraTxt);
    runUntilHeldUp();
    discovery().StartQueryRecords("Cam1", HTTP, false);
    pass(500);
    takeCalls();
    ManagedDiscoveryTest::resolved(MANY + 1, "Cam1", "after.local", "10.0.0.1", cameraTxt);
    for (int i = 2; i <= 20; ++i)
        resolveOnly(i);
    pass(100);
    // The look-up of the old host is on its way on one client, and the other one follows those behind.
    const Lines meanwhile = takeCalls();
    EXPECT_GE(count(meanwhile, "record_browser_new(client1"), 1);
    EXPECT_EQ(browserOf("after.local", meanwhile), 0);
    letReturn();
    turn();
    const Lines calls = takeCalls();
    const int ofBefore = browserOf("before.local", calls);
    const int ofAfter = browserOf("after.local", calls);
    ASSERT_GT(ofBefore, 0);
    EXPECT_GT(ofAfter, ofBefore);
    const std::vector<int> open = addressBrowsers();
    EXPECT_EQ(std::count(open.begin(), open.end(), ofBefore), 0);
    EXPECT_EQ(std::count(open.begin(), open.end(), ofAfter), 1);
    const auto freed = std::find(calls.begin(), calls.end(),
                                 "record_browser_free(recordBrowser" + std::to_string(ofBefore) + ")");
    const auto made = std::find_if(calls.begin(), calls.end(), [](const std::string& call) {
        return call.find("\"after.local\"") != std::string::npos;
    });
    EXPECT_LT(freed, made);
}

// What uses the object's own client does not wait for the second one.

TEST_F(ManagedSecondClientTest, OperationsGoOnWhileItCalls)
{
    holdUpSecond("record_browser_new");
    std::promise<void> areOver;
    std::thread other([&] {
        const auto ended = areOver.get_future().wait_for(std::chrono::milliseconds(LONG_MS));
        EXPECT_EQ(ended, std::future_status::ready) << "an operation waited";
        letReturn();
    });
    EXPECT_TRUE(discovery().BrowseServices(HTTPS));
    EXPECT_TRUE(discovery().RegisterService("Me", HTTP, vd::SReconfigInfo()));
    EXPECT_TRUE(discovery().UpdateTxtRecord("a=b"));
    EXPECT_TRUE(discovery().TerminateRegistration());
    areOver.set_value();
    other.join();
    turn();
}

TEST_F(ManagedSecondClientTest, ResolvingGoesOnWhileItCalls)
{
    holdUpSecond("record_browser_new");
    takeCalls();
    discovery().ResolveService(2, "Other", HTTP, "local");
    EXPECT_GE(callsOnItsWay("service_resolver_new(client1, ", 1), 1);
    letReturn();
    turn();
}

// The end of it.

TEST_F(ManagedSecondClientTest, TerminatingWaitsForItsCalls)
{
    holdUpSecond("record_browser_new");
    returnsDuring([this] { EXPECT_TRUE(discovery().TerminateBrowsing()); });
    EXPECT_EQ(avahi.liveHandles(), Lines());
    turn();
}

TEST_F(ManagedSecondClientTest, TerminatingWaitsUntilItIsMadeAndFreesIt)
{
    run();
    appear(MANY);
    holdUp("client_new");
    runUntilHeldUp();
    returnsDuring([this] { EXPECT_TRUE(discovery().TerminateBrowsing()); });
    EXPECT_EQ(avahi.liveHandles(), Lines());
    turn();
}

TEST_F(ManagedSecondClientTest, DestructionWaitsForItsCalls)
{
    holdUpSecond("record_browser_new");
    returnsDuring([this] { destroyDiscovery(); });
    EXPECT_EQ(avahi.liveHandles(), Lines());
    QCoreApplication::processEvents();
}

TEST_F(ManagedSecondClientTest, DestructionFreesItBeforeTheFirst)
{
    manyAppear();
    takeCalls();
    destroyDiscovery();
    const Lines calls = takeCalls();
    ASSERT_GE(calls.size(), 2u);
    EXPECT_EQ(calls.front(), "client_free(client2)");
    EXPECT_EQ(calls.back(), "client_free(client1)");
}

TEST_F(ManagedSecondClientTest, SlotOfItsAddressMayEndBrowsing)
{
    manyAppear();
    resolveNext(1);
    turn();
    inNextSlot([this] { discovery().TerminateBrowsing(); });
    avahi.inCallback(
        [this] { ManagedDiscoveryTest::record(1, AVAHI_BROWSER_NEW, "Cam1.local", "10.0.0.2"); }, 2);
    EXPECT_EQ(avahi.liveHandles(), Lines());
    turn();
}

TEST_F(ManagedSecondClientTest, SlotOfItsAddressMayDestroyTheObject)
{
    manyAppear();
    resolveNext(1);
    turn();
    inNextSlot([this] { destroyDiscovery(); });
    avahi.inCallback(
        [this] { ManagedDiscoveryTest::record(1, AVAHI_BROWSER_NEW, "Cam1.local", "10.0.0.2"); }, 2);
    EXPECT_EQ(avahi.liveHandles(), Lines());
    QCoreApplication::processEvents();
}

TEST_F(ManagedSecondClientTest, BrowsingAgainMakesANewOne)
{
    manyAppear();
    discovery().TerminateBrowsing();
    discovery().BrowseServices(HTTP);
    turn();
    ASSERT_EQ(clients(), Lines{"client3"});
    for (int i = 1; i <= MANY; ++i)
        appearsOn(camName(i).c_str(), 2, AVAHI_PROTO_INET, HTTP, 2);
    turn();
    EXPECT_EQ(clients(), (Lines{"client3", "client4"}));
}

// Its failures.

TEST_F(ManagedSecondClientTest, WithoutItTheFirstDoesAll)
{
    run();
    avahi.failNext("client_new", AVAHI_ERR_NO_MEMORY);
    appear(2 * MANY);
    // Each turn finds many in line.
    turn();
    turn(100);
    EXPECT_EQ(clients(), Lines{"client1"});
    const Lines calls = takeCalls();
    EXPECT_EQ(count(calls, "client_new"), 1) << "it was tried again";
    EXPECT_GE(count(calls, "service_resolver_new"), 32);
    resolveOnly(1);
    turn(50);
    EXPECT_EQ(count(takeCalls(), "record_browser_new(client1, "), 1);
    EXPECT_EQ(discovery().state(), vd::ManagedServiceDiscovery::Running);
}

TEST_F(ManagedSecondClientTest, ItsFailureIsThatOfTheConnection)
{
    manyAppear();
    resolveNext(4);
    turn();
    takeSignals();
    failClient(2);
    turn();
    EXPECT_EQ(clients(), Lines{"client3"});
    EXPECT_EQ(count(takeSignals(), "lost"), 0);
    EXPECT_EQ(discovery().state(), vd::ManagedServiceDiscovery::Running);
}

TEST_F(ManagedSecondClientTest, BothMayFailInTurn)
{
    manyAppear();
    failClient(2);
    failClient(1);
    turn();
    EXPECT_EQ(clients(), Lines{"client3"});
}

TEST_F(ManagedSecondClientTest, ItsFailureWhileItIsMadeIsNotThatOfTheConnection)
{
    run();
    avahi.duringClientNew([this](AvahiClient*) { failClient(2); });
    appear(MANY);
    turn(50);
    EXPECT_EQ(clients(), (Lines{"client1", "client2"}));
    EXPECT_EQ(discovery().state(), vd::ManagedServiceDiscovery::Running);
}

TEST_F(ManagedSecondClientTest, AddressBrowserThatItCannotMakeEndsTheConnection)
{
    manyAppear();
    resolveNext(4);
    avahi.failNext("record_browser_new", AVAHI_ERR_DISCONNECTED);
    turn();
    EXPECT_EQ(clients(), Lines{"client3"});
    EXPECT_EQ(discovery().state(), vd::ManagedServiceDiscovery::Running);
}

TEST_F(ManagedSecondClientTest, AddressBrowserThatItIsRefusedSlowsDown)
{
    manyAppear();
    resolveNext(1);
    avahi.failNext("record_browser_new", AVAHI_ERR_TOO_MANY_OBJECTS);
    turn(50);
    takeCalls();
    turn(500);
    EXPECT_EQ(takeCalls(), Lines());
    EXPECT_EQ(clients(), (Lines{"client1", "client2"}));
}

TEST_F(ManagedSecondClientTest, AfterAFailureItsCallsAreMadeAgain)
{
    manyAppear();
    ASSERT_GE(resolveNext(4), 4);
    avahi.failNext("record_browser_new", AVAHI_ERR_INVALID_HOST_NAME);
    turn(50);
    EXPECT_EQ(liveCount("recordBrowser"), 3);
}

TEST_F(ManagedSecondClientTest, WhatWasUnreadWhenTheConnectionEndedHoldsUpNobodyAfterwards)
{
    manyAppear();
    EXPECT_EQ(unreadAfterResolving(), MOST_UNREAD);
    failClient();
    turn();
    takeCalls();
    for (int i = 1; i <= MANY; ++i)
        appearsOn(camName(i).c_str(), 2, AVAHI_PROTO_INET, HTTP, 2);
    turn();
    ASSERT_EQ(addressBrowsers(), std::vector<int>());
    EXPECT_EQ(unreadAfterResolving(), MOST_UNREAD);
}

TEST_F(ManagedSecondClientTest, AddressBrowserIsFreedOnTheClientThatItIsOf)
{
    run();
    discovery().StartQueryRecords("Old", HTTP, true);
    turn();
    resolved(1, "Old", "old.local", "10.0.0.9", cameraTxt);
    record(1, AVAHI_BROWSER_ALL_FOR_NOW, "old.local", nullptr);
    appear(MANY);
    turn();
    ASSERT_EQ(clients(), (Lines{"client1", "client2"}));
    takeCalls();
    resolveOnly(2);
    turn();
    ASSERT_EQ(addressBrowsers(), (std::vector<int>{1, 2}));
    std::map<std::string, std::thread::id> callers;
    avahi.duringCall("service_resolver_free", [&] { callers["own"] = std::this_thread::get_id(); });
    avahi.duringCall("record_browser_free", [&] { callers["Old"] = std::this_thread::get_id(); });
    discovery().StopQueryRecords("Old", HTTP);
    turn();
    EXPECT_NE(callers["own"], std::thread::id());
    EXPECT_EQ(callers["Old"], callers["own"]);
    avahi.duringCall("record_browser_free", [&] { callers["Cam1"] = std::this_thread::get_id(); });
    record(2, AVAHI_BROWSER_ALL_FOR_NOW, "Cam1.local", nullptr);
    EXPECT_NE(callers["Cam1"], std::thread::id());
    EXPECT_NE(callers["Cam1"], callers["own"]);
}

/** The daemon can be asked whether it answers. */
class ManagedSecondClientBusTest : public ManagedSecondClientTest
{
protected:
    ~ManagedSecondClientBusTest() override { destroyDiscovery(); }

    /** Runs the event loop while the daemon answers, until that is so. */
    void answerUntil(const std::function<bool()>& isSo)
    {
        QElapsedTimer waited;
        waited.start();
        while (!isSo() && waited.elapsed() < LONG_MS) {
            QCoreApplication::processEvents(QEventLoop::AllEvents, 1);
            if (!bus.takeQuestions().empty())
                bus.answer();
        }
        EXPECT_TRUE(isSo());
    }

    BusStandIn bus;
};

// An answer would be taken for one that came after the resolvers which are being made.
TEST_F(ManagedSecondClientBusTest, DaemonIsNotAskedForItsCallsWhileTheFirstCalls)
{
    run();
    appear(MANY);
    answerUntil([this] { return liveCount("resolver") == MANY && !areCallsMade(); });
    ASSERT_EQ(clients(), (Lines{"client1", "client2"}));
    for (int i = 1; i <= 40; ++i)
        resolveOnly(i);
    answerUntil([this] { return liveCount("recordBrowser") == 24 && !areCallsMade() && !areCallsDue(); });
    std::atomic<bool> isHeldUp{false};
    std::promise<void> mayReturn;
    avahi.duringCall("service_resolver_new", [&] {
        isHeldUp = true;
        mayReturn.get_future().wait();
    });
    discovery().ResolveService(2, "Other", HTTP, "local");
    answerUntil([&] { return isHeldUp.load(); });
    // The last answer is too old to count for the next call.
    QThread::msleep(20);
    takeCalls();
    ManagedDiscoveryTest::record(1, AVAHI_BROWSER_CACHE_EXHAUSTED, "Cam1.local", nullptr);
    EXPECT_EQ(callsOnItsWay("record_browser_new(client2, ", 1), 1);
    EXPECT_EQ(bus.takeQuestions(), Lines());
    mayReturn.set_value();
    answerUntil([this] { return !areCallsMade(); });
}
